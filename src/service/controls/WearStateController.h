#pragma once

#include <memory>

#include <glib.h>

#include "ServiceController.h"

namespace Parvane {

/**
 * Whether the watch is worn, told from the heart-rate sensor.
 *
 * Each request opens a period of 3 seconds. The first heart-rate reading answers it: -3 means not
 * worn, everything else worn; no reading means not worn. The sensor runs until the period's end.
 * Continuous requests are refused.
 */
class WearStateController : public ServiceController,
                            public std::enable_shared_from_this<WearStateController>
{
public:
    explicit WearStateController(std::shared_ptr<SensorControlListener> listener);
    ~WearStateController() override;

    void OnSensorDataUpdated(std::shared_ptr<SensorData> data) override;
    SensorType GetSensorType() override;
    std::shared_ptr<SensorInfo> GetSensorInfo() override;
    void OnHostServiceTerminated() override;
    void OnHostDisconnected() override;
    void Initialize() override;
    void MeasureCurrentSensorValue(std::shared_ptr<SensorData> request) override;

    /** Ends the period; `data` is the timer's reference (OneShotTimer.h). */
    static gboolean OnTimerFired(gpointer data) noexcept;

    /** Answers the last request: 1.0 worn, 0.0 not worn. */
    void SendDataToHost(float wearState);

private:
    bool mMeasuring = false;

    /** The current period has been answered. */
    bool mResultSent = false;
};

} // namespace Parvane
