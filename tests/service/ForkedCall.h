#pragma once

#include <functional>
#include <string>

namespace Parvane {

/**
 * Calls `run` in a copy of this process and gives what it returned: no other program is started, and a
 * sweep costs a fork for each of its points.
 *
 * Fails the test, with `point` in its message, if an expectation of `run` fails, if memory leaks
 * (where the leak sanitizer is there), if the process dies, or if it has not ended within half a
 * minute. What the process leaves behind is nobody's concern: its singletons go with it.
 */
std::string CallForked(const std::string &point, const std::function<std::string()> &run);

} // namespace Parvane
