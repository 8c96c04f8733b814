#pragma once

#include <string>
#include <system_error>

namespace Parvane {

/**
 * What stands for an errno value where something else than a regular file is in a file's place. None
 * that the system has will do: drivers return each of them when their files are read or written.
 */
inline constexpr int kNotARegularFile = -1;

/** The text of an errno value, or of the one above, for messages. */
inline std::string ErrnoText(int code)
{
    return code == kNotARegularFile ? "it is not a regular file"
                                    : std::generic_category().message(code);
}

} // namespace Parvane
