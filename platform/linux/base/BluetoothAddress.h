#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ParvanePlatform {

/**
 * Checks an address: six octets of two hexadecimal digits each, with colons between them.
 *
 * @return the address in upper case; empty when `text` is not one
 */
std::optional<std::string> NormaliseBluetoothAddress(std::string_view text);

/**
 * Makes a random address that no maker has given out: locally administered, of a single device.
 *
 * @throws std::system_error when the system has no random numbers
 */
std::string MakeRandomBluetoothAddress();

} // namespace ParvanePlatform
