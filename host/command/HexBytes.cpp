#include "HexBytes.h"

#include <cstddef>
#include <optional>

namespace ParvaneHost {

namespace {

constexpr std::string_view kDigits = "0123456789ABCDEF";
constexpr std::string_view kSeparators = " \t\r\n:";

std::optional<unsigned> DigitValue(char digit)
{
    const char upper = digit >= 'a' && digit <= 'f' ? static_cast<char>(digit - 'a' + 'A') : digit;
    const std::size_t value = kDigits.find(upper);
    if (value == std::string_view::npos) {
        return std::nullopt;
    }
    return static_cast<unsigned>(value);
}

} // namespace

Result<Bytes, std::string> ParseHex(std::string_view text)
{
    Bytes bytes;
    unsigned pending = 0;
    std::size_t digits = 0;
    for (std::size_t index = 0; index < text.size(); ++index) {
        if (kSeparators.find(text[index]) != std::string_view::npos) {
            continue;
        }
        const auto value = DigitValue(text[index]);
        if (!value) {
            return "character " + std::to_string(index + 1) +
                   " is no hexadecimal digit; allowed are 0-9, a-f, A-F, blanks and colons";
        }
        pending = (pending << 4U) | *value;
        ++digits;
        if (digits % 2 == 0) {
            bytes.push_back(static_cast<std::uint8_t>(pending));
            pending = 0;
        }
    }
    if (digits % 2 != 0) {
        return "an odd number of hexadecimal digits (" + std::to_string(digits) +
               "); two digits make a byte";
    }
    if (digits == 0) {
        return std::string("no hexadecimal digits; a packet has at least one byte");
    }
    return bytes;
}

std::string ToHex(std::span<const std::uint8_t> bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes) {
        if (!text.empty()) {
            text += ' ';
        }
        text += kDigits[byte >> 4U];
        text += kDigits[byte & 0x0FU];
    }
    return text;
}

} // namespace ParvaneHost
