#include "BluezDevices.h"

#include "BluezNames.h"
#include "BusTypes.h"

namespace ParvaneGateway {

namespace {

/** Calls `function(key, value)` for each entry of a dictionary whose keys are strings or paths. */
template <typename Function>
void ForEach(GVariant *dictionary, Function function)
{
    const gsize count = g_variant_n_children(dictionary);
    for (gsize i = 0; i < count; ++i) {
        const VariantPtr entry(g_variant_get_child_value(dictionary, i));
        const VariantPtr key(g_variant_get_child_value(entry.get(), 0));
        const VariantPtr value(g_variant_get_child_value(entry.get(), 1));
        function(std::string(g_variant_get_string(key.get(), nullptr)), value.get());
    }
}

bool AsBool(GVariant *value)
{
    return g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN) != FALSE &&
           g_variant_get_boolean(value) != FALSE;
}

std::string AsText(GVariant *value)
{
    return g_variant_is_of_type(value, G_VARIANT_TYPE_STRING) != FALSE
               ? g_variant_get_string(value, nullptr)
               : "";
}

void SetAdapter(BluezDevices::Adapter &adapter, const std::string &property, GVariant *value)
{
    if (property == "Powered") {
        adapter.mIsPowered = AsBool(value);
    } else if (property == "Alias") {
        adapter.mAlias = AsText(value);
    } else if (property == "Pairable") {
        adapter.mIsPairable = AsBool(value);
    } else if (property == "PairableTimeout" &&
               g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32) != FALSE) {
        adapter.mPairableTimeout = g_variant_get_uint32(value);
    }
}

void SetDevice(BluezDevices::Device &device, const std::string &property, GVariant *value)
{
    if (property == "Address") {
        device.mAddress = AsText(value);
    } else if (property == "Alias") {
        device.mAlias = AsText(value);
    } else if (property == "Connected") {
        device.mIsConnected = AsBool(value);
    } else if (property == "Paired") {
        device.mIsPaired = AsBool(value);
    } else if (property == "Bonded") {
        device.mBonded = AsBool(value);
    }
}

} // namespace

void BluezDevices::Load(GVariant *objects)
{
    mAdapters.clear();
    mDevices.clear();
    ForEach(objects,
            [this](const std::string &path, GVariant *interfaces) { Add(path, interfaces); });
}

void BluezDevices::Add(const std::string &path, GVariant *interfaces)
{
    ForEach(interfaces, [&](const std::string &interface, GVariant *properties) {
        if (interface == Bluez::kAdapter) {
            mAdapters[path].mIsPowered = false;
        } else if (interface == Bluez::kGattManager) {
            mAdapters[path].mServes = true;
        } else if (interface == Bluez::kAdvertisingManager) {
            mAdapters[path].mAdvertises = true;
        } else if (interface == Bluez::kDevice) {
            mDevices[path] = Device();
        }
        Change(path, interface, properties);
    });
}

void BluezDevices::Remove(const std::string &path, GVariant *interfaces)
{
    const gsize count = g_variant_n_children(interfaces);
    for (gsize i = 0; i < count; ++i) {
        const VariantPtr text(g_variant_get_child_value(interfaces, i));
        const std::string interface = g_variant_get_string(text.get(), nullptr);
        if (interface == Bluez::kDevice) {
            mDevices.erase(path);
        } else if (interface == Bluez::kAdapter) {
            mAdapters.erase(path);
        } else if (const auto adapter = mAdapters.find(path); adapter != mAdapters.end()) {
            adapter->second.mServes &= interface != Bluez::kGattManager;
            adapter->second.mAdvertises &= interface != Bluez::kAdvertisingManager;
        }
    }
}

void BluezDevices::Change(const std::string &path, const std::string &interface, GVariant *changed)
{
    const auto adapter = mAdapters.find(path);
    const auto device = mDevices.find(path);
    ForEach(changed, [&](const std::string &property, GVariant *boxed) {
        const VariantPtr value(g_variant_get_variant(boxed));
        if (interface == Bluez::kAdapter && adapter != mAdapters.end()) {
            SetAdapter(adapter->second, property, value.get());
        } else if (interface == Bluez::kDevice && device != mDevices.end()) {
            SetDevice(device->second, property, value.get());
        }
    });
}

std::string BluezDevices::FindAdapter(const std::string &name) const
{
    std::string found;
    for (const auto &[path, adapter] : mAdapters) {
        const bool isMeant = name.empty() || path == std::string(Bluez::kRoot) + '/' + name;
        if (!isMeant || !adapter.mServes || !adapter.mAdvertises) {
            continue;
        }
        if (adapter.mIsPowered) {
            return path;
        }
        found = found.empty() ? path : found;
    }
    return found;
}

const BluezDevices::Adapter *BluezDevices::GetAdapter(const std::string &path) const
{
    const auto found = mAdapters.find(path);
    return found != mAdapters.end() ? &found->second : nullptr;
}

const BluezDevices::Device *BluezDevices::GetDevice(const std::string &path) const
{
    const auto found = mDevices.find(path);
    return found != mDevices.end() ? &found->second : nullptr;
}

} // namespace ParvaneGateway
