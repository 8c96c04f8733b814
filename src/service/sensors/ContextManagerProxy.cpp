#include "ContextManagerProxy.h"

#include <utility>

#include "ContextActivitySensor.h"
#include "ContextGestureSensor.h"
#include "ContextHRMSensor.h"
#include "ContextPedometerSensor.h"
#include "Log.h"

namespace Parvane {

void ContextManagerProxy::RegisterSensorListner(SensorType type,
                                                std::shared_ptr<ContextSensorListner> listener)
{
    const auto entry = mSensors.find(type);
    if (entry != mSensors.end()) {
        entry->second->AddSensorEventListener(std::move(listener));
        return;
    }
    const std::shared_ptr<ContextSensor> sensor = CreateContextSensor(type);
    if (!sensor) {
        PARVANE_WARN("Try to register the sensor that is not supported [type: %d]",
                     static_cast<int>(type));
        return;
    }
    sensor->AddSensorEventListener(std::move(listener));
    mKnown[type].insert(sensor);
    sensor->Start();
    const auto replaced = std::exchange(mSensors[type], sensor);
    if (replaced) { // stored by a registration from within Start
        replaced->RemoveAllSensorEventListeners();
    }
}

void ContextManagerProxy::RequestCurrentSensorData(SensorType type)
{
    const auto entry = mSensors.find(type);
    if (entry == mSensors.end()) {
        return;
    }
    const std::shared_ptr<ContextSensor> sensor = entry->second;
    sensor->GetCurrentSensorData();
    mKnown[type].insert(sensor); // if it was dropped from within: the platform may answer it yet
}

void ContextManagerProxy::UnregisterSensorListner(SensorType type,
                                                  const ContextSensorListner *listener)
{
    const auto entry = mSensors.find(type);
    if (entry == mSensors.end()) {
        PARVANE_WARN_AT(88, "Try to unregister the sensor that is not registered [type: %d]",
                        static_cast<int>(type));
        return;
    }
    const std::shared_ptr<ContextSensor> sensor = entry->second;
    sensor->RemoveSensorEventListener(listener);
    if (!sensor->HasSensorEventListeners()) {
        Drop(type, *sensor);
    }
}

void ContextManagerProxy::UnregisterLisnterAll(SensorType type)
{
    const auto entry = mSensors.find(type);
    if (entry == mSensors.end()) {
        PARVANE_WARN_AT(105, "Try to unregister the sensor that is not registered [type: %d]",
                        static_cast<int>(type));
        return;
    }
    const std::shared_ptr<ContextSensor> sensor = entry->second;
    Drop(type, *sensor);
}

void ContextManagerProxy::Drop(SensorType type, ContextSensor &sensor)
{
    const auto known = std::exchange(mKnown[type], {}); // alive until Stop has returned
    sensor.Stop();
    mSensors.erase(type);
}

std::shared_ptr<ContextSensor> ContextManagerProxy::CreateContextSensor(SensorType type)
{
    switch (type) {
    case SensorType::Activity:
        return std::make_shared<ContextActivitySensor>();
    case SensorType::Gesture:
        return std::make_shared<ContextGestureSensor>();
    case SensorType::Pedometer:
        return std::make_shared<ContextPedometerSensor>();
    case SensorType::HRM:
        return std::make_shared<ContextHRMSensor>();
    case SensorType::None:
    case SensorType::WearState:
        break;
    }
    return nullptr;
}

} // namespace Parvane
