#include "GlibMemoryMonitor.h"

#include <utility>

#include "BusCalls.h"
#include "BusScope.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

namespace {

constexpr char kService[] = "org.freedesktop.LowMemoryMonitor";

Parvane::ObjectPtr<GDBusConnection> ConnectShared(SystemBus &bus)
{
    // GLib waits for a bus that does not answer for as long as that lasts.
    if (bus.Connection() == nullptr) {
        return nullptr;
    }
    Parvane::ObjectPtr<GDBusConnection> connection(
        g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    if (!connection) {
        return nullptr;
    }
    g_dbus_connection_set_exit_on_close(connection.get(), FALSE);
    // GLib gives the old one out for as long as somebody in the process keeps it.
    return g_dbus_connection_is_closed(connection.get()) == FALSE ? std::move(connection) : nullptr;
}

/**
 * A monitor that ends with its owner. GLib's default one, which is chosen in the same way, lives as
 * long as the process, and what it was asking a bus that is lost may keep the lost connection.
 */
Parvane::ObjectPtr<GMemoryMonitor> MakeMonitor()
{
    // Returns nothing; what it does is to load the extensions of GIO, which the next call does not.
    const Parvane::ObjectPtr<GProxy> none(g_proxy_get_default_for_protocol("none"));
    GIOExtensionPoint *point = g_io_extension_point_lookup(G_MEMORY_MONITOR_EXTENSION_POINT_NAME);
    const GList *kind = point != nullptr ? g_io_extension_point_get_extensions(point) : nullptr;
    for (; kind != nullptr; kind = kind->next) {
        const GType type = g_io_extension_get_type(static_cast<GIOExtension *>(kind->data));
        gpointer made = g_initable_new(type, nullptr, nullptr, nullptr, nullptr);
        if (made != nullptr) {
            return Parvane::ObjectPtr<GMemoryMonitor>(static_cast<GMemoryMonitor *>(made));
        }
    }
    return nullptr;
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
    Parvane::RunBusHandler([self, level] {
        if (level < G_MEMORY_MONITOR_WARNING_LEVEL_LOW) {
            return;
        }
        LogWarning("memory: low, warning level %d", static_cast<int>(level));
        self->mAlert(); // last use of self: the service may end in it
    });
}

} // namespace ParvanePlatform
