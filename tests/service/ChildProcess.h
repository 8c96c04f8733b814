#pragma once

#include <functional>
#include <string>

namespace Parvane {

/**
 * Calls `run` in a process of its own and gives what it returned.
 *
 * Fails the test, with `point` in its message, if an expectation of `run` fails, if memory leaks
 * (where the leak sanitizer is there), if the process dies, or if it has not ended within half a
 * minute. What the process leaves behind is nobody's concern: its singletons go with it.
 */
std::string InChildProcess(const std::string &point, const std::function<std::string()> &run);

} // namespace Parvane
