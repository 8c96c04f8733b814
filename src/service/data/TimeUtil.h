#pragma once

#include <cstdint>

namespace Parvane {

/**
 * Wall-clock time and the bounds of local days, in seconds since the epoch.
 *
 * Days follow the local time zone and its daylight-saving rules. Main-loop thread only: the system
 * library's shared time buffer is used.
 */
class TimeUtil
{
public:
    virtual ~TimeUtil() = default;

    static int32_t GetCurrentTime();

    /** 00:00:00 of the local day that contains `time`. */
    static int32_t GetStartOfDay(int32_t time);

    /** 23:59:59 of the local day that contains `time`; the last second of the day has begun. */
    static int32_t GetEndOfDay(int32_t time);

    /** Whether `time` lies within today, both bounds included. */
    static bool IsToday(int32_t time);
};

} // namespace Parvane
