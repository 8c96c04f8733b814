#pragma once

#include <functional>

namespace ParvaneGateway {

/** Runs the main loop until `condition` is true. @return false when that takes more than 20 s */
bool RunUntil(const std::function<bool()> &condition);

/** Runs what is due in the main loop, and returns when nothing is. */
void RunDue();

} // namespace ParvaneGateway
