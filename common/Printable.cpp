#include "Printable.h"

#include <algorithm>
#include <array>

namespace Parvane {

namespace {

struct Range
{
    char32_t mFirst;
    char32_t mLast;
};

constexpr std::array<Range, 11> kUnprintable{{
    {0x0000, 0x001F},   // controls
    {0x007F, 0x009F},   // the delete character, and more controls
    {0x00AD, 0x00AD},   // a hyphen that is not seen
    {0x061C, 0x061C},   // direction: Arabic letter mark
    {0x180E, 0x180E},   // a separator without width
    {0x200B, 0x200F},   // without width; direction: marks
    {0x2028, 0x202E},   // ends of lines and paragraphs; direction: embeddings, overrides
    {0x2060, 0x206F},   // not seen; direction: isolates
    {0xFEFF, 0xFEFF},   // the byte order mark
    {0xFFF9, 0xFFFB},   // annotations
    {0xE0000, 0xE007F}, // tags
}};

bool IsPrintable(char32_t character)
{
    return std::none_of(kUnprintable.begin(), kUnprintable.end(), [character](const Range &range) {
        return character >= range.mFirst && character <= range.mLast;
    });
}

/** How many bytes the first byte of a character says that it has; 0 when it begins none. */
std::size_t LengthByFirst(unsigned char first)
{
    if (first < 0x80) {
        return 1;
    }
    if (first < 0xC2 || first > 0xF4) {
        return 0;
    }
    return first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
}

} // namespace

std::size_t PrintableLength(std::string_view text)
{
    if (text.empty()) {
        return 0;
    }
    constexpr std::array<char32_t, 5> kSmallest{0, 0, 0x80, 0x800, 0x10000};
    constexpr char32_t kLargest = 0x10FFFF;
    const auto first = static_cast<unsigned char>(text.front());
    const std::size_t length = LengthByFirst(first);
    if (length == 0 || length > text.size()) {
        return 0;
    }
    char32_t character = length == 1 ? first : first & (0x7FU >> length);
    for (const char next : text.substr(1, length - 1)) {
        const auto byte = static_cast<unsigned char>(next);
        if ((byte & 0xC0U) != 0x80) {
            return 0;
        }
        character = (character << 6U) | (byte & 0x3FU);
    }
    const bool isHalfOfAPair = character >= 0xD800 && character <= 0xDFFF;
    const bool isValid = character >= kSmallest[length] && character <= kLargest && !isHalfOfAPair;
    return isValid && IsPrintable(character) ? length : 0;
}

std::string Printable(std::string_view text, std::size_t maxBytes)
{
    std::string printable;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = PrintableLength(text.substr(at));
        const std::size_t taken = std::max<std::size_t>(length, 1);
        if (taken > maxBytes - at) {
            return printable + "...";
        }
        if (length == 0) {
            constexpr char kDigits[] = "0123456789ABCDEF";
            const auto byte = static_cast<unsigned char>(text[at]);
            printable += {'\\', 'x', kDigits[byte >> 4U], kDigits[byte & 0xFU]};
        } else {
            printable += text.substr(at, length);
        }
        at += taken;
    }
    return printable;
}

} // namespace Parvane
