#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <random>

#include "PedometerModel.h"

namespace Parvane {

/** What happens to a watch besides its wearer's steps. */
enum class WatchEvent {
    None,
    ListIsAsked,
    StepsAreAsked,
    HeartRateIsMeasured,
    WearIsAsked,
    ActivityIsFollowed,
    HostLeaves,
    HostVanishes, // with requests on the way and answers that it has not read
    LinkDrops,
    CountersReset,
    ClockGoesBack,
    ClockGoesOn,
    ClockIsSetRight,
    ZoneChanges,
};

/** One moment of a watch's life: something may happen, and then the pedometer tells its counts. */
struct WatchMoment
{
    /** The day of this life, from 0. */
    int mDay = 0;
    WatchEvent mEvent = WatchEvent::None;
    /** What the clock shows, which is not always the time: seconds since 1970. */
    int64_t mClock = 0;
    const WatchZone *mZone = nullptr;
    PedometerCounts mCounts;
};

/**
 * A watch's life, moment by moment, the same for the same seed.
 *
 * It begins in Fiji on 2020-12-19 at 00:00 and has, in its first thirty days, a change to summer time
 * on the second day, the end of a year after the thirteenth, and a change back on the last. All that
 * can happen does so on the first day, by the end of which everything has run once.
 */
class WatchLife
{
public:
    /** 2020-12-19 00:00 in Fiji. */
    static constexpr int64_t kBirth = 1608292800;
    static constexpr int kDays = 30;

    WatchLife(unsigned seed, int momentsPerDay);

    WatchMoment Next();

    /** How often something has happened so far. */
    int CountOf(WatchEvent event) const;
    /** How often local time has gone over into another day, and how often into summer and out of it. */
    int Midnights() const { return mMidnights; }
    int SummersBegun() const { return mSummersBegun; }
    int SummersEnded() const { return mSummersEnded; }
    /** How many of these changes have had readings of the same day on both sides. */
    int ChangesWorn() const { return mChangesWorn; }
    int YearsEnded() const { return mYearsEnded; }

private:
    int Random(int least, int most);
    WatchEvent ChooseEvent();
    void Happen(WatchEvent event);
    void Walk();
    void CountPassing(int64_t from, int64_t to);

    std::mt19937 mRandom;
    const int mPause;
    int64_t mTrueTime = kBirth;
    int64_t mClockError = 0;
    int64_t mWakesAt = 0; // 0 while it is not switched off for a change's sake
    const WatchZone *mZone = &WatchZone::kFiji;
    PedometerCounts mCounts;
    int mMoment = 0;
    std::map<WatchEvent, int> mEvents;
    int mMidnights = 0;
    int mSummersBegun = 0;
    int mSummersEnded = 0;
    int mChangesWorn = 0;
    int mYearsEnded = 0;
};

/** Everything that can happen, in an order in which all of it can be borne. */
extern const std::array<WatchEvent, 14> kWatchEvents;

} // namespace Parvane
