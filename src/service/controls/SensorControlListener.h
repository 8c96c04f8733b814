#pragma once

#include <memory>

#include "ContextSensorListner.h"
#include "SensorData.h"
#include "SensorType.h"

namespace Parvane {

/** What a sensor controller asks of the top-level controller. Main-loop thread only. */
class SensorControlListener
{
public:
    virtual ~SensorControlListener() = default;

    /**
     * Lets `listener` have the readings of a sensor; the first listener starts it.
     *
     * Readings may be delivered before this returns.
     */
    virtual void RegisterSensorListener(SensorType type,
                                        std::shared_ptr<ContextSensorListner> listener) = 0;

    /**
     * Ends a registration; the last one stops the sensor.
     *
     * Only the address of `listener` counts: a pointer that owns nothing will do.
     */
    virtual void UnregisterSensorListener(SensorType type,
                                          std::shared_ptr<ContextSensorListner> listener) = 0;

    /** Stops a sensor and ends all its registrations. */
    virtual void UnregisterAllSensorListeners(SensorType type) = 0;

    /** Asks a running sensor for its current value, which comes to its listeners. */
    virtual void RequestCurrentSensorData(SensorType type) = 0;

    /** Sends one record to the host. */
    virtual void SendSensorData(std::shared_ptr<SensorData> record) = 0;
};

} // namespace Parvane
