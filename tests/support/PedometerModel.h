#pragma once

#include <cstdint>
#include <string>

namespace Parvane {

/** What a pedometer tells: its counts since some moment of its own, in the order of the stored text. */
struct PedometerCounts
{
    double mTotalSteps = 0.0;
    double mRunSteps = 0.0;
    double mWalkSteps = 0.0;
    double mDistance = 0.0;
    double mCalories = 0.0;
    double mSpeed = 0.0;
};

/** A time zone as the tests know it, from a table of their own. */
struct WatchZone
{
    /** The name in the system's database. */
    const char *mName = "UTC";

    /** Seconds that local time is ahead of UTC at an instant of the years that the tests visit. */
    int64_t OffsetAt(int64_t seconds) const;

    /** A whole hour of summer from 2020-12-20 02:00 to 2021-01-17 03:00, both of local time. */
    static const WatchZone kFiji;
    /** Half an hour off the others', and never a summer. */
    static const WatchZone kKolkata;
};

/**
 * The totals of the day, as the rules make them of a pedometer's readings.
 *
 * Written down a second time on purpose, in other words than the service's and with none of its
 * code, time functions or streams: what the two agree on is what the rules say.
 */
class PedometerModel
{
public:
    /** One reading, at a time of the clock and in a zone. */
    void Take(const PedometerCounts &counts, int64_t clock, const WatchZone &zone);

    int32_t TotalSteps() const { return mDay.mTotalSteps; }

    /** The time of the last reading, in seconds since 1970; 0 for one that had fallen behind. */
    int64_t Time() const { return mTime; }

    /** What is stored as the value. */
    std::string Text() const;

private:
    struct Totals
    {
        int32_t mTotalSteps = 0;
        int32_t mRunSteps = 0;
        int32_t mWalkSteps = 0;
        float mDistance = 0.0F;
        int32_t mCalories = 0;
        double mSpeed = 0.0;
    };

    static Totals Whole(const PedometerCounts &counts);

    bool mHasFirst = false;
    Totals mFirst;
    Totals mDay;
    int64_t mTime = 0;
};

} // namespace Parvane
