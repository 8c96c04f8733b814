#pragma once

#include <memory>

#include <glib.h>

#include "PedometerData.h"
#include "ServiceController.h"

namespace Parvane {

/**
 * Steps: a running total of the day, kept across restarts and pushed to the host.
 *
 * Once the host has asked a single time, the controller stays subscribed for good; the opt-in is
 * stored, so that it survives restarts, and nothing takes it back. Every update is added to the
 * day's total, the total is stored, and a copy goes to the host. docs/storage.md has the keys.
 */
class PedometerController : public ServiceController,
                            public std::enable_shared_from_this<PedometerController>
{
public:
    /** Restores the stored total and opt-in. */
    explicit PedometerController(std::shared_ptr<SensorControlListener> listener);
    ~PedometerController() override;

    /** Adds one update to the day's total, stores it and sends it. */
    void OnSensorDataUpdated(std::shared_ptr<SensorData> data) override;

    /** The answer to a one-shot query counts like any other update. */
    void OnSensorDataChanged(std::shared_ptr<SensorData> data) override;
    SensorType GetSensorType() override;
    std::shared_ptr<SensorInfo> GetSensorInfo() override;

    /** Subscribes if the host has ever asked. */
    void Initialize() override;
    void MeasureCurrentSensorValue(std::shared_ptr<SensorData> request) override;

    /** Reads the stored opt-in; a failure other than a missing key is logged; both give false. */
    bool IsHostRequested();

    /** Stores the opt-in; it holds for this process even when storing fails, which is logged. */
    void SetHostRequestedStatus(bool value);

    /** Stores a total and its time stamp; each is tried, each failure is logged. */
    void SavePedometerData(const PedometerData &data);

    /** The stored total; what cannot be read is logged and stays at its default. */
    PedometerData RestorePedometerData();

    /** Asks for the first value; `data` is the timer's reference (OneShotTimer.h). */
    static gboolean OnTimerFired(gpointer data) noexcept;

private:
    /** The controller's own reference; all its calls go through it. */
    std::shared_ptr<SensorControlListener> mOwnListener;

    /** The total of the current day, stamped with its last update. */
    PedometerData mDailyData;

    /** The host has asked for steps at least once. */
    bool mHostRequested = false;
};

} // namespace Parvane
