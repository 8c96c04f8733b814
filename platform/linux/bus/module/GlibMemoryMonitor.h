#pragma once

#include <memory>

#include <gio/gio.h>

#include "AlertMonitor.h"
#include "BusWatch.h"
#include "Clock.h"
#include "RetryTimer.h"
#include "SystemBus.h"
#include "Timer.h"

namespace ParvanePlatform {

/**
 * Low memory, by GLib's memory monitor, which listens to the low-memory service of the system. Each
 * warning alerts: the service warns again only after a while.
 *
 * GLib's monitor uses the connection that GLib shares within the process, and not that of
 * SystemBus, which only shows whether the bus answers; its end does not end the process. A new
 * connection gets a monitor of its own.
 */
class GlibMemoryMonitor : public AlertMonitor
{
public:
    /**
     * @param clock  borrowed for the life of this object
     * @param timer  when a bus that is away is asked for again
     */
    GlibMemoryMonitor(std::shared_ptr<SystemBus> bus, const Clock &clock,
                      std::unique_ptr<Timer> timer);
    ~GlibMemoryMonitor() override;

    GlibMemoryMonitor(const GlibMemoryMonitor &) = delete;
    GlibMemoryMonitor &operator=(const GlibMemoryMonitor &) = delete;

    const char *Name() const override { return "glib"; }

    /**
     * Returns false when the low-memory service is neither there nor can be started, or there is no
     * bus; waits for both then. Waits for the bus, for a second and a half at most.
     */
    bool Start(Alert alert) override;

private:
    static void OnWarning(GMemoryMonitor *monitor, GMemoryMonitorWarningLevel level,
                          gpointer user_data) noexcept;
    void Watch();
    void Drop();

    Alert mAlert;
    Parvane::ObjectPtr<GMemoryMonitor> mMonitor;
    gulong mWarning = 0;
    RetryTimer mRetry;
    /** Last, so that it ends first. */
    BusWatch mBus;
};

} // namespace ParvanePlatform
