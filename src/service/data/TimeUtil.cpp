#include "TimeUtil.h"

#include <ctime>

namespace Parvane {

int32_t TimeUtil::GetCurrentTime()
{
    return static_cast<int32_t>(std::time(nullptr));
}

int32_t TimeUtil::GetStartOfDay(int32_t time)
{
    const std::time_t instant = time;
    std::tm *const local = std::localtime(&instant);
    local->tm_sec = 0;
    local->tm_min = 0;
    local->tm_hour = 0;
    return static_cast<int32_t>(std::mktime(local));
}

int32_t TimeUtil::GetEndOfDay(int32_t time)
{
    const std::time_t instant = time;
    std::tm *const local = std::localtime(&instant);
    local->tm_sec = 59;
    local->tm_min = 59;
    local->tm_hour = 23;
    return static_cast<int32_t>(std::mktime(local));
}

bool TimeUtil::IsToday(int32_t time)
{
    const int32_t now = GetCurrentTime();
    const int32_t end = GetEndOfDay(now);
    const int32_t start = GetStartOfDay(now);
    return start <= time && time <= end;
}

} // namespace Parvane
