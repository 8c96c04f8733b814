#pragma once

#include <bitset>
#include <map>
#include <memory>

#include "ContextSensor.h"
#include "ContextSensorListner.h"
#include "SensorType.h"

namespace Parvane {

/**
 * Creates, shares and tears down the context sensors: at most one for each type.
 *
 * A sensor is created and started for its first listener, and stopped and dropped after its last.
 * Every platform call may call back: what is registered or unregistered from within takes effect
 * when the call is over.
 * Owned by the ParvaneController by value. The proxy's end drops its sensors without stopping
 * them: it lives as long as the process. Main-loop thread only.
 */
class ContextManagerProxy
{
public:
    /** A set of types by their numbers. */
    using TypeSet = std::bitset<6>;

    ContextManagerProxy() = default;
    ContextManagerProxy(const ContextManagerProxy &) = delete;
    ContextManagerProxy &operator=(const ContextManagerProxy &) = delete;
    virtual ~ContextManagerProxy();

    /**
     * Adds a listener to the sensor of a type, which it creates and starts if need be.
     *
     * Readings may be delivered before this returns. A type without a context sensor is logged and
     * refused.
     */
    void RegisterSensorListner(SensorType type, std::shared_ptr<ContextSensorListner> listener);

    /** Asks for one reading, which comes to the listeners; nothing for a type without listeners. */
    void RequestCurrentSensorData(SensorType type);

    /**
     * Removes a listener, known by its address, and ends the sensor if it was the last.
     *
     * A type or a listener that is not registered is logged.
     */
    void UnregisterSensorListner(SensorType type, const ContextSensorListner *listener);

    /** Ends the sensor of a type with all its listeners; a type not registered is logged. */
    void UnregisterLisnterAll(SensorType type);

    /** A new sensor, not started; null for a type that has none. */
    static std::shared_ptr<ContextSensor> CreateContextSensor(SensorType type);

private:
    void Run(SensorType type, const std::shared_ptr<ContextSensor> &sensor,
             void (ContextSensor::*operation)());
    void DropIfUnused(SensorType type, const std::shared_ptr<ContextSensor> &sensor);

    std::map<SensorType, std::shared_ptr<ContextSensor>> mSensors;

    /** The types of whose sensors an operation is under way. */
    TypeSet mBusy;
};

} // namespace Parvane
