#include "BluezDevices.h"

#include "BluezNames.h"
#include "Variants.h"

namespace ParvaneGateway {

namespace {

void SetAdapter(BluezDevices::Adapter &adapter, const std::string &property, GVariant *value)
{
    if (property == "Powered") {
        adapter.mIsPowered = Parvane::AsBool(value);
    } else if (property == "Alias") {
        adapter.mAlias = Parvane::AsText(value);
    } else if (property == "Pairable") {
        adapter.mIsPairable = Parvane::AsBool(value);
    } else if (property == "PairableTimeout" &&
               g_variant_is_of_type(value, G_VARIANT_TYPE_UINT32) != FALSE) {
        adapter.mPairableTimeout = g_variant_get_uint32(value);
    }
}

void SetDevice(BluezDevices::Device &device, const std::string &property, GVariant *value)
{
    if (property == "Address") {
        device.mAddress = Parvane::AsText(value);
    } else if (property == "Alias") {
        device.mAlias = Parvane::AsText(value);
    } else if (property == "Connected") {
        device.mIsConnected = Parvane::AsBool(value);
    } else if (property == "Paired") {
        device.mIsPaired = Parvane::AsBool(value);
    } else if (property == "Bonded") {
        device.mBonded = Parvane::AsBool(value);
    }
}

} // namespace

void BluezDevices::Load(GVariant *objects)
{
    mAdapters.clear();
    mDevices.clear();
    Parvane::ForEachEntry(
        objects, [this](const std::string &path, GVariant *interfaces) { Add(path, interfaces); });
}

void BluezDevices::Add(const std::string &path, GVariant *interfaces)
{
    Parvane::ForEachEntry(interfaces, [&](const std::string &interface, GVariant *properties) {
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
    Parvane::ForEachText(interfaces, [&](const std::string &interface) {
        if (interface == Bluez::kDevice) {
            mDevices.erase(path);
        } else if (interface == Bluez::kAdapter) {
            mAdapters.erase(path);
        } else if (const auto adapter = mAdapters.find(path); adapter != mAdapters.end()) {
            adapter->second.mServes &= interface != Bluez::kGattManager;
            adapter->second.mAdvertises &= interface != Bluez::kAdvertisingManager;
        }
    });
}

void BluezDevices::Change(const std::string &path, const std::string &interface, GVariant *changed)
{
    const auto adapter = mAdapters.find(path);
    const auto device = mDevices.find(path);
    Parvane::ForEachProperty(changed, [&](const std::string &property, GVariant *value) {
        if (interface == Bluez::kAdapter && adapter != mAdapters.end()) {
            SetAdapter(adapter->second, property, value);
        } else if (interface == Bluez::kDevice && device != mDevices.end()) {
            SetDevice(device->second, property, value);
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
