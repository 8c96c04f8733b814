#include "ContextManagerProxy.h"

#include <cstddef>
#include <utility>

#include "ContextActivitySensor.h"
#include "ContextGestureSensor.h"
#include "ContextHRMSensor.h"
#include "ContextPedometerSensor.h"
#include "Log.h"

namespace Parvane {

namespace {

std::size_t IndexOf(SensorType type)
{
    return static_cast<std::size_t>(type);
}

/** Marks a type as busy for the length of its life. */
class BusyMark
{
public:
    BusyMark(ContextManagerProxy::TypeSet &types, std::size_t index) : mBit(types[index])
    {
        mBit = true;
    }
    BusyMark(const BusyMark &) = delete;
    BusyMark &operator=(const BusyMark &) = delete;
    ~BusyMark() { mBit = false; }

private:
    ContextManagerProxy::TypeSet::reference mBit;
};

} // namespace

ContextManagerProxy::~ContextManagerProxy()
{
    // The map is empty before a listener's end can call back.
    const auto sensors = std::exchange(mSensors, {});
}

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
    // Known before it starts: a reading inside Start may already lead to its end.
    mSensors.emplace(type, sensor);
    Run(type, sensor, &ContextSensor::Start);
}

void ContextManagerProxy::RequestCurrentSensorData(SensorType type)
{
    const auto entry = mSensors.find(type);
    if (entry == mSensors.end()) {
        return;
    }
    const std::shared_ptr<ContextSensor> sensor = entry->second;
    Run(type, sensor, &ContextSensor::GetCurrentSensorData);
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
    DropIfUnused(type, sensor);
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
    const auto listeners = sensor->RemoveAllSensorEventListeners();
    DropIfUnused(type, sensor);
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

void ContextManagerProxy::Run(SensorType type, const std::shared_ptr<ContextSensor> &sensor,
                              void (ContextSensor::*operation)())
{
    if (mBusy.test(IndexOf(type))) {
        ((*sensor).*operation)();
        return;
    }
    {
        const BusyMark mark(mBusy, IndexOf(type));
        ((*sensor).*operation)();
    }
    DropIfUnused(type, sensor);
}

void ContextManagerProxy::DropIfUnused(SensorType type,
                                       const std::shared_ptr<ContextSensor> &sensor)
{
    const auto entry = mSensors.find(type);
    const bool isCurrent = entry != mSensors.end() && entry->second == sensor;
    if (!isCurrent || mBusy.test(IndexOf(type))) {
        return; // dropped already, or looked at again when the operation under way is over
    }
    const BusyMark mark(mBusy, IndexOf(type));
    while (!sensor->HasSensorEventListeners()) {
        sensor->Stop();
        if (!sensor->HasSensorEventListeners()) {
            mSensors.erase(type);
            return;
        }
        sensor->Start();
    }
}

} // namespace Parvane
