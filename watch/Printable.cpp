#include "Printable.h"

#include <array>
#include <cstddef>
#include <cstdio>

namespace ParvaneWatch {

namespace {

/** How many bytes of the control character that `text` begins with; 0 when it begins with none. */
std::size_t ControlLength(std::string_view text)
{
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    if (byte(0) < 0x20 || byte(0) == 0x7F) {
        return 1;
    }
    return text.size() > 1 && byte(0) == 0xC2 && byte(1) >= 0x80 && byte(1) < 0xA0 ? 2 : 0;
}

} // namespace

std::string Printable(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        const std::size_t length = ControlLength(text);
        for (const char character : text.substr(0, length)) {
            std::array<char, 8> escaped{};
            std::snprintf(escaped.data(), escaped.size(), "\\x%02X",
                          static_cast<unsigned>(static_cast<unsigned char>(character)));
            result += escaped.data();
        }
        if (length == 0) {
            result += text.front();
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return result;
}

} // namespace ParvaneWatch
