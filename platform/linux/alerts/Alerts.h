#pragma once

#include <memory>
#include <vector>

#include "AlertMonitor.h"
#include "Clock.h"
#include "LifecycleEvents.h"
#include "Settings.h"

namespace ParvanePlatform {

/** Makes the monitors that ask other services over the system bus. */
class BusAlertParts
{
public:
    virtual ~BusAlertParts() = default;

    /** Low memory, from GLib's memory monitor. */
    virtual std::unique_ptr<AlertMonitor> MakeGlibMemoryMonitor() = 0;

    /** A low battery, from UPower's warning level. */
    virtual std::unique_ptr<AlertMonitor> MakeUPowerMonitor() = 0;
};

/**
 * Watches memory and battery as the settings ask, and tells the service what runs low, which ends then.
 *
 * Where the settings leave the choice (Auto), each monitor is started in turn until one has
 * something to watch on this machine; the choice is made once. When none has, all that were tried
 * are kept, since what they watch may come later. Main-loop thread only.
 */
class Alerts
{
public:
    /** The monitors of one thing; more than one only while none has anything to watch. */
    using Monitors = std::vector<std::unique_ptr<AlertMonitor>>;

    /**
     * Starts the monitors. Alerts come from the main loop only, so none before the service runs.
     *
     * @param clock   borrowed for the life of this object
     * @param events  borrowed for the life of this object
     * @param bus     may be null when the settings name nothing of the bus; auto does without it then
     */
    Alerts(const Settings &settings, const Clock &clock, LifecycleEvents &events,
           BusAlertParts *bus);

    const Monitors &Memory() const { return mMemory; }
    const Monitors &Battery() const { return mBattery; }

private:
    Monitors mMemory;
    Monitors mBattery;
};

} // namespace ParvanePlatform
