#include <array>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <malloc.h>
#include <optional>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/context_manager.h>

#include "LinkTest.h"
#include "PedometerModel.h"
#include "Requests.h"
#include "RunningService.h"
#include "ScriptedPlatform.h"
#include "Setting.h"
#include "WatchLife.h"

// A watch's life in scripted time: midnights, a summer's beginning and end, a year's end, clocks and
// zones that change, links that drop, counters that begin anew. PARVANE_SOAK_DAYS and
// PARVANE_SOAK_MOMENTS, the readings of a day, make it longer; PARVANE_SOAK_SEED makes it another.

namespace Parvane {
namespace {

using Request::kListSensors;
using Request::kMeasureHeartRate;
using Request::kMeasureSteps;
using Request::kMeasureWearState;
using Request::kStartActivity;
using Request::kStopActivity;

constexpr const char *kValueKey = "Parvane/data/pedometer/value";
constexpr const char *kTimeKey = "Parvane/data/pedometer/time";

/**
 * Bytes by which the test's own strings and lists may have become wider since the first day. The
 * smallest block has 32 bytes: one that is lost with each reading comes to forty times as much in 30
 * days, and one that is lost with each event of a kind shows in a run with more moments.
 */
constexpr std::size_t kOwnLists = 2048;

/** Whether the system knows the zones as the tests do. */
bool KnowsZone(const WatchZone &zone)
{
    const ScopedTimeZone here(zone.mName);
    constexpr std::array<std::time_t, 5> kMoments = {0, 1608386399, 1608386400, 1610805599,
                                                     1610805600};
    for (const std::time_t moment : kMoments) {
        if (std::localtime(&moment)->tm_gmtoff != zone.OffsetAt(moment)) {
            return false;
        }
    }
    return true;
}

/**
 * Bytes that are allocated, to the byte; without a value under a sanitizer, which has an allocator of
 * its own.
 *
 * The C library counts freed blocks that it holds ready as allocated, up to seven of each small size.
 * So all of them are taken first, and taken off.
 */
std::optional<std::size_t> BytesInUse()
{
#if defined(__SANITIZE_ADDRESS__)
    return std::nullopt;
#else
    constexpr std::size_t kSizes = 64;
    constexpr std::size_t kHeldReady = 8;
    std::array<void *, kSizes *kHeldReady> taken = {};
    std::size_t takenBytes = 0;
    for (std::size_t i = 0; i < taken.size(); ++i) {
        // The blocks' sizes go up by two words and begin with four, of which one is the library's.
        taken.at(i) = std::malloc(((i / kHeldReady + 1) * 2 + 1) * sizeof(std::size_t));
        takenBytes += malloc_usable_size(taken.at(i)) + sizeof(std::size_t);
    }
    const std::size_t bytes = mallinfo2().uordblks - takenBytes;
    for (void *const block : taken) {
        std::free(block);
    }
    return bytes;
#endif
}

} // namespace

class SoakTest : public LinkTest
{
protected:
    void SetUp() override
    {
        if (!KnowsZone(WatchZone::kFiji) || !KnowsZone(WatchZone::kKolkata)) {
            GTEST_SKIP() << "the time zones of Fiji and India are not installed here";
        }
        mService.emplace(mPlatform);
        mPlatform.SetKey(kStatusKey, 1);
        mPlatform.ConfirmRegistration(0, kAgent);
        HostConnects();
    }

    static ContextValues ValuesOf(const PedometerCounts &counts)
    {
        return {{CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, counts.mTotalSteps},
                {CONTEXT_PEDOMETER_CUMULATIVE_RUN_STEP_COUNT, counts.mRunSteps},
                {CONTEXT_PEDOMETER_CUMULATIVE_WALK_STEP_COUNT, counts.mWalkSteps},
                {CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE, counts.mDistance},
                {CONTEXT_PEDOMETER_CUMULATIVE_CALORIE, counts.mCalories},
                {CONTEXT_PEDOMETER_SPEED, counts.mSpeed}};
    }

    /** The host's first wish for steps, with the counts of that moment. */
    void Begin(const WatchMoment &moment)
    {
        SetClock(moment);
        mLast = moment.mCounts;
        mPlatform.DeliverFromHost(kMeasureSteps);
        mPlatform.AdvanceTime(500);
        AnswerSteps(*moment.mZone);
    }

    /** Time goes on to a moment, and what happens there happens. */
    void Live(const WatchMoment &moment)
    {
        SetClock(moment);
        Happen(moment);
        SetClock(moment); // what happened may have taken a while
        mPlatform.DeliverContext(2, ValuesOf(moment.mCounts));
        mModel.Take(moment.mCounts, moment.mClock, *moment.mZone);
        mLast = moment.mCounts;
        mPlatform.Forget();
        ASSERT_EQ(mPlatform.StringPreference(kValueKey), mModel.Text());
        ASSERT_EQ(mPlatform.IntegerPreference(kTimeKey), mModel.Time());
    }

    void SetClock(const WatchMoment &moment)
    {
        SetZone(*moment.mZone);
        mPlatform.SetTime(moment.mClock);
    }

    void SetZone(const WatchZone &zone)
    {
        if (mZoneName != zone.mName) {
            mZoneName = zone.mName;
            mZone.reset();
            mZone.emplace(mZoneName);
        }
    }

