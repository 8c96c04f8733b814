#pragma once

#include <memory>
#include <optional>

#include "bus/module/BusWatch.h"
#include "bus/module/Subscription.h"
#include "bus/module/SystemBus.h"
#include "service_app/AlertMonitor.h"

namespace ParvanePlatform {

/**
 * A low battery, by the warning level of UPower's display device, which stands for all batteries
 * that feed the machine: low, critical and action are low. Each change to low alerts once, also
 * when UPower or the bus was away in between.
 */
class UPowerMonitor : public AlertMonitor
{
public:
    explicit UPowerMonitor(std::shared_ptr<SystemBus> bus);

    const char *Name() const override { return "upower"; }

    /**
     * Returns false when UPower is neither there nor can be started, or there is no bus; waits for
     * both then. Waits for the bus, for a second at most. A battery that is low already alerts when
     * UPower has said so, from the loop.
     */
    bool Start(Alert alert) override;

private:
    void Watch(GDBusConnection *connection);
    void Drop();
    void Ask(GDBusConnection *connection);
    void OnAnswer(GVariant *answer, const GError *failure);
    void OnChanged(GVariant *parameters);
    void SetLevel(guint32 level);

    std::shared_ptr<SystemBus> mShared;
    Alert mAlert;
    bool mIsLow = false;
    bool mIsAway = false;
    std::unique_ptr<PendingCall> mCall;
    std::optional<SignalSubscription> mChanges;
    std::optional<NameWatch> mName;
    /** Last, so that it ends first. */
    BusWatch mBus;
};

} // namespace ParvanePlatform
