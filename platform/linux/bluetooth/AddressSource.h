#pragma once

#include <string>

namespace ParvanePlatform {

/** Where the Bluetooth address of the device comes from. Main-loop thread only. */
class AddressSource
{
public:
    virtual ~AddressSource() = default;

    /**
     * Gets the address, "AA:BB:CC:DD:EE:FF" in upper case.
     *
     * @return 0; -32508 when the operation has failed; -32510 when the adapter is not powered
     */
    virtual int GetAddress(std::string &address) = 0;
};

} // namespace ParvanePlatform
