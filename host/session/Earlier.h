#pragma once

#include <algorithm>
#include <chrono>
#include <optional>

namespace ParvaneHost {

/** The earlier of two times, of which each may be none. */
inline std::optional<std::chrono::steady_clock::time_point>
Earlier(std::optional<std::chrono::steady_clock::time_point> one,
        std::optional<std::chrono::steady_clock::time_point> other)
{
    return one && other ? std::min(one, other) : one ? one : other;
}

} // namespace ParvaneHost
