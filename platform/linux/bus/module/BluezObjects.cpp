#include "BluezObjects.h"

#include <algorithm>

#include "Variants.h"

namespace ParvanePlatform {

namespace {

bool IsSame(const std::string &left, const std::string &right)
{
    return g_ascii_strcasecmp(left.c_str(), right.c_str()) == 0;
}

bool Contains(GVariant *value, const char *uuid)
{
    bool isFound = false;
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING_ARRAY) != FALSE) {
        Parvane::ForEachText(value,
                             [&](const std::string &text) { isFound |= IsSame(text, uuid); });
    }
    return isFound;
}

/** What a property that has no value counts as. */
Parvane::VariantPtr Nothing()
{
    return Parvane::VariantPtr(g_variant_ref_sink(g_variant_new_tuple(nullptr, 0)));
}

bool IsNamed(const std::string &adapter, const std::string &name)
{
    return name.empty() || adapter.substr(adapter.rfind('/') + 1) == name;
}

void SetDevice(BluezObjects::Device &device, const std::string &property, GVariant *value)
{
    if (property == "Address") {
        device.mAddress = Parvane::AsText(value);
    } else if (property == "UUIDs") {
        device.mIsStrap = Contains(value, Bluez::kHeartRateService);
    } else if (property == "Connected") {
        device.mIsConnected = Parvane::AsBool(value);
    } else if (property == "ServicesResolved") {
        device.mIsResolved = Parvane::AsBool(value);
    }
}

} // namespace

std::string BluezObjects::AdapterOf(const std::string &device)
{
    return device.substr(0, device.rfind('/'));
}

void BluezObjects::Load(GVariant *objects)
{
    mAdapters.clear();
    mDevices.clear();
    mCharacteristics.clear();
    Parvane::ForEachEntry(
        objects, [this](const std::string &path, GVariant *interfaces) { Add(path, interfaces); });
}

void BluezObjects::Add(const std::string &path, GVariant *interfaces)
{
    const Parvane::VariantPtr none(g_variant_ref_sink(g_variant_new_strv(nullptr, 0)));
    Parvane::ForEachEntry(interfaces, [&](const std::string &interface, GVariant *properties) {
        if (interface == Bluez::kAdapter) {
            mAdapters[path] = false;
        } else if (interface == Bluez::kDevice) {
            mDevices[path] = Device();
        } else if (interface == Bluez::kCharacteristic) {
            mCharacteristics[path] = false;
        }
        Change(path, interface, properties, none.get());
    });
}

void BluezObjects::Remove(const std::string &path, GVariant *interfaces)
{
    Parvane::ForEachText(interfaces, [&](const std::string &interface) {
        if (interface == Bluez::kAdapter) {
            mAdapters.erase(path);
        } else if (interface == Bluez::kDevice) {
            mDevices.erase(path);
        } else if (interface == Bluez::kCharacteristic) {
            mCharacteristics.erase(path);
        }
    });
}

void BluezObjects::Change(const std::string &path, const std::string &interface, GVariant *changed,
                          GVariant *invalidated)
{
    const auto set = [&](const std::string &property, GVariant *value) {
        const auto adapter = mAdapters.find(path);
        const auto device = mDevices.find(path);
        const auto characteristic = mCharacteristics.find(path);
        if (interface == Bluez::kAdapter && adapter != mAdapters.end() && property == "Powered") {
            adapter->second = Parvane::AsBool(value);
        } else if (interface == Bluez::kDevice && device != mDevices.end()) {
            SetDevice(device->second, property, value);
        } else if (interface == Bluez::kCharacteristic && property == "UUID" &&
                   characteristic != mCharacteristics.end()) {
            characteristic->second = IsSame(Parvane::AsText(value), Bluez::kHeartRateMeasurement);
        }
    };
    Parvane::ForEachProperty(changed, set);
    const Parvane::VariantPtr nothing = Nothing();
    Parvane::ForEachText(invalidated,
                         [&](const std::string &property) { set(property, nothing.get()); });
}

bool BluezObjects::HasAdapter(const std::string &name) const
{
    return std::any_of(mAdapters.begin(), mAdapters.end(),
                       [&name](const auto &adapter) { return IsNamed(adapter.first, name); });
}

std::string BluezObjects::PoweredAdapter(const std::string &name) const
{
    for (const auto &[path, isPowered] : mAdapters) {
        if (isPowered && IsNamed(path, name)) {
            return path;
        }
    }
    return {};
}

bool BluezObjects::IsPowered(const std::string &adapter) const
{
    const auto found = mAdapters.find(adapter);
    return found != mAdapters.end() && found->second;
}

std::vector<std::string> BluezObjects::FindStraps(const BleSettings &settings) const
{
    std::vector<std::string> connected;
    std::vector<std::string> others;
    for (const auto &[path, device] : mDevices) {
        const bool isMeant =
            settings.mDevice.empty() ? device.mIsStrap : IsSame(device.mAddress, settings.mDevice);
        const std::string adapter = AdapterOf(path);
        if (isMeant && IsNamed(adapter, settings.mAdapter) && IsPowered(adapter)) {
            (device.mIsConnected ? connected : others).push_back(path);
        }
    }
    connected.insert(connected.end(), others.begin(), others.end());
    return connected;
}

const BluezObjects::Device *BluezObjects::FindDevice(const std::string &path) const
{
    const auto found = mDevices.find(path);
    return found != mDevices.end() ? &found->second : nullptr;
}

std::string BluezObjects::FindMeasurement(const std::string &device) const
{
    const std::string prefix = device + '/';
    for (const auto &[path, isMeasurement] : mCharacteristics) {
        if (isMeasurement && path.starts_with(prefix)) {
            return path;
        }
    }
    return {};
}

} // namespace ParvanePlatform
