#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

#include "ContextSensorListner.h"

namespace Parvane {

/** Keeps what it is handed; a test can make something happen inside the calls. */
class RecordingListner : public ContextSensorListner
{
public:
    void OnSensorDataUpdated(std::shared_ptr<SensorData> data) override
    {
        mUpdated.push_back(std::move(data));
        if (mInsideUpdated) {
            mInsideUpdated();
        }
    }

    void OnSensorDataChanged(std::shared_ptr<SensorData> data) override
    {
        mChanged.push_back(std::move(data));
        if (mInsideChanged) {
            mInsideChanged();
        }
    }

    std::vector<std::shared_ptr<SensorData>> mUpdated;
    std::vector<std::shared_ptr<SensorData>> mChanged;
    std::function<void()> mInsideUpdated;
    std::function<void()> mInsideChanged;
};

/** `count` listeners in ascending order of the addresses under which they are registered. */
inline std::vector<std::shared_ptr<RecordingListner>> MakeListners(std::size_t count)
{
    std::vector<std::shared_ptr<RecordingListner>> listners;
    for (std::size_t i = 0; i < count; ++i) {
        listners.push_back(std::make_shared<RecordingListner>());
    }
    std::sort(listners.begin(), listners.end(), [](const auto &a, const auto &b) {
        return std::less<const ContextSensorListner *>()(a.get(), b.get());
    });
    return listners;
}

} // namespace Parvane
