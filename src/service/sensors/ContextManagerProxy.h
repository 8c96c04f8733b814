#pragma once

#include <map>
#include <memory>
#include <set>

#include "ContextSensor.h"
#include "ContextSensorListner.h"
#include "SensorType.h"

namespace Parvane {

/**
 * Creates, shares and tears down the context sensors: at most one for each type.
 *
 * A sensor is created and started for its first listener, and stopped and dropped after its last.
 * It is shared from when its Start has returned until its Stop has returned. The proxy's end drops
 * its sensors without stopping them. Owned by the ParvaneController by value. Main-loop thread only.
 */
class ContextManagerProxy
{
public:
    ContextManagerProxy() = default;
    ContextManagerProxy(const ContextManagerProxy &) = delete;
    ContextManagerProxy &operator=(const ContextManagerProxy &) = delete;
    virtual ~ContextManagerProxy() = default;

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
    void Drop(SensorType type, ContextSensor &sensor);

    std::map<SensorType, std::shared_ptr<ContextSensor>> mSensors;

    /**
     * Every sensor that was started, kept until a Stop of its type: a platform that calls back from
     * within Start, Stop or a query may know one that mSensors does not have.
     */
    std::map<SensorType, std::set<std::shared_ptr<ContextSensor>>> mKnown;
};

} // namespace Parvane
