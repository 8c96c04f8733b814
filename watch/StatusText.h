#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace ParvaneWatch {

/**
 * A status (docs/control.md) for people: lines without their ends, times of this time zone. What the
 * status does not tell is left out; nothing in it can make this fail.
 */
std::vector<std::string> StatusText(const nlohmann::json &status);

/** "0.4 s" (below 10 s with a decimal when `isFine`), "12 s", "3 min 5 s", "2 h 10 min", "4 d 3 h". */
std::string LengthText(std::int64_t ms, bool isFine = false);

} // namespace ParvaneWatch
