#pragma once

#include <map>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "ObjectPtr.h"
#include "Settings.h"

namespace ParvanePlatform {

/** The names by which BlueZ and Bluetooth call things. */
namespace Bluez {

constexpr char kName[] = "org.bluez";
constexpr char kAdapter[] = "org.bluez.Adapter1";
constexpr char kDevice[] = "org.bluez.Device1";
constexpr char kCharacteristic[] = "org.bluez.GattCharacteristic1";
constexpr char kHeartRateService[] = "0000180d-0000-1000-8000-00805f9b34fb";
constexpr char kHeartRateMeasurement[] = "00002a37-0000-1000-8000-00805f9b34fb";

} // namespace Bluez

/**
 * What is known of BlueZ's objects, as far as a heart-rate strap takes: adapters, devices, and
 * characteristics with heart-rate measurements. Told by BlueZ's messages, whose content is taken as
 * it comes: what is missing or of another type counts as false or empty.
 */
class BluezObjects
{
public:
    struct Device
    {
        std::string mAddress;
        bool mIsStrap = false;
        bool mIsConnected = false;
        bool mIsResolved = false;
    };

    /** The path of the adapter that a device belongs to, which is the beginning of its own. */
    static std::string AdapterOf(const std::string &device);

    /** Forgets all, and takes the reply of GetManagedObjects: a dictionary a{oa{sa{sv}}}. */
    void Load(GVariant *objects);

    /** Takes what InterfacesAdded says. @param interfaces  a{sa{sv}} */
    void Add(const std::string &path, GVariant *interfaces);

    /** Takes what InterfacesRemoved says. @param interfaces  as */
    void Remove(const std::string &path, GVariant *interfaces);

    /** Takes what PropertiesChanged says. @param changed  a{sv} @param invalidated  as */
    void Change(const std::string &path, const std::string &interface, GVariant *changed,
                GVariant *invalidated);

    /** True when there is an adapter of this name; with an empty name, any. */
    bool HasAdapter(const std::string &name) const;

    /** The path of the adapter of this name, or of any, that is powered; empty when there is none. */
    std::string PoweredAdapter(const std::string &name) const;

    /** True when there is such an adapter, by its path, and it is powered. */
    bool IsPowered(const std::string &adapter) const;

    /**
     * The paths of the straps that the settings allow and whose adapter is powered: a device that the
     * settings name, else devices that offer the heart-rate service; those that are connected first.
     */
    std::vector<std::string> FindStraps(const BleSettings &settings) const;

    /** A device, borrowed until the next change; null when there is none of this path. */
    const Device *FindDevice(const std::string &path) const;

    /** The path of a device's heart-rate measurement; empty when it is not there. */
    std::string FindMeasurement(const std::string &device) const;

private:
    std::map<std::string, bool> mAdapters;
    std::map<std::string, Device> mDevices;
    /** By path, whether it is a heart-rate measurement. */
    std::map<std::string, bool> mCharacteristics;
};

} // namespace ParvanePlatform
