#pragma once

#include <memory>
#include <string>

#include "AddressSource.h"

namespace ParvanePlatform {

/**
 * The adapter's address: that of a real adapter where there is a source for it, else the one that
 * is configured, else a random one that is made once and kept in the file "bluetooth-address" of
 * the state directory (docs/storage.md).
 */
class BluetoothAdapter
{
public:
    static constexpr int kOperationFailed = AddressSource::kOperationFailed;
    static constexpr int kNotInitialized = -32511;

    /**
     * @param configuredAddress  upper case; empty when none is configured
     * @param stateDirectory     exists
     * @param source             a real adapter; null where there is none, and the address is kept
     */
    BluetoothAdapter(std::string configuredAddress, const std::string &stateDirectory,
                     std::unique_ptr<AddressSource> source = nullptr);

    /** Counts the users of the adapter. */
    void Initialize() { ++mUsers; }

    /** Counts one user less. @return 0, or kNotInitialized when there was none */
    int Deinitialize();

    /**
     * Gets the address. A kept address that is none is replaced, with an error line; one that cannot be
     * written, because the disk is full, is that of this run, with an error line.
     *
     * @return 0; kNotInitialized; what a real adapter returns; kOperationFailed when a kept address
     *         cannot be read
     */
    int GetAddress(std::string &address);

private:
    int LoadOrMake();

    std::string mAddress;
    std::string mPath;
    std::unique_ptr<AddressSource> mSource;
    unsigned mUsers = 0;
};

} // namespace ParvanePlatform
