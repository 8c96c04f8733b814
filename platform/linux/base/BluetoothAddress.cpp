#include "BluetoothAddress.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <sys/random.h>
#include <system_error>

namespace ParvanePlatform {

namespace {

constexpr std::size_t kOctets = 6;
constexpr std::size_t kTextLength = kOctets * 3 - 1;

char UpperHexDigit(char character)
{
    if (character >= 'a' && character <= 'f') {
        return static_cast<char>(character - 'a' + 'A');
    }
    const bool isDigit =
        (character >= '0' && character <= '9') || (character >= 'A' && character <= 'F');
    return isDigit ? character : '\0';
}

} // namespace

std::optional<std::string> NormaliseBluetoothAddress(std::string_view text)
{
    if (text.size() != kTextLength) {
        return std::nullopt;
    }
    std::string address;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool isSeparator = i % 3 == 2;
        const char character = isSeparator ? text[i] : UpperHexDigit(text[i]);
        if (isSeparator ? character != ':' : character == '\0') {
            return std::nullopt;
        }
        address += character;
    }
    return address;
}

std::string MakeRandomBluetoothAddress()
{
    std::array<unsigned char, kOctets> octets = {};
    ssize_t count = 0;
    do {
        count = ::getrandom(octets.data(), octets.size(), 0);
    } while (count < 0 && errno == EINTR);
    if (count != static_cast<ssize_t>(octets.size())) {
        throw std::system_error(errno, std::generic_category(), "getrandom");
    }
    constexpr unsigned kGroupBit = 0x01;
    constexpr unsigned kLocalBit = 0x02;
    octets[0] = static_cast<unsigned char>((octets[0] & ~kGroupBit) | kLocalBit);

    constexpr char kDigits[] = "0123456789ABCDEF";
    std::string address;
    for (const unsigned char octet : octets) {
        if (!address.empty()) {
            address += ':';
        }
        address += kDigits[octet >> 4];
        address += kDigits[octet & 0x0f];
    }
    return address;
}

} // namespace ParvanePlatform
