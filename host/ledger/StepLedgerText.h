#pragma once

#include <chrono>
#include <string>

namespace ParvaneHost {

/** "2026-03-14". */
std::string DateText(std::chrono::local_days date);

/** `body`, which ends with a line feed, with a line that tells whether it was damaged since. */
std::string WithChecksum(const std::string &body);

} // namespace ParvaneHost
