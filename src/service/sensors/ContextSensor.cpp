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
    // Not erase(): the listener may end with its entry and call back, and finds the map whole so.
    if (mListeners.extract(listener).empty()) {
        PARVANE_ERROR_AT(77, "try to remove the listener with not existed pointer");
    }
}

void ContextSensor::UpdateSensorData(std::shared_ptr<SensorData> data)
{
    const void *address = nullptr;
    // Found anew for each: a listener may add and remove listeners in its call.
    for (auto entry = mListeners.begin(); entry != mListeners.end();
         entry = mListeners.upper_bound(address)) {
        address = entry->first;
        const auto listener = entry->second;
        if (!listener) {
            continue;
        }
        if (data->mRequestId == mChangedRequestId) {
            listener->OnSensorDataUpdated(data);
        } else if (data->mRequestId == mCurrentRequestId) {
            listener->OnSensorDataChanged(data);
            mCurrentRequestId = -1;
        } else {
            PARVANE_WARN_AT(62, "Please specify the request ID on the data");
        }
    }
}

} // namespace Parvane
