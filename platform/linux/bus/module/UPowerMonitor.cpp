#include "UPowerMonitor.h"

#include <utility>

#include "BusCalls.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

namespace {

constexpr char kService[] = "org.freedesktop.UPower";
constexpr char kDevice[] = "/org/freedesktop/UPower/devices/DisplayDevice";
constexpr char kDeviceInterface[] = "org.freedesktop.UPower.Device";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";
constexpr char kWarningLevel[] = "WarningLevel";

constexpr guint32 kLevelLow = 3;
constexpr guint32 kLevelAction = 5;

} // namespace

UPowerMonitor::UPowerMonitor(std::shared_ptr<SystemBus> bus, const Clock &clock,
                             std::unique_ptr<Timer> timer)
    : mRetry(clock, std::move(timer)),
      mBus(
          mRetry, [bus = std::move(bus)] { return bus->Share(); },
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
    mUPower = std::make_unique<Parvane::BusScope>(connection, kService);
    mUPower->WatchOwner(Parvane::BusScope::AutoStart::Yes,
                        [this](const std::string &owner) { OnOwner(owner); });
}

void UPowerMonitor::Drop()
{
    mDevice.reset();
    mUPower.reset();
}

void UPowerMonitor::OnOwner(const std::string &owner)
{
    const bool isAway = owner.empty();
    const bool wasAway = std::exchange(mIsAway, isAway);
    if (isAway && !wasAway) {
        LogWarning("battery: UPower is not there");
    } else if (!isAway && wasAway) {
        LogInfo("battery: UPower is there again");
    }
    mDevice.reset();
    if (!isAway) {
        // By the owner's own name: what others send under UPower's name does not count.
        mDevice = std::make_unique<Parvane::BusScope>(mUPower->Connection(), owner);
        mDevice->Subscribe(
            {kProperties, "PropertiesChanged", "(sa{sv}as)", kDeviceInterface, kDevice},
            [this](const std::string & /*path*/, GVariant *arguments) { OnChanged(arguments); });
        Ask();
    }
}

void UPowerMonitor::Ask()
{
    mDevice->Call(kDevice, kProperties, "Get",
                  g_variant_new("(ss)", kDeviceInterface, kWarningLevel), "(v)",
                  [this, question = ++mQuestion](GVariant *answer, const GError *failure) {
                      if (question == mQuestion) {
                          OnAnswer(answer, failure);
                      }
                  });
}

void UPowerMonitor::OnAnswer(GVariant *answer, const GError *failure)
{
    if (failure != nullptr) {
        LogWarning("battery: no warning level from UPower: %s", failure->message);
        return;
    }
    GVariant *value = nullptr;
    g_variant_get(answer, "(v)", &value);
    const Parvane::VariantPtr level(value);
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32) != FALSE) {
        SetLevel(g_variant_get_uint32(value));
    }
}

void UPowerMonitor::OnChanged(GVariant *arguments)
{
    const Parvane::VariantPtr changed(g_variant_get_child_value(arguments, 1));
    guint32 level = 0;
    if (g_variant_lookup(changed.get(), kWarningLevel, "u", &level) != FALSE) {
        ++mQuestion; // an answer that is on its way is older than this, or the same
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
