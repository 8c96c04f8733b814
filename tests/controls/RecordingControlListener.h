#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Allocation.h"
#include "ScriptedPlatform.h"
#include "SensorControlListener.h"

namespace Parvane {

/**
 * The top-level controller as the sensor controllers see it.
 *
 * Its calls are recorded among those of the platform, whose order matters. Registrations are known
 * by their address, and hold nothing: a controller that lives lives by somebody else's hand.
 */
class RecordingControlListener : public SensorControlListener
{
public:
    void RegisterSensorListener(SensorType type,
                                std::shared_ptr<ContextSensorListner> listener) override
    {
        const PlatformScope scope;
        Record("RegisterSensorListener", type);
        EXPECT_NE(0, listener.use_count()) << "a registration has to keep its listener alive";
        EXPECT_EQ(0U, mRegistered.count(type)) << "registered twice";
        mRegistered[type] = listener.get();
        if (mInsideRegistration) {
            mInsideRegistration(*listener);
        }
    }

    void UnregisterSensorListener(SensorType type,
                                  std::shared_ptr<ContextSensorListner> listener) override
    {
        const PlatformScope scope;
        Record("UnregisterSensorListener", type);
        mUnregistered.push_back(listener.get());
        mRegistered.erase(type);
        if (mInsideEnd) {
            mInsideEnd();
        }
    }

    void UnregisterAllSensorListeners(SensorType type) override
    {
        const PlatformScope scope;
        Record("UnregisterAllSensorListeners", type);
    }

    void RequestCurrentSensorData(SensorType type) override
    {
        const PlatformScope scope;
        Record("RequestCurrentSensorData", type);
        if (mInsideQuery) {
            mInsideQuery();
        }
    }

    void SendSensorData(std::shared_ptr<SensorData> record) override
    {
        const PlatformScope scope;
        Record("SendSensorData", record->GetSensorType());
        mSent.push_back(std::move(record));
        if (mInsideSend) {
            mInsideSend();
        }
    }

    bool IsRegistered(SensorType type) const { return mRegistered.count(type) != 0; }

    /** The only record that was sent, as a `Record`; null, and a failure, when it is not that. */
    template <typename Record>
    std::shared_ptr<Record> TakeOnly()
    {
        EXPECT_EQ(1U, mSent.size());
        auto record = mSent.empty() ? nullptr : std::dynamic_pointer_cast<Record>(mSent.front());
        EXPECT_NE(nullptr, record);
        mSent.clear();
        return record;
    }

    std::map<SensorType, const ContextSensorListner *> mRegistered;
    std::vector<const ContextSensorListner *> mUnregistered;
    std::vector<std::shared_ptr<SensorData>> mSent;
    std::function<void(ContextSensorListner &)> mInsideRegistration;
    std::function<void()> mInsideEnd;
    std::function<void()> mInsideQuery;
    std::function<void()> mInsideSend;

private:
    static void Record(const char *name, SensorType type)
    {
        ScriptedPlatform::Active().Record(std::string(name) + "(" +
                                          std::to_string(static_cast<int>(type)) + ")");
    }
};

} // namespace Parvane
