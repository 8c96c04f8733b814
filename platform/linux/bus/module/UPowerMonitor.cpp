#include "UPowerMonitor.h"

#include <utility>

#include "base/RuntimeLog.h"
#include "bus/module/BusCalls.h"

namespace ParvanePlatform {

namespace {

constexpr char kService[] = "org.freedesktop.UPower";
constexpr char kDevice[] = "/org/freedesktop/UPower/devices/DisplayDevice";
constexpr char kDeviceInterface[] = "org.freedesktop.UPower.Device";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr char kWarningLevel[] = "WarningLevel";

constexpr guint32 kLevelLow = 3;
constexpr guint32 kLevelAction = 5;

GObjectPtr<GDBusConnection> Shared(SystemBus &bus)
{
    GDBusConnection *connection = bus.Connection();
    return GObjectPtr<GDBusConnection>(
        connection != nullptr ? static_cast<GDBusConnection *>(g_object_ref(connection)) : nullptr);
}

} // namespace

UPowerMonitor::UPowerMonitor(std::shared_ptr<SystemBus> bus)
    : mShared(std::move(bus)),
      mBus([this] { return Shared(*mShared); },
           [this](GDBusConnection *connection) { Watch(connection); }, [this] { Drop(); })
{}

bool UPowerMonitor::Start(Alert alert)
{
    mAlert = std::move(alert);
    mBus.Start();
    return mBus.Connection() != nullptr && IsServiceThere(mBus.Connection(), kService);
}

void UPowerMonitor::Watch(GDBusConnection *connection)
{
    mChanges.emplace(connection,
                     SignalSubscription::Match{kService, kDevice, kProperties, "PropertiesChanged",
                                               kDeviceInterface},
                     [this](GVariant *parameters) { OnChanged(parameters); });
    const auto appeared = [this, connection] {
        if (std::exchange(mIsAway, false)) {
            LogInfo("battery: UPower is there again");
        }
        Ask(connection);
    };
    const auto vanished = [this] {
        mCall.reset();
        if (!std::exchange(mIsAway, true)) {
            LogWarning("battery: UPower is not there");
        }
    };
    mName.emplace(connection, kService, appeared, vanished);
}

void UPowerMonitor::Drop()
{
    mCall.reset();
    mChanges.reset();
    mName.reset();
}

void UPowerMonitor::Ask(GDBusConnection *connection)
{
    mCall = std::make_unique<PendingCall>(
        connection, PendingCall::Method{kService, kDevice, kProperties, "Get"},
        g_variant_new("(ss)", kDeviceInterface, kWarningLevel),
        [this](GVariant *answer, const GError *failure) { OnAnswer(answer, failure); });
}

void UPowerMonitor::OnAnswer(GVariant *answer, const GError *failure)
{
    if (failure != nullptr) {
        LogWarning("battery: no warning level from UPower: %s", failure->message);
        return;
    }
    if (g_variant_is_of_type(answer, G_VARIANT_TYPE("(v)")) == FALSE) {
        return;
    }
    GVariant *value = nullptr;
    g_variant_get(answer, "(v)", &value);
    const GVariantPtr level(value);
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32) != FALSE) {
        SetLevel(g_variant_get_uint32(value));
    }
}

void UPowerMonitor::OnChanged(GVariant *parameters)
{
    if (g_variant_is_of_type(parameters, G_VARIANT_TYPE("(sa{sv}as)")) == FALSE) {
        return;
    }
    const GVariantPtr changed(g_variant_get_child_value(parameters, 1));
    guint32 level = 0;
    if (g_variant_lookup(changed.get(), kWarningLevel, "u", &level) != FALSE) {
        // An answer that is on its way is older than this, or the same.
        mCall.reset();
        SetLevel(level);
    }
}

void UPowerMonitor::SetLevel(guint32 level)
{
    const bool isLow = level >= kLevelLow && level <= kLevelAction;
    const bool wasLow = std::exchange(mIsLow, isLow);
    if (isLow && !wasLow) {
        LogWarning("battery: low, warning level %u", static_cast<unsigned>(level));
        mAlert(); // last use of this: the service may end in it
    }
}

} // namespace ParvanePlatform
