#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "Messages.h"
#include "Result.h"

namespace ParvaneHost {

/**
 * Reads bytes written as pairs of hexadecimal digits; blanks and colons may stand anywhere.
 *
 * @return the bytes, at least one; else what is wrong and what is allowed, in one line
 */
Result<Bytes, std::string> ParseHex(std::string_view text);

/** "12 0A FF": upper case, separated by blanks. */
std::string ToHex(std::span<const std::uint8_t> bytes);

} // namespace ParvaneHost
