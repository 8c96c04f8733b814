#include "StepLedger.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>
#include <utility>

namespace ParvaneHost {

namespace {

using std::chrono::days;
using std::chrono::local_days;
using std::chrono::seconds;
using std::chrono::sys_seconds;

constexpr std::int64_t kTotals = std::int64_t{1}
                                 << 32; // a total goes on below zero beyond half of it
constexpr std::size_t kLongestRun = 64;

/** What a float of this size may stand for, to either side. */
std::int64_t RoundingError(float value)
{
    constexpr float kLastExact = 16777216.0F;
    const float size = std::fabs(value);
    if (size < kLastExact) {
        return 0;
    }
    return static_cast<std::int64_t>(std::nextafter(size, std::numeric_limits<float>::infinity()) -
                                     size) /
           2;
}

bool IsPlainWord(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

} // namespace

local_days LocalDate(const ZoneOffset &zone, Instant instant)
{
    const auto second = std::chrono::floor<seconds>(instant);
    return local_days{std::chrono::floor<days>(second + zone(second)).time_since_epoch()};
}

std::int64_t StepLedger::Stretch::Steps() const
{
    return std::max<std::int64_t>(0, mCount.mLow - mBegin.mHigh);
}

StepLedger::StepLedger(ZoneOffset zone) : mZone(std::move(zone)) {}

void StepLedger::Connected(std::string_view run)
{
    const bool isKnown = run.size() <= kLongestRun && IsPlainWord(run);
    mLinkRun = isKnown ? run : std::string_view();
    mGap = Gap::Link;
    mTotal.reset();
}

void StepLedger::Missed()
{
    mGap = std::max(mGap, Gap::Missed);
    mTotal.reset();
}

void StepLedger::Take(const StepTotal &total)
{
    const auto now = Read(total);
    if (!now) {
        Missed();
        return;
    }
    const auto before = std::exchange(mTotal, now);
    if (!now->mWatchTime) {
        // The pedometer is below where the watch subscribed: the total is told as it was.
        mHasBegunAnew = mHasBegunAnew || (before && before->mValue == now->mValue);
        MarkLost();
        return;
    }
    if (!before) {
        return;
    }
    if (const auto count = CountAt(*before, *now)) {
        Count(*count, total.mAt);
    }
}

StepsOfDay StepLedger::DayOf(Instant instant) const
{
    const local_days date = LocalDate(mZone, instant);
    const auto found = mDays.find(date);
    return {date, found == mDays.end() ? std::nullopt : std::optional(found->second)};
}

std::optional<StepLedger::Total> StepLedger::Read(const StepTotal &total)
{
    constexpr float kLimit = 2147483648.0F; // 2,147,483,647 is rounded to it
    if (!(std::fabs(total.mValue) <= kLimit) || std::trunc(total.mValue) != total.mValue) {
        return std::nullopt;
    }
    return Total{static_cast<std::int64_t>(total.mValue), RoundingError(total.mValue),
                 total.mWatchTime};
}

/** Whether the watch has taken `now` for the first reading of a day, by its end of the day before. */
bool StepLedger::IsNewDay(const Total &before, const Total &now) const
{
    // The watch has stored a reading without a time with the time 0.
    const sys_seconds last = before.mWatchTime.value_or(sys_seconds{});
    // It reckons with the offset of the last reading, also where summer time ends in between.
    const seconds offset = mZone(last);
    return *now.mWatchTime >= std::chrono::floor<days>(last + offset) + days{1} - offset;
}

/** The count at `now`; nothing where it may be anything, and the next total has to tell. */
std::optional<StepLedger::Range> StepLedger::CountAt(const Total &before, const Total &now)
{
    const std::int64_t error = before.mError + now.mError;
    const std::int64_t grown = (now.mValue - before.mValue + kTotals) % kTotals;
    const Range added{std::max<std::int64_t>(0, grown - error), grown + error};
    const Range whole{std::max<std::int64_t>(0, now.mValue - now.mError), now.mValue + now.mError};
    const bool isWholePossible = whole.mLow <= whole.mHigh;
    const bool isNewDay = isWholePossible && IsNewDay(before, now);
    const bool hasTotalFallen = grown >= kTotals / 2;
    // Within a link a count does not fall, unless the pedometer has begun anew.
    const bool isTooSmall =
        mGap == Gap::None && !mHasBegunAnew && added.mHigh < mStretch->mCount.mLow;

    mIsInDoubt = false;
    if (isWholePossible && (hasTotalFallen || (isTooSmall && isNewDay))) {
        return whole;
    }
    if (hasTotalFallen || isTooSmall) {
        // A new day that the times do not tell, a pedometer that has begun anew, or no total at all.
        MarkLost();
        mGap = std::max(mGap, Gap::Missed);
        return std::nullopt;
    }
    if (!isNewDay || added == whole) {
        return added;
    }
    // A new day, if the watch goes by the zone: the next total tells.
    mIsInDoubt = true;
    if (mGap != Gap::None) {
        return std::nullopt;
    }
    return Range{std::min(added.mLow, whole.mLow), std::max(added.mHigh, whole.mHigh)};
}

/** Enters the count of a reading. */
void StepLedger::Count(const Range &count, Instant at)
{
    const local_days date = LocalDate(mZone, at);
    const bool isOtherDay = !mStretch || mStretch->mDate != date;
    if (isOtherDay) {
        // Of what was walked in a gap nobody knows which steps are of which day.
        const bool isFollowed = mGap == Gap::None;
        mHasBegunAnew = mHasBegunAnew && isFollowed;
        BeginDay(date, isFollowed, at);
        const Range begin = isFollowed ? mStretch->mCount : count;
        mStretch = Stretch{date, begin, begin};
    }
    DaySteps &day = mDays[date];
    const bool isOtherRun = mGap == Gap::Link && (mLinkRun.empty() || mLinkRun != mRun);
    if (mHasBegunAnew || count.mHigh < mStretch->mCount.mLow) {
        day.mHasLost = true; // what was walked until it began anew
        day.mSteps += count.mLow;
        mStretch = Stretch{date, {}, count};
    } else {
        const std::int64_t known = mStretch->Steps();
        mStretch->mCount = {std::max(count.mLow, mStretch->mCount.mLow), count.mHigh};
        day.mSteps += mStretch->Steps() - known;
        day.mHasLost = day.mHasLost || (isOtherRun && !isOtherDay);
    }
    day.mUntil = at;
    day.mIsExact = !day.mHasLost && mStretch->mBegin.IsExact() && mStretch->mCount.IsExact();
    mRun = mLinkRun;
    mGap = Gap::None;
    mHasBegunAnew = false;
}

void StepLedger::BeginDay(local_days date, bool isFollowed, Instant at)
{
    const auto [entry, isNew] = mDays.try_emplace(date);
    if (!isNew) {
        entry->second.mHasLost = true; // the phone's clock, or its zone, went back
        return;
    }
    entry->second.mFromMidnight = isFollowed;
    entry->second.mSince = at;
    if (isFollowed) {
        const sys_seconds midnight{date.time_since_epoch()};
        const sys_seconds near = midnight - mZone(std::chrono::floor<seconds>(at));
        entry->second.mSince = midnight - mZone(near);
    }
    if (mDays.size() > kMaxDays) {
        mDays.erase(entry == mDays.begin() ? std::next(entry) : mDays.begin());
    }
}

/** Of the day that the count is of. */
void StepLedger::MarkLost()
{
    if (mStretch) {
        DaySteps &day = mDays[mStretch->mDate];
        day.mHasLost = true;
        day.mIsExact = false;
    }
}

} // namespace ParvaneHost
