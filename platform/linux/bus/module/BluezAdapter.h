#pragma once

#include <memory>
#include <string>

#include "AddressSource.h"
#include "Settings.h"
#include "SystemBus.h"

namespace ParvanePlatform {

/**
 * The address of a Bluetooth adapter, as BlueZ has it at the time of the call: nothing is kept,
 * since the address is seldom asked for and adapters come and go.
 */
class BluezAdapter : public AddressSource
{
public:
    BluezAdapter(std::shared_ptr<SystemBus> bus, const BluetoothSettings &settings);

    /**
     * Waits for BlueZ, for half a second at most, and as long for a connection that has to be made.
     * Without a name in the settings the first adapter counts, by its number. What is wrong is
     * logged once per change.
     */
    int GetAddress(std::string &address) override;

private:
    /** What BlueZ says of the adapter. */
    struct Answer
    {
        int mResult = kOperationFailed;
        std::string mAddress;
        std::string mProblem;
    };

    Answer Ask() const;
    Answer FindAdapter(GVariant *objects) const;
    static Answer ReadAdapter(const std::string &path, GVariant *properties);

    std::shared_ptr<SystemBus> mBus;
    std::string mName;
    /** Why the last attempt failed; empty when it did not. */
    std::string mProblem;
};

} // namespace ParvanePlatform
