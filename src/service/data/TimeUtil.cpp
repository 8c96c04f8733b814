#include "TimeUtil.h"

#include <ctime>
#include <limits>

namespace Parvane {

namespace {

constexpr int32_t kEarliest = std::numeric_limits<int32_t>::min();
constexpr int32_t kLatest = std::numeric_limits<int32_t>::max();

// The same local day at another time of day, the daylight-saving flag as localtime gave it. The first
// and the last day of the 32-bit range have a bound outside of it: for that one it is `limit`.
int32_t AtTimeOfDay(int32_t time, int hour, int minute, int second, int32_t limit)
{
    const std::time_t instant = time;
    std::tm *const local = std::localtime(&instant);
    if (local == nullptr) {
        return time;
    }
    local->tm_hour = hour;
    local->tm_min = minute;
    local->tm_sec = second;
    local->tm_wday = -1; // mktime sets it, unless it fails
    const std::time_t bound = std::mktime(local);
    if (local->tm_wday == -1 || bound < kEarliest || bound > kLatest) {
        return limit;
    }
    return static_cast<int32_t>(bound);
}

} // namespace

int32_t TimeUtil::GetCurrentTime()
{
    return static_cast<int32_t>(std::time(nullptr));
}

int32_t TimeUtil::GetStartOfDay(int32_t time)
{
    return AtTimeOfDay(time, 0, 0, 0, kEarliest);
}

int32_t TimeUtil::GetEndOfDay(int32_t time)
{
    return AtTimeOfDay(time, 23, 59, 59, kLatest);
}

bool TimeUtil::IsToday(int32_t time)
{
    const int32_t now = GetCurrentTime();
    return GetStartOfDay(now) <= time && time <= GetEndOfDay(now);
}

} // namespace Parvane
