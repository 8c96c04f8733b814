#include "BluezAdapter.h"

#include <optional>
#include <utility>

#include "BluetoothAddress.h"
#include "BluezObjects.h"
#include "BusCalls.h"
#include "RuntimeLog.h"
#include "Variants.h"

namespace ParvanePlatform {

namespace {

/** What an adapter has until its firmware has given it an address. */
constexpr char kNoAddress[] = "00:00:00:00:00:00";

/** Whether an adapter's path comes before another's: hci2 before hci10. */
bool IsBefore(const std::string &path, const std::string &other)
{
    return path.size() != other.size() ? path.size() < other.size() : path < other;
}

} // namespace

BluezAdapter::BluezAdapter(std::shared_ptr<SystemBus> bus, const BluetoothSettings &settings)
    : mBus(std::move(bus)), mName(settings.mName)
{}

int BluezAdapter::GetAddress(std::string &address)
{
    Answer answer = Ask();
    if (answer.mProblem != mProblem) {
        mProblem = answer.mProblem;
        if (mProblem.empty()) {
            LogInfo("bluetooth: the adapter's address can be read again");
        } else {
            LogWarning("bluetooth: no address: %s", mProblem.c_str());
        }
    }
    if (answer.mResult == 0) {
        address = std::move(answer.mAddress);
    }
    return answer.mResult;
}

BluezAdapter::Answer BluezAdapter::Ask() const
{
    GDBusConnection *connection = mBus->Connection();
    if (connection == nullptr) {
        return {kOperationFailed, "", "no system bus"};
    }
    GError *error = nullptr;
    const Parvane::VariantPtr answer(g_dbus_connection_call_sync(
        connection, Bluez::kName, "/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects",
        nullptr, G_VARIANT_TYPE("(a{oa{sa{sv}}})"), G_DBUS_CALL_FLAGS_NONE, kLongestWaitMs, nullptr,
        &error));
    const Parvane::ErrorPtr failure(error);
    if (!answer) {
        return {kOperationFailed, "", error != nullptr ? error->message : "no answer from BlueZ"};
    }
    return FindAdapter(Parvane::Child(answer.get(), 0).get());
}

BluezAdapter::Answer BluezAdapter::FindAdapter(GVariant *objects) const
{
    const std::string wanted = "/org/bluez/" + mName;
    std::string found;
    Parvane::VariantPtr properties;
    Parvane::ForEachEntry(objects, [&](const std::string &path, GVariant *interfaces) {
        Parvane::VariantPtr adapter(
            g_variant_lookup_value(interfaces, Bluez::kAdapter, G_VARIANT_TYPE_VARDICT));
        const bool isWanted = mName.empty() || path == wanted;
        if (adapter && isWanted && (found.empty() || IsBefore(path, found))) {
            found = path;
            properties = std::move(adapter);
        }
    });
    if (!properties) {
        return {kOperationFailed, "", mName.empty() ? "no adapter" : "no adapter " + mName};
    }
    return ReadAdapter(found, properties.get());
}

BluezAdapter::Answer BluezAdapter::ReadAdapter(const std::string &path, GVariant *properties)
{
    const char *text = nullptr;
    std::optional<std::string> address;
    if (g_variant_lookup(properties, "Address", "&s", &text) != FALSE) {
        address = NormaliseBluetoothAddress(text);
    }
    gboolean isPowered = FALSE;
    const gboolean hasPower = g_variant_lookup(properties, "Powered", "b", &isPowered);
    // Before the address, which some adapters have only while they are powered.
    if (hasPower != FALSE && isPowered == FALSE) {
        return {kNotPowered, "", path + " is not powered"};
    }
    if (!address || *address == kNoAddress || hasPower == FALSE) {
        return {kOperationFailed, "", path + " has no address"};
    }
    return {0, std::move(*address), ""};
}

} // namespace ParvanePlatform
