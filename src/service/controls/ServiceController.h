#pragma once

#include <memory>

#include "ContextSensorListner.h"
#include "DeviceManager.h"
#include "SensorControlListener.h"
#include "SensorData.h"
#include "SensorInfo.h"

namespace Parvane {

/**
 * The base of the controllers, one for each kind of sensor.
 *
 * Reads the command of a request, keeps the started state and the requests that are answered later,
 * and leaves the sensor's own work to its virtual operations. Owned by the ParvaneController
 * through a shared pointer; also a listener of the context sensor. Main-loop thread only.
 */
class ServiceController : public ContextSensorListner
{
public:
    /** `listener` is the way to sensors and host; with null nothing is asked and nothing sent. */
    explicit ServiceController(std::shared_ptr<SensorControlListener> listener);
    ServiceController(const ServiceController &) = delete;
    ServiceController &operator=(const ServiceController &) = delete;
    ~ServiceController() override = default;

    virtual SensorType GetSensorType();

    /** A new description of the sensor, for the sensor list. */
    virtual std::shared_ptr<SensorInfo> GetSensorInfo() = 0;

    virtual void OnHostServiceTerminated();
    virtual void OnHostDisconnected();

    /** Called once, when the controller is owned and before it is registered. */
    virtual void Initialize() = 0;

    virtual void MeasureCurrentSensorValue(std::shared_ptr<SensorData> request);
    virtual void StartSensor(std::shared_ptr<SensorData> request);
    virtual void StopSensor(std::shared_ptr<SensorData> request);

    /**
     * Serves one request of the host.
     *
     * Measure once (2) measures. Start (3) starts the sensor unless it is started, and measures.
     * Stop (4) stops the sensor if it is started, and is always acknowledged by sending `request`
     * back. Any other command, and null, is logged.
     */
    void ProcessReqeust(std::shared_ptr<SensorData> request);

protected:
    /** This controller's address as a registry key: a pointer that owns nothing, for destructors. */
    std::shared_ptr<ContextSensorListner> AddressOnly();

    /**
     * A description with what all sensors have in common.
     *
     * @param maxRange  largest value; resolution 1 and minimum 0 go with it
     * @param minDelayMs  shortest time from request to reading
     * @param reserved  the reserved field
     */
    std::shared_ptr<SensorInfo> DescribeSensor(float maxRange, int32_t minDelayMs,
                                               uint16_t reserved = 0);

    /** A continuous request is in force. */
    bool mStarted = false;
    std::shared_ptr<SensorControlListener> mListener;

    /** The last start or stop request; null before the first. */
    std::shared_ptr<SensorData> mActiveRequest;

    /**
     * The last measure-once request; null before the first.
     *
     * Replaced when its MeasureCurrentSensorValue has returned: during the call it is the one before.
     */
    std::shared_ptr<SensorData> mLastRequest;
};

} // namespace Parvane
