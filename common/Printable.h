#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Parvane {

/**
 * The bytes of the printable character that `text` begins with; 0 when it is empty or begins with a byte
 * that is no UTF-8, or with a character that controls a terminal, ends a line, turns the direction of a
 * text or cannot be seen. Needs no memory.
 */
std::size_t PrintableLength(std::string_view text);

/**
 * Text from outside, of any bytes, for a terminal or a message: one line of UTF-8.
 *
 * Bytes of what is not printable become \xHH. Of a text of more than `maxBytes` bytes the end is cut
 * off, after a whole character, and "..." stands for it.
 */
std::string Printable(std::string_view text, std::size_t maxBytes = std::string_view::npos);

} // namespace Parvane
