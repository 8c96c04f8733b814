#include "GlibMemoryMonitor.h"

#include <utility>

#include "base/RuntimeLog.h"
#include "bus/module/BusCalls.h"
#include "bus/module/BusScope.h"

namespace ParvanePlatform {

namespace {

constexpr char kService[] = "org.freedesktop.LowMemoryMonitor";

GObjectPtr<GDBusConnection> ConnectShared(SystemBus &bus)
{
    // GLib waits for a bus that does not answer for as long as that lasts.
    if (bus.Connection() == nullptr) {
        return nullptr;
    }
    GObjectPtr<GDBusConnection> connection(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    if (!connection) {
        return nullptr;
    }
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
    // GLib gives the old one out for as long as somebody in the process keeps it.
    return g_dbus_connection_is_closed(connection.get()) == FALSE ? std::move(connection) : nullptr;
}

/** A monitor on the connection that there is now: GLib's default one keeps its first for good. */
GObjectPtr<GMemoryMonitor> MakeMonitor()
{
    const GObjectPtr<GMemoryMonitor> standard(g_memory_monitor_dup_default());
    if (!standard) {
        return nullptr;
    }
    gpointer made =
        g_initable_new(G_OBJECT_TYPE(standard.get()), nullptr, nullptr, nullptr, nullptr);
    return GObjectPtr<GMemoryMonitor>(static_cast<GMemoryMonitor *>(made));
}

} // namespace

GlibMemoryMonitor::GlibMemoryMonitor(std::shared_ptr<SystemBus> bus, const Clock &clock,
                                     std::unique_ptr<Timer> timer)
    : mRetry(clock, std::move(timer)),
      mBus(
          mRetry, [bus = std::move(bus)] { return ConnectShared(*bus); },
          [this](GDBusConnection * /*connection*/) { Watch(); }, [this] { Drop(); })
{}

GlibMemoryMonitor::~GlibMemoryMonitor()
{
    Drop();
}

bool GlibMemoryMonitor::Start(Alert alert)
{
    mAlert = std::move(alert);
    mBus.Start();
    return mMonitor && IsServiceThere(mBus.Connection(), kService);
}

void GlibMemoryMonitor::Watch()
{
    mMonitor = MakeMonitor();
    if (!mMonitor) {
        LogWarning("memory: GLib has no memory monitor");
        return;
    }
    mWarning = g_signal_connect(mMonitor.get(), "low-memory-warning", G_CALLBACK(OnWarning), this);
}

void GlibMemoryMonitor::Drop()
{
    if (mMonitor) {
        g_signal_handler_disconnect(mMonitor.get(), mWarning);
        mMonitor.reset();
    }
}

void GlibMemoryMonitor::OnWarning(GMemoryMonitor * /*monitor*/, GMemoryMonitorWarningLevel level,
                                  gpointer user_data) noexcept
{
    auto *self = static_cast<GlibMemoryMonitor *>(user_data);
    RunBusHandler([self, level] {
        if (level < G_MEMORY_MONITOR_WARNING_LEVEL_LOW) {
            return;
        }
        LogWarning("memory: low, warning level %d", static_cast<int>(level));
        self->mAlert(); // last use of self: the service may end in it
    });
}

} // namespace ParvanePlatform
