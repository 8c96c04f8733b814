#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace ParvaneWatch {

// What a service tells of its settings (docs/control.md), for people: lines without their ends. What is
// not told is left out; nothing in it can make these fail.

/** Paths and settings, each with where it is from: "default", "FILE:LINE" or a variable. */
std::vector<std::string> ConfigText(const nlohmann::json &config);

std::vector<std::string> LogText(const nlohmann::json &log);

} // namespace ParvaneWatch
