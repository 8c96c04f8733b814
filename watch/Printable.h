#pragma once

#include <string>
#include <string_view>

namespace ParvaneWatch {

/**
 * Text from outside for a terminal, on one line: control characters, U+0080 to U+009F included, become
 * \xHH, so that no text can steer the terminal.
 */
std::string Printable(std::string_view text);

} // namespace ParvaneWatch
