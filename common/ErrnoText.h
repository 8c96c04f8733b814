#pragma once

#include <string>
#include <system_error>

namespace Parvane {

/** The text of an errno value, for messages. */
inline std::string ErrnoText(int code)
{
    return std::generic_category().message(code);
}

} // namespace Parvane
