#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include <gio/gio.h>

namespace ParvaneGateway {

/**
 * What is known of BlueZ's adapters and devices. Told by BlueZ's messages, whose content is taken as
 * it comes: what is missing or of another type counts as false or empty.
 */
class BluezDevices
{
public:
    struct Adapter
    {
        bool mIsPowered = false;
        /** Whether it serves attributes, and advertises. */
        bool mServes = false;
        bool mAdvertises = false;
        std::string mAlias;
        bool mIsPairable = false;
        /** In seconds; 0 for ever. */
        std::uint32_t mPairableTimeout = 0;
    };

    struct Device
    {
        std::string mAddress;
        std::string mAlias;
        bool mIsConnected = false;
        bool mIsPaired = false;
        /** Nothing where BlueZ is too old to tell it. */
        std::optional<bool> mBonded;

        /** Whether the keys of its pairing are kept on both sides. */
        [[nodiscard]] bool IsBonded() const { return mBonded.value_or(mIsPaired); }
    };

    /** Forgets all, and takes the reply of GetManagedObjects: a dictionary a{oa{sa{sv}}}. */
    void Load(GVariant *objects);

    /** Takes what InterfacesAdded says. @param interfaces  a{sa{sv}} */
    void Add(const std::string &path, GVariant *interfaces);

    /** Takes what InterfacesRemoved says. @param interfaces  as */
    void Remove(const std::string &path, GVariant *interfaces);

    /** Takes what PropertiesChanged says. @param changed  a{sv} */
    void Change(const std::string &path, const std::string &interface, GVariant *changed);

    /**
     * The path of the adapter of this name, or with an empty one of any, that serves attributes and
     * advertises; those that are powered first. Empty when there is none.
     */
    [[nodiscard]] std::string FindAdapter(const std::string &name) const;

    /** An adapter or a device, borrowed until the next change; null when there is none of this path. */
    [[nodiscard]] const Adapter *GetAdapter(const std::string &path) const;
    [[nodiscard]] const Device *GetDevice(const std::string &path) const;

    [[nodiscard]] const std::map<std::string, Device> &Devices() const { return mDevices; }

private:
    std::map<std::string, Adapter> mAdapters;
    std::map<std::string, Device> mDevices;
};

} // namespace ParvaneGateway
