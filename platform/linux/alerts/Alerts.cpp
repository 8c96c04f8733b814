#include "Alerts.h"

#include <utility>

#include "PressureMonitor.h"
#include "RuntimeLog.h"
#include "SysfsBatteryMonitor.h"
#include "Timer.h"

namespace ParvanePlatform {

namespace {

Alerts::Monitors MakeMemoryMonitors(const MemorySettings &settings, BusAlertParts *bus)
{
    using Monitor = MemorySettings::Monitor;
    Alerts::Monitors monitors;
    if (bus != nullptr &&
        (settings.mMonitor == Monitor::Auto || settings.mMonitor == Monitor::Glib)) {
        monitors.push_back(bus->MakeGlibMemoryMonitor());
    }
    if (settings.mMonitor == Monitor::Auto || settings.mMonitor == Monitor::Pressure) {
        monitors.push_back(std::make_unique<PressureMonitor>(settings));
    }
    return monitors;
}

Alerts::Monitors MakeBatteryMonitors(const BatterySettings &settings, const Clock &clock,
                                     BusAlertParts *bus)
{
    using Monitor = BatterySettings::Monitor;
    Alerts::Monitors monitors;
    if (bus != nullptr &&
        (settings.mMonitor == Monitor::Auto || settings.mMonitor == Monitor::UPower)) {
        monitors.push_back(bus->MakeUPowerMonitor());
    }
    if (settings.mMonitor == Monitor::Auto || settings.mMonitor == Monitor::Sysfs) {
        monitors.push_back(
            std::make_unique<SysfsBatteryMonitor>(settings, clock, std::make_unique<LoopTimer>()));
    }
    return monitors;
}

/** Starts monitors in turn. Returns the one that has something to watch, else all of them. */
Alerts::Monitors StartFirst(const char *what, Alerts::Monitors monitors,
                            const AlertMonitor::Alert &alert)
{
    for (auto &monitor : monitors) {
        if (monitor->Start(alert)) {
            LogInfo("%s: watched by %s", what, monitor->Name());
            Alerts::Monitors chosen;
            chosen.push_back(std::move(monitor));
            return chosen;
        }
    }
    if (!monitors.empty()) {
        LogWarning("%s: nothing here tells when it is low", what);
    }
    return monitors;
}

} // namespace

Alerts::Alerts(const Settings &settings, const Clock &clock, LifecycleEvents &events,
               BusAlertParts *bus)
    : mMemory(StartFirst("memory", MakeMemoryMonitors(settings.mMemory, bus),
                         [&events] { events.OnLowMemory(); })),
      mBattery(StartFirst("battery", MakeBatteryMonitors(settings.mBattery, clock, bus),
                          [&events] { events.OnLowBattery(); }))
{}

} // namespace ParvanePlatform
