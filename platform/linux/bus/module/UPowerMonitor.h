#pragma once

#include <memory>
#include <string>

#include "AlertMonitor.h"
#include "BusScope.h"
#include "BusWatch.h"
#include "Clock.h"
#include "RetryTimer.h"
#include "SystemBus.h"
#include "Timer.h"

namespace ParvanePlatform {

/**
 * A low battery, by the warning level of UPower's display device, which stands for all batteries
 * that feed the machine: low, critical and action are low. Each change to low alerts once, also
 * when UPower or the bus was away in between.
 */
class UPowerMonitor : public AlertMonitor
{
public:
    /**
     * @param clock  borrowed for the life of this object
     * @param timer  when a bus that is away is asked for again
     */
    UPowerMonitor(std::shared_ptr<SystemBus> bus, const Clock &clock, std::unique_ptr<Timer> timer);

    const char *Name() const override { return "upower"; }

    /**
     * Returns false when UPower is neither there nor can be started, or there is no bus; waits for
     * both then. Waits for the bus, for a second and a half at most. A battery that is low already
     * alerts when UPower has said so, from the loop.
     */
    bool Start(Alert alert) override;

private:
    void Watch(GDBusConnection *connection);
    void Drop();
    void OnOwner(const std::string &owner);
    void Ask();
    void OnAnswer(GVariant *answer, const GError *failure);
    void OnChanged(GVariant *arguments);
    void SetLevel(guint32 level);

    Alert mAlert;
    bool mIsLow = false;
    bool mIsAway = false;
    /** Tells the answer to the last question from those that are outdated. */
    unsigned mQuestion = 0;
    /** Who UPower is. */
    std::unique_ptr<Parvane::BusScope> mUPower;
    /** The display device, for as long as one UPower lives. */
    std::unique_ptr<Parvane::BusScope> mDevice;
    RetryTimer mRetry;
    /** Last, so that it ends first. */
    BusWatch mBus;
};

} // namespace ParvanePlatform
