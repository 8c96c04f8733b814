#include "PedometerModel.h"

#include <cstdio>

namespace Parvane {

namespace {

constexpr int64_t kSecondsOfADay = 86400;
constexpr int64_t kSecondsOfAnHour = 3600;

// 2020-12-20 02:00 becomes 03:00, and 2021-01-17 03:00 becomes 02:00.
constexpr int64_t kFijiSummerBegins = 1608386400;
constexpr int64_t kFijiSummerEnds = 1610805600;

/**
 * The last second of the local day of an instant, by the offset at that instant: on a day that
 * changes its offset, the rules take the one in force at the reading for the whole of it.
 */
int64_t LastSecondOfDay(int64_t instant, const WatchZone &zone)
{
    const int64_t local = instant + zone.OffsetAt(instant);
    const int64_t secondOfDay = (local % kSecondsOfADay + kSecondsOfADay) % kSecondsOfADay;
    return instant - secondOfDay + kSecondsOfADay - 1;
}

} // namespace

const WatchZone WatchZone::kFiji = {"Pacific/Fiji"};
const WatchZone WatchZone::kKolkata = {"Asia/Kolkata"};

int64_t WatchZone::OffsetAt(int64_t seconds) const
{
    if (mName == kKolkata.mName) {
        return 5 * kSecondsOfAnHour + kSecondsOfAnHour / 2;
    }
    const bool isSummer = kFijiSummerBegins <= seconds && seconds < kFijiSummerEnds;
    return (isSummer ? 13 : 12) * kSecondsOfAnHour;
}

PedometerModel::Totals PedometerModel::Whole(const PedometerCounts &counts)
{
    Totals totals;
    totals.mTotalSteps = static_cast<int32_t>(counts.mTotalSteps);
    totals.mRunSteps = static_cast<int32_t>(counts.mRunSteps);
    totals.mWalkSteps = static_cast<int32_t>(counts.mWalkSteps);
    totals.mDistance = static_cast<float>(counts.mDistance);
    totals.mCalories = static_cast<int32_t>(counts.mCalories);
    totals.mSpeed = static_cast<int32_t>(counts.mSpeed);
    return totals;
}

void PedometerModel::Take(const PedometerCounts &counts, int64_t clock, const WatchZone &zone)
{
    const Totals now = Whole(counts);
    if (!mHasFirst) {
        mHasFirst = true;
        mFirst = now;
    }
    Totals since;
    int64_t time = 0;
    // A count that has fallen behind the first one says nothing: no steps, at no time.
    if (now.mTotalSteps >= mFirst.mTotalSteps) {
        since.mTotalSteps = now.mTotalSteps - mFirst.mTotalSteps;
        since.mRunSteps = now.mRunSteps - mFirst.mRunSteps;
        since.mWalkSteps = now.mWalkSteps - mFirst.mWalkSteps;
        since.mDistance = now.mDistance - mFirst.mDistance;
        since.mCalories = now.mCalories - mFirst.mCalories;
        since.mSpeed = now.mSpeed - mFirst.mSpeed;
        time = clock;
    }
    const bool isLaterDay = time > LastSecondOfDay(mTime, zone);
    mTime = time;
    if (isLaterDay) {
        mDay = since;
        return;
    }
    mDay.mTotalSteps += since.mTotalSteps;
    mDay.mRunSteps += since.mRunSteps;
    mDay.mWalkSteps += since.mWalkSteps;
    mDay.mDistance += since.mDistance;
    mDay.mCalories += since.mCalories;
    mDay.mSpeed += since.mSpeed;
}

std::string PedometerModel::Text() const
{
    char text[128];
    std::snprintf(text, sizeof text, "%d %d %d %g %d %g", static_cast<int>(mDay.mTotalSteps),
                  static_cast<int>(mDay.mRunSteps), static_cast<int>(mDay.mWalkSteps),
                  static_cast<double>(mDay.mDistance), static_cast<int>(mDay.mCalories),
                  mDay.mSpeed);
    return text;
}

} // namespace Parvane
