#include "ContextSensor.h"

#include <utility>

#include "Log.h"

namespace Parvane {

void ContextSensor::Start() {}

void ContextSensor::Stop() {}

void ContextSensor::GetCurrentSensorData()
{
    auto reading = std::make_shared<SensorData>();
    reading->mRequestId = mCurrentRequestId;
    UpdateSensorData(reading);
}

void ContextSensor::AddSensorEventListener(std::shared_ptr<ContextSensorListner> listener)
{
    const void *const address = listener.get();
    if (mListeners.count(address) != 0) {
        PARVANE_ERROR_AT(38, "try to register with same object");
        return;
    }
    mListeners.emplace(address, std::move(listener));
}

void ContextSensor::RemoveSensorEventListener(const ContextSensorListner *listener)
{
    // The node keeps the reference until the map is whole again: a listener's end may call back.
    if (mListeners.extract(listener).empty()) {
        PARVANE_ERROR_AT(77, "try to remove the listener with not existed pointer");
    }
}

ContextSensor::Listeners ContextSensor::RemoveAllSensorEventListeners()
{
    return std::exchange(mListeners, {});
}

void ContextSensor::UpdateSensorData(std::shared_ptr<SensorData> data)
{
    if (!data) {
        return;
    }
    const std::shared_ptr<ContextSensor> keepAlive = weak_from_this().lock();
    const Listeners listeners = mListeners;
    for (const auto &entry : listeners) {
        const std::shared_ptr<ContextSensorListner> &listener = entry.second;
        const int32_t requestId = data->mRequestId;
        if (!listener || !IsRegistered(entry)) {
            continue;
        }
        if (requestId == mChangedRequestId) {
            listener->OnSensorDataUpdated(data);
        } else if (requestId == mCurrentRequestId) {
            listener->OnSensorDataChanged(data);
            // One listener answers the query, unless it has asked anew in its call.
            if (mCurrentRequestId == requestId) {
                mCurrentRequestId = -1;
            }
        } else {
            PARVANE_WARN_AT(62, "Please specify the request ID on the data");
        }
    }
}

bool ContextSensor::IsRegistered(const Listeners::value_type &entry) const
{
    const auto registered = mListeners.find(entry.first);
    return registered != mListeners.end() && registered->second == entry.second;
}

} // namespace Parvane
