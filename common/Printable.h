#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Parvane {

/**
 * Text from outside, of any bytes, for a terminal or a message: one line of UTF-8.
 *
 * Bytes that are no UTF-8, and those of characters that control a terminal, end a line, turn the
 * direction of a text or cannot be seen, become \xHH. Of a text of more than `maxBytes` bytes the end
 * is cut off, after a whole character, and "..." stands for it. (Lines of the log have colours, and an
 * escaping of their own: dlog/LogText.h.)
 */
std::string Printable(std::string_view text, std::size_t maxBytes = std::string_view::npos);

} // namespace Parvane
