#pragma once

#include <cstdint>
#include <memory>

#include "ServiceController.h"

namespace Parvane {

/**
 * Activity: the one sensor that the host can follow.
 *
 * A start subscribes to the sensor, and from then on every update goes to the host until a stop. A
 * single request is answered at once with the last value seen, without touching the sensor. A link
 * that goes down ends the subscription, but the controller stays started: a host that comes back
 * sends stop before start.
 */
class ActivityController : public ServiceController,
                           public std::enable_shared_from_this<ActivityController>
{
public:
    explicit ActivityController(std::shared_ptr<SensorControlListener> listener);
    ~ActivityController() override;

    void OnSensorDataUpdated(std::shared_ptr<SensorData> data) override;
    SensorType GetSensorType() override;
    std::shared_ptr<SensorInfo> GetSensorInfo() override;
    void OnHostServiceTerminated() override;
    void OnHostDisconnected() override;
    void Initialize() override;
    void MeasureCurrentSensorValue(std::shared_ptr<SensorData> request) override;
    void StartSensor(std::shared_ptr<SensorData> request) override;
    void StopSensor(std::shared_ptr<SensorData> request) override;

private:
    /** The value of the most recent update. */
    int32_t mLastActivity = 0;
};

} // namespace Parvane
