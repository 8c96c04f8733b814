#include "Readings.h"

#include <algorithm>
#include <utility>

namespace ParvaneHost {

namespace {

using std::chrono::milliseconds;

/** Totals that do not tell: two tell, and a midnight may lie between them. */
constexpr int kEnoughTotals = 4;

} // namespace

Readings::Readings(bool countsSteps, StepLedger ledger)
    : mCountsSteps(countsSteps), mLedger(std::move(ledger))
{}

void Readings::Connected(std::string_view run)
{
    mLedger.Connected(run);
    mUnsure = 0;
    mLag.reset();
}

void Readings::Missed()
{
    mLedger.Missed();
    mObservations.Break();
    mUnsure = 0;
}

Told::NewReading Readings::Take(const Reading &reading, Instant now)
{
    Told::NewReading told{reading, {}, {}, {}, true, 0};
    if (reading.mTimeFieldMs != 0) {
        const std::int64_t wall = now.time_since_epoch().count();
        told.mWatchTime = Instant(milliseconds(FullTimeMs(reading.mTimeFieldMs, wall)));
    }
    told.mObservation = mObservations.Take(reading, SentAt(told.mWatchTime, now));
    if (reading.mSensor == Sensor::Pedometer && mCountsSteps) {
        Count(told, now);
    }
    return told;
}

/**
 * When the watch has sent it, by the phone's clock: before it arrived where it took longer than others,
 * as it lay in the link of a process that was held up.
 */
Instant Readings::SentAt(std::optional<Instant> watchTime, Instant now)
{
    constexpr milliseconds kInaccuracy{2000}; // whole seconds, and those of activities a second off
    if (!watchTime) {
        return now;
    }
    const milliseconds lag = now - *watchTime;
    const bool hasGoneBack =
        mWatchTime && *watchTime < *mWatchTime - kInaccuracy; // the watch's clock
    mLag = mLag && !hasGoneBack ? std::min(*mLag, lag) : lag;
    mWatchTime = watchTime;
    return lag - *mLag > kInaccuracy ? now - (lag - *mLag) : now;
}

/** Enters a total, and says what is known of the steps by now. */
void Readings::Count(Told::NewReading &told, Instant now)
{
    StepTotal total{told.mReading.mValue, std::nullopt, now};
    if (told.mWatchTime) {
        total.mWatchTime = std::chrono::floor<std::chrono::seconds>(*told.mWatchTime);
    }
    mLedger.Take(total);
    mUnsure = mLedger.WantsQuestion() ? mUnsure + 1 : 0;
    told.mSteps = mLedger.DayOf(now);
    if (told.mSteps->mSteps && mLedger.WantsQuestion()) {
        told.mSteps->mSteps->mIsExact = false;
    }
    told.mIsSettled = !mLedger.WantsQuestion() || mUnsure >= kEnoughTotals;
}

} // namespace ParvaneHost
