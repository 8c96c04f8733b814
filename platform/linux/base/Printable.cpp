#include "Printable.h"

#include <algorithm>

#include <glib.h>

namespace ParvanePlatform {

namespace {

/** Whether a terminal, or a reader of lines, takes a character for more than a character. */
bool IsControl(gunichar character)
{
    const GUnicodeType type = g_unichar_type(character);
    // Formats turn the direction of a text, for example.
    return type == G_UNICODE_CONTROL || type == G_UNICODE_FORMAT ||
           type == G_UNICODE_LINE_SEPARATOR || type == G_UNICODE_PARAGRAPH_SEPARATOR;
}

/** The bytes of the printable character that a text begins with; 0 when it begins with none. */
std::size_t PrintableLength(std::string_view text)
{
    // Of a character that is more than one byte GLib reads no more than these.
    constexpr std::size_t kMaxLength = 6;
    const auto available = static_cast<gssize>(std::min(text.size(), kMaxLength));
    const gunichar character = g_utf8_get_char_validated(text.data(), available);
    constexpr auto kInvalid = static_cast<gunichar>(-1);
    constexpr auto kCutOff = static_cast<gunichar>(-2);
    if (character == kInvalid || character == kCutOff || IsControl(character)) {
        return 0;
    }
    return static_cast<std::size_t>(g_unichar_to_utf8(character, nullptr));
}

} // namespace

std::string Printable(std::string_view text, std::size_t maxBytes)
{
    std::string printable;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = PrintableLength(text.substr(at));
        if (at + std::max<std::size_t>(length, 1) > maxBytes) {
            return printable + "...";
        }
        if (length == 0) {
            constexpr char kDigits[] = "0123456789ABCDEF";
            const auto byte = static_cast<unsigned char>(text[at]);
            printable += {'\\', 'x', kDigits[byte >> 4U], kDigits[byte & 0xFU]};
            ++at;
        } else {
            printable += text.substr(at, length);
            at += length;
        }
    }
    return printable;
}

std::string PrintablePath(std::string_view path)
{
    return Printable(path, kMaxPathBytes);
}

} // namespace ParvanePlatform
