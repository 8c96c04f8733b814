#pragma once

#include <string>

namespace ParvanePlatform {

/**
 * The adapter's address: the one that is configured, else a random one that is made once and kept
 * in the file "bluetooth-address" of the state directory (docs/storage.md).
 */
class BluetoothAdapter
{
public:
    static constexpr int kOperationFailed = -32508;
    static constexpr int kNotInitialized = -32511;

    /**
     * @param configuredAddress  upper case; empty when none is configured
     * @param stateDirectory     exists
     */
    BluetoothAdapter(std::string configuredAddress, const std::string &stateDirectory);

    /** Counts the users of the adapter. */
    void Initialize() { ++mUsers; }

    /** Counts one user less. @return 0, or kNotInitialized when there was none */
    int Deinitialize();

    /**
     * Gets the address. A kept address that cannot be read as one is replaced, with an error line.
     *
     * @return 0; kNotInitialized; kOperationFailed when the address cannot be read, made or kept
     */
    int GetAddress(std::string &address);

private:
    int LoadOrMake();

    std::string mAddress;
    std::string mPath;
    unsigned mUsers = 0;
};

} // namespace ParvanePlatform
