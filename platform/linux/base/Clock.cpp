#include "Clock.h"

#include <chrono>

#include <glib.h>

namespace ParvanePlatform {

std::int64_t SystemClock::MonotonicUs() const
{
    return g_get_monotonic_time();
}

std::int64_t SystemClock::WallMs() const
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::floor<std::chrono::milliseconds>(now).count();
}

} // namespace ParvanePlatform
