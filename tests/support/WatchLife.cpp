#include "WatchLife.h"

#include <algorithm>
#include <utility>

namespace Parvane {

namespace {

constexpr int kSecondsOfADay = 86400;
constexpr int kSecondsOfAnHour = 3600;
/** 2021-01-01 00:00 in Fiji, where it is summer. */
constexpr int64_t kNewYear = 1609412400;

/** Days that change their offset or their year are lived by the right time, at home. */
constexpr std::array kPlainDays = {1, 12, 13, 29};

/** A day that changes its offset, and when the watch is switched off on it. */
struct ChangeDay
{
    int64_t mChange;
    int64_t mSleepsFrom;
    int64_t mSleepsTo;
};

/**
 * The watch is worn through the change and until noon. The last that its clock shows then is an hour
 * before the change once more; and it wakes at a moment that is another day by that hour's offset and
 * the same by the other: 00:30 of the day after the summer's first, whose last second was told by
 * winter time, and 23:20 of its last, told by summer time.
 */
constexpr std::array<ChangeDay, 2> kChangeDays = {
    {{1608386400, 1608418800, 1608463800}, {1610805600, 1610841600, 1610882400}}};

/** Whether the offset changes after `from` and until `to`. */
bool HasChange(int64_t from, int64_t to)
{
    return std::any_of(kChangeDays.begin(), kChangeDays.end(), [&](const ChangeDay &day) {
        return from < day.mChange && day.mChange <= to;
    });
}

bool IsPlainDay(int day)
{
    return std::find(kPlainDays.begin(), kPlainDays.end(), day) != kPlainDays.end();
}

bool IsOfTheClock(WatchEvent event)
{
    return event == WatchEvent::ClockGoesBack || event == WatchEvent::ClockGoesOn ||
           event == WatchEvent::ZoneChanges;
}

} // namespace

const std::array<WatchEvent, 14> kWatchEvents = {
    WatchEvent::None,         WatchEvent::ListIsAsked,     WatchEvent::StepsAreAsked,
    WatchEvent::HostLeaves,   WatchEvent::WearIsAsked,     WatchEvent::ActivityIsFollowed,
    WatchEvent::HostVanishes, WatchEvent::CountersReset,   WatchEvent::ZoneChanges,
    WatchEvent::LinkDrops,    WatchEvent::ClockGoesBack,   WatchEvent::HeartRateIsMeasured,
    WatchEvent::ClockGoesOn,  WatchEvent::ClockIsSetRight,
};

WatchLife::WatchLife(unsigned seed, int momentsPerDay)
    : mRandom(seed), mPause(kSecondsOfADay / momentsPerDay)
{
    // Some steps to begin with, so that counters that begin anew fall behind.
    mCounts.mTotalSteps = 400.0;
    mCounts.mWalkSteps = 300.0;
    mCounts.mRunSteps = 100.0;
    mCounts.mDistance = 280.5;
    mCounts.mCalories = 18.25;
}

int WatchLife::Random(int least, int most)
{
    // Not a distribution of the library, which may differ from one to the next.
    return least + static_cast<int>(mRandom() % static_cast<unsigned>(most - least + 1));
}

WatchMoment WatchLife::Next()
{
    const int64_t before = mTrueTime;
    if (mMoment > 0) {
        // Now and then the watch lies switched off for some hours.
        const bool isOff = mTrueTime - kBirth > kSecondsOfADay && Random(0, 99) == 0;
        const int rest = isOff ? Random(1, 9) * kSecondsOfAnHour : 0;
        mTrueTime += isOff && !HasChange(mTrueTime, mTrueTime + rest)
                         ? rest
                         : Random(mPause / 2, mPause * 3 / 2);
    }
    if (mWakesAt != 0) {
        mTrueTime = std::exchange(mWakesAt, 0);
    }
    const int day = static_cast<int>((mTrueTime - kBirth) / kSecondsOfADay);
    if (IsPlainDay(day)) {
        mClockError = 0;
        mZone = &WatchZone::kFiji;
    }
    for (const ChangeDay &changeDay : kChangeDays) {
        if (changeDay.mSleepsFrom <= mTrueTime && mTrueTime < changeDay.mSleepsTo) {
            mClockError = changeDay.mChange - kSecondsOfAnHour - mTrueTime;
            mWakesAt = changeDay.mSleepsTo;
        }
    }
    CountPassing(before, mTrueTime);
    WatchEvent event = ChooseEvent();
    if (IsPlainDay(day) && IsOfTheClock(event)) {
        event = WatchEvent::None;
    }
    Happen(event);
    ++mEvents[event];
    ++mMoment;
    Walk();
    return {day, event, mTrueTime + mClockError, mZone, mCounts};
}

WatchEvent WatchLife::ChooseEvent()
{
    const auto count = static_cast<int>(kWatchEvents.size());
    if (mMoment < count) {
        return kWatchEvents.at(static_cast<std::size_t>(mMoment));
    }
    return Random(0, 2) == 0 ? kWatchEvents.at(static_cast<std::size_t>(Random(0, count - 1)))
                             : WatchEvent::None;
}

void WatchLife::Happen(WatchEvent event)
{
    if (event == WatchEvent::CountersReset) {
        mCounts = PedometerCounts();
    } else if (event == WatchEvent::ClockGoesBack) {
        mClockError -= Random(1, 2 * kSecondsOfADay);
    } else if (event == WatchEvent::ClockGoesOn) {
        mClockError += Random(1, 3 * kSecondsOfADay);
    } else if (event == WatchEvent::ClockIsSetRight) {
        mClockError = 0;
    } else if (event == WatchEvent::ZoneChanges) {
        mZone = mZone == &WatchZone::kFiji ? &WatchZone::kKolkata : &WatchZone::kFiji;
    }
}

void WatchLife::Walk()
{
    const int walked = Random(0, 1) == 0 ? 0 : Random(0, 4000 * mPause / kSecondsOfADay * 6);
    const int run = Random(0, 9) == 0 ? Random(0, 900) : 0;
    mCounts.mWalkSteps += walked;
    mCounts.mRunSteps += run;
    mCounts.mTotalSteps += walked + run;
    mCounts.mDistance += 0.7 * walked + 1.1 * run;
    mCounts.mCalories += 0.04 * walked + 0.07 * run;
    mCounts.mSpeed = walked + run == 0 ? 0.0 : Random(10, 140) / 10.0;
}

void WatchLife::CountPassing(int64_t from, int64_t to)
{
    const auto localDay = [this](int64_t time) {
        return (time + mZone->OffsetAt(time)) / kSecondsOfADay;
    };
    mMidnights += localDay(from) != localDay(to) ? 1 : 0;
    mChangesWorn += HasChange(from, to) && localDay(from) == localDay(to) ? 1 : 0;
    mSummersBegun += mZone->OffsetAt(from) < mZone->OffsetAt(to) ? 1 : 0;
    mSummersEnded += mZone->OffsetAt(from) > mZone->OffsetAt(to) ? 1 : 0;
    mYearsEnded += from < kNewYear && kNewYear <= to ? 1 : 0;
}

int WatchLife::CountOf(WatchEvent event) const
{
    const auto found = mEvents.find(event);
    return found == mEvents.end() ? 0 : found->second;
}

} // namespace Parvane
