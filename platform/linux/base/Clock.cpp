#include "Clock.h"

#include <chrono>
#include <ctime>

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

std::int64_t SystemClock::WallUs() const
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::floor<std::chrono::microseconds>(now).count();
}

std::int64_t SystemClock::BootUs() const
{
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now); // cannot fail
    return std::int64_t{now.tv_sec} * 1'000'000 + now.tv_nsec / 1000;
}

} // namespace ParvanePlatform