    /** Answers the service's question for the steps with the newest counts. */
    void AnswerSteps(const WatchZone &zone)
    {
        mPlatform.AnswerQuery(2, ValuesOf(mLast));
        mModel.Take(mLast, mPlatform.Seconds(), zone);
    }

    void Happen(const WatchMoment &moment)
    {
        switch (moment.mEvent) {
        case WatchEvent::ListIsAsked:
            mPlatform.Forget();
            mPlatform.DeliverFromHost(kListSensors);
            EXPECT_EQ(mPlatform.TakeSent().size(), 5U);
            break;
        case WatchEvent::StepsAreAsked:
            mPlatform.DeliverFromHost(kMeasureSteps);
            AnswerSteps(*moment.mZone);
            break;
        case WatchEvent::HeartRateIsMeasured:
            MeasureHeartRate();
            break;
        case WatchEvent::WearIsAsked:
            mPlatform.DeliverFromHost(kMeasureWearState);
            mPlatform.DeliverContext(7, {{CONTEXT_HRM_HEART_RATE, 70}});
            mPlatform.AdvanceTime(3000);
            break;
        case WatchEvent::ActivityIsFollowed:
            mPlatform.DeliverFromHost(kStopActivity); // a host may have left it started
            mPlatform.DeliverFromHost(kStartActivity);
            mPlatform.DeliverContext(23, {{CONTEXT_ACTIVITY_STATUS, 2}},
                                     mPlatform.Seconds() * 1000);
            mPlatform.DeliverFromHost(kStopActivity);
            break;
        case WatchEvent::HostVanishes:
            // In the middle of everything: the timers fire when it has gone.
            mPlatform.DeliverFromHost(kMeasureHeartRate);
            mPlatform.DeliverFromHost(kMeasureWearState);
            mPlatform.DeliverFromHost(kStartActivity);
            LoseHost();
            break;
        case WatchEvent::HostLeaves:
            LoseHost();
            break;
        case WatchEvent::LinkDrops:
            LinkDown();
            LinkUp();
            HostConnects();
            break;
        case WatchEvent::None:
        case WatchEvent::CountersReset:
        case WatchEvent::ClockGoesBack:
        case WatchEvent::ClockGoesOn:
        case WatchEvent::ClockIsSetRight:
        case WatchEvent::ZoneChanges:
            break; // all of it shows in the reading
        }
    }

    void MeasureHeartRate()
    {
        mPlatform.DeliverFromHost(kMeasureHeartRate);
        mPlatform.DeliverContext(7, {{CONTEXT_HRM_HEART_RATE, 72}});
        mPlatform.Forget();
        mPlatform.AdvanceTime(15000);
        EXPECT_EQ(mPlatform.TakeSent().size(), 1U);
    }

    /** Leads the service to one and the same state, whatever the day has left. */
    void Rest()
    {
        SetZone(WatchZone::kFiji); // the C library holds the zone in memory
        mPlatform.AdvanceTime(60000);
        mPlatform.DeliverFromHost(kStopActivity);
        MeasureHeartRate();
        LoseHost();
        // With the room that they were given, which Forget() would keep.
        mPlatform.TakeCalls();
        mPlatform.TakeLog();
        mPlatform.TakeSent();
    }

    void LoseHost()
    {
        mPlatform.ReportServiceTerminated(kConnection);
        LinkDown();
        mPlatform.AdvanceTime(20000);
        LinkUp();
        HostConnects();
    }

    std::optional<RunningService> mService;
    std::string mZoneName;
    std::optional<ScopedTimeZone> mZone;
    PedometerModel mModel;
    PedometerCounts mLast;
};

TEST_F(SoakTest, EveryTotalIsWhatTheRulesGiveAndMemoryIsThatOfTheFirstDay)
{
    const int days = Setting("PARVANE_SOAK_DAYS", WatchLife::kDays);
    const auto seed = static_cast<unsigned>(Setting("PARVANE_SOAK_SEED", 20201219));
    WatchLife life(seed, Setting("PARVANE_SOAK_MOMENTS", 96));
    std::optional<std::size_t> firstDay;
    WatchMoment moment = life.Next();
    Begin(moment);
    for (int day = 0; day < days; ++day) {
        while (moment.mDay <= day) {
            SCOPED_TRACE("day " + std::to_string(moment.mDay) + ", clock " +
                         std::to_string(moment.mClock) + ", event " +
                         std::to_string(static_cast<int>(moment.mEvent)));
            ASSERT_NO_FATAL_FAILURE(Live(moment));
            ASSERT_FALSE(HasFailure());
            moment = life.Next();
        }
        Rest();
        if (!firstDay) {
            firstDay = BytesInUse();
        }
    }
    const std::optional<std::size_t> lastDay = BytesInUse();
    if (firstDay && lastDay) {
        std::cout << *firstDay << " bytes allocated after the first day, " << *lastDay
                  << " after the last" << std::endl;
        EXPECT_LE(*lastDay, *firstDay + kOwnLists);
    }
    for (const WatchEvent event : kWatchEvents) {
        EXPECT_GE(life.CountOf(event), 1) << static_cast<int>(event);
    }
    EXPECT_GE(life.Midnights(), days * 8 / 10); // a zone that changes may leave one out
    if (days >= WatchLife::kDays) {
        EXPECT_EQ(life.SummersBegun(), 1);
        EXPECT_EQ(life.SummersEnded(), 1);
        EXPECT_EQ(life.ChangesWorn(), 2);
        EXPECT_EQ(life.YearsEnded(), 1);
    }
}

} // namespace Parvane
