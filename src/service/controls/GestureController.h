#pragma once

#include <cstdint>
#include <memory>

#include "ServiceController.h"

namespace Parvane {

/**
 * Wrist gestures.
 *
 * Subscribed to the sensor for its whole life. Every gesture changes the value that a single
 * request is answered with; from a start to the stop each is also forwarded as it came. The host
 * has no wire id for gestures, so the top-level controller never creates this controller.
 */
class GestureController : public ServiceController,
                          public std::enable_shared_from_this<GestureController>
{
public:
    explicit GestureController(std::shared_ptr<SensorControlListener> listener);
    ~GestureController() override;

    void OnSensorDataUpdated(std::shared_ptr<SensorData> data) override;
    SensorType GetSensorType() override;

    /** An empty description: gestures are not offered to the host. */
    std::shared_ptr<SensorInfo> GetSensorInfo() override;
    void Initialize() override;
    void MeasureCurrentSensorValue(std::shared_ptr<SensorData> request) override;

private:
    /** The value of the most recent update. */
    int32_t mLastGesture = 0;

    /** The controller's own reference; all its calls go through it. */
    std::shared_ptr<SensorControlListener> mOwnListener;
};

} // namespace Parvane
