#pragma once

#include <sstream>
#include <stdexcept>

namespace Parvane {

/**
 * Throws the std::runtime_error "[function]label": the way out of a function that cannot go on.
 *
 * @param function  name of the function that gives up, `__func__` at the place of the call
 * @param label  what failed, as it is to appear in the log
 */
[[noreturn]] inline void ThrowFailure(const char *function, const char *label)
{
    std::ostringstream text;
    text << "[" << function << "]" << label;
    throw std::runtime_error(text.str());
}

} // namespace Parvane
