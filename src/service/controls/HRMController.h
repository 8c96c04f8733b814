#pragma once

#include <memory>

#include <glib.h>

#include "HRMData.h"
#include "ServiceController.h"

namespace Parvane {

/**
 * Heart rate: each request opens a measuring period of 15 seconds.
 *
 * During the period the sensor runs under a power lock and the latest reading above 0 is kept; at
 * its end exactly one reply goes to the host, with a heart rate of 0 if there was none. A request
 * within an open period is not queued, but the period's reply carries its header. Continuous
 * requests are refused.
 */
class HRMController : public ServiceController, public std::enable_shared_from_this<HRMController>
{
public:
    explicit HRMController(std::shared_ptr<SensorControlListener> listener);
    ~HRMController() override;

    void OnSensorDataUpdated(std::shared_ptr<SensorData> data) override;
    SensorType GetSensorType() override;
    std::shared_ptr<SensorInfo> GetSensorInfo() override;
    void OnHostServiceTerminated() override;
    void OnHostDisconnected() override;
    void Initialize() override;
    void MeasureCurrentSensorValue(std::shared_ptr<SensorData> request) override;

    /** Ends the measuring period; `data` is the timer's reference (OneShotTimer.h). */
    static gboolean OnTimerFired(gpointer data) noexcept;

    bool IsMeasuring() const { return mMeasuring; }

private:
    bool mMeasuring = false;
    std::shared_ptr<HRMData> mLatestReading;

    /** mLatestReading belongs to the current period. */
    bool mHasReading = false;
};

} // namespace Parvane
