#pragma once

#include <string>

namespace ParvanePlatform {

/** Where the Bluetooth address of the device comes from. Main-loop thread only. */
class AddressSource
{
public:
    static constexpr int kOperationFailed = -32508;
    static constexpr int kNotPowered = -32510;

    virtual ~AddressSource() = default;

    /**
     * Gets the address, "AA:BB:CC:DD:EE:FF" in upper case.
     *
     * @return 0; kOperationFailed, also without an adapter; kNotPowered. May take a second.
     */
    virtual int GetAddress(std::string &address) = 0;
};

} // namespace ParvanePlatform
