#include <cstdlib>
#include <ctime>
#include <iostream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <unordered_map>

#include <gtest/gtest.h>

#include "PedometerData.h"
#include "StepLedger.h"
#include "TimeUtil.h"

// The ledger against a model of the watch and its wearer: random days, of which everything is known.

using namespace ParvaneHost;
using Parvane::PedometerData;
using std::chrono::local_days;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::sys_seconds;

namespace {

constexpr std::int64_t kMsPerSecond = 1000;
constexpr int kDaysOfAWorld = 25; // fewer than a ledger keeps

int FromEnvironment(const char *name, int otherwise)
{
    const char *text = std::getenv(name);
    return text == nullptr ? otherwise : std::atoi(text);
}

int DaysToRun()
{
#ifdef __SANITIZE_ADDRESS__
    constexpr int kDays = 500;
#else
    constexpr int kDays = 5000; // of each test, and twice as many with losses
#endif
    return FromEnvironment("PARVANE_LEDGER_DAYS", kDays);
}

/** The watch's pedometer, service and clock. What it computes with is the service's own. */
class ModelWatch
{
public:
    explicit ModelWatch(int total) { mDay.mTotalStepCount = total; }

    void Walk(int steps)
    {
        mWalked += steps;
        mPedometer += steps;
    }

    /** A reading of the platform: what is sent, with its time; the service must run. */
    StepTotal Read(std::int64_t nowMs)
    {
        const auto now = static_cast<std::int32_t>(nowMs / kMsPerSecond + mIsAhead);
        const PedometerData current(mPedometer, 0, 0, now, 0, 0, 0);
        if (mIsFirst) {
            mIsFirst = false;
            mBaseline = current;
        }
        PedometerData record = current - mBaseline;
        record.mTimestamp = now;
        if (record < 0) {
            record = PedometerData();
        }
        if (Parvane::TimeUtil::GetEndOfDay(mDay.mTimestamp) < record.mTimestamp) {
            mDay = record;
        } else {
            mDay = mDay + record;
            mDay.mTimestamp = record.mTimestamp;
        }
        StepTotal sent;
        sent.mValue = static_cast<float>(mDay.mTotalStepCount);
        sent.mAt = Instant(milliseconds(nowMs));
        if (mDay.mTimestamp != 0) {
            sent.mWatchTime = sys_seconds(seconds(mDay.mTimestamp));
        }
        return sent;
    }

    void RestartService()
    {
        mIsFirst = true;
        ++mRun;
    }

    /** The pedometer has begun anew and is below where the service subscribed. */
    [[nodiscard]] bool TellsNothing() const { return mPedometer < mBaseline.mTotalStepCount; }

    std::int64_t mWalked = 0;
    int mPedometer = 0;
    std::int64_t mIsAhead = 0; // in seconds
    int mRun = 0;

private:
    bool mIsFirst = true;
    PedometerData mBaseline;
    PedometerData mDay;
};

struct Habits
{
    bool mLosesLinks = true;
    bool mIsInAnotherZone = false; // the phone is
    bool mHasLargeTotals = false;
};

class World
{
public:
    World(unsigned seed, const Habits &habits);

    /** Lives through the days; stops at the first thing that is wrong. */
    void Run();

    int mFollowedDays = 0; // on which no link was lost
    int mExactDays = 0;

private:
    [[nodiscard]] int Random(int least, int most)
    {
        return std::uniform_int_distribution<int>(least, most)(mRandom);
    }
    [[nodiscard]] bool OneIn(int times) { return Random(1, times) == 1; }

    void Pass();
    void Happen();
    void LiveWithTheLink(int what);
    void Update();
    void Ask();
    void AskUntilSure();
    void Connect();
    void RestartPhone();
    void Save();
    void Check(local_days date);
    [[nodiscard]] local_days Today() const;

    std::mt19937 mRandom;
    Habits mHabits;
    ZoneOffset mZone;
    ModelWatch mWatch;
    StepLedger mLedger;
    std::string mSaved;
    local_days mSavedOn;
    std::int64_t mNowMs = 0;
    int mCalm = Random(1, 30); // how rarely something is lost
    bool mHasLink = true;
    bool mIsRunning = true;    // the service
    bool mIsMissing = false;   // pushes, while the link is there
    bool mIsDisturbed = true;  // no day to be followed as a whole
    bool mWasDisturbed = true; // before that
    local_days mLast;          // the day of the last event
    std::set<local_days> mDisturbed;
    std::unordered_map<std::int64_t, std::int64_t> mWalkedAt; // by the reading's time
    std::map<local_days, std::int64_t> mWalkedBefore;         // the day's first reading
    std::int64_t mWalkedLast = 0;                             // at the last reading
};

std::chrono::seconds SystemOffset(sys_seconds instant)
{
    const auto time = static_cast<std::time_t>(instant.time_since_epoch().count());
    std::tm local{};
    localtime_r(&time, &local);
    return seconds(local.tm_gmtoff);
}

World::World(unsigned seed, const Habits &habits)
    : mRandom(seed),
      mHabits(habits),
      mZone(SystemOffset),
      mWatch(habits.mHasLargeTotals ? Random(16'000'000, 2'147'483'647) : Random(0, 5000)),
      mLedger(mZone)
{
    static constexpr const char *kZones[] = {
        "UTC0",     "CET-1CEST,M3.5.0,M10.5.0/3", "NZST-12NZDT,M9.5.0,M4.1.0/3",
        "IST-5:30", "EST5EDT,M3.2.0,M11.1.0",     "LHST-10:30LHDT-11,M10.1.0,M4.1.0",
    };
    setenv("TZ", kZones[Random(0, 5)], 1);
    tzset();
    if (habits.mIsInAnotherZone) {
        const seconds offset(Random(-12, 12) * 3600);
        mZone = [offset](sys_seconds) { return offset; };
        mLedger = StepLedger(mZone);
    }
    // In the weeks in which summer time begins and ends, or at any time.
    constexpr std::int64_t kJanuary = 1767225600;
    constexpr int kDays[] = {60, 75, 85, 270, 295};
    mNowMs = (kJanuary + (OneIn(2) ? kDays[Random(0, 4)] : Random(0, 700)) * 86400LL +
              Random(0, 86399)) *
             kMsPerSecond;
    mWatch.Walk(OneIn(2) ? 0 : Random(0, 20000));
    mWatch.mIsAhead = OneIn(2) ? 0 : Random(-14 * 3600, 14 * 3600);
    Save();
    mLast = Today();
}

local_days World::Today() const
{
    const std::int64_t second = mNowMs / kMsPerSecond;
    return local_days(
        std::chrono::days((second + mZone(sys_seconds(seconds(second))).count()) / 86400));
}

void World::Run()
{
    const local_days end = mLast + std::chrono::days(kDaysOfAWorld);
    Connect();
    while (Today() < end && !testing::Test::HasFailure()) {
        Pass();
        Happen();
        const bool isDisturbed = std::exchange(mIsDisturbed, false) || !mHasLink || mIsMissing ||
                                 mWatch.TellsNothing() || mLedger.WantsQuestion() ||
                                 mHabits.mHasLargeTotals;
        for (local_days date = mLast; date <= Today(); date += std::chrono::days(1)) {
            if (isDisturbed || mWasDisturbed) {
                mDisturbed.insert(date);
            }
        }
        mWasDisturbed = isDisturbed;
        mLast = Today();
    }
    for (const auto &[date, day] : mLedger.Days()) {
        Check(date);
        if (mDisturbed.count(date) == 0 && date < mLast) {
            ++mFollowedDays;
            mExactDays += day.mIsExact && day.mFromMidnight ? 1 : 0;
        }
    }
}

void World::Pass()
{
    const int longest = OneIn(10) ? 8 * 3600 : 2 * 3600;
    mNowMs += 1 + (OneIn(3) ? Random(0, 20) : Random(0, longest)) * kMsPerSecond;
}

void World::Happen()
{
    if (OneIn(3)) {
        mWatch.Walk(Random(0, OneIn(4) ? 3000 : 20));
    }
    if (!mIsRunning) {
        if (OneIn(2)) {
            mIsRunning = true;
            mWatch.RestartService();
            Update();
        }
        return;
    }
    if (!mHasLink) {
        if (OneIn(3)) {
            Connect();
        } else if (OneIn(3)) {
            mIsRunning = false;
        } else {
            Update();
        }
        return;
    }
    LiveWithTheLink(Random(1, 100));
}

void World::LiveWithTheLink(int what)
{
    if (what <= 60) {
        Update();
    } else if (what <= 85) {
        Ask();
        AskUntilSure();
    } else if (what <= 87) {
        mWatch.mIsAhead = OneIn(2) ? 0 : Random(-14 * 3600, 14 * 3600);
    } else if (!mHabits.mLosesLinks || !OneIn(mCalm)) {
        Update();
    } else if (what <= 93) {
        mHasLink = false;
        mIsMissing = false;
        mIsRunning = OneIn(2);
    } else if (what <= 96) {
        mIsMissing = true;
    } else if (what <= 97 && !mHabits.mIsInAnotherZone && !mIsMissing) {
        // The ledger sees it by what the pedometer tells before and at once.
        mIsDisturbed = true;
        Update();
        mWatch.mPedometer = 0;
        Update();
    } else {
        RestartPhone();
    }
}

/** A reading, unasked. */
void World::Update()
{
    mNowMs += 1;
    mWalkedBefore.try_emplace(Today(), mWalkedLast);
    mWalkedLast = mWatch.mWalked;
    mWalkedAt[mNowMs] = mWatch.mWalked;
    const StepTotal total = mWatch.Read(mNowMs);
    if (!mHasLink) {
        return;
    }
    if (mIsMissing) {
        if (OneIn(3)) {
            mIsMissing = false;
            mIsDisturbed = true;
            mLedger.Missed();
        }
        return;
    }
    mLedger.Take(total);
    for (const auto &[date, day] : mLedger.Days()) {
        if (date + std::chrono::days(1) >= Today()) {
            Check(date);
        }
    }
    if (mHabits.mIsInAnotherZone || !OneIn(20) || !mHabits.mLosesLinks) {
        AskUntilSure();
    }
}

/** A question: its answer is a reading as well. Some steps may be walked meanwhile. */
void World::Ask()
{
    if (OneIn(3)) {
        mWatch.Walk(Random(0, 5));
    }
    Update();
}

void World::AskUntilSure()
{
    for (int times = 0; times < 3 && mHasLink && !mIsMissing && mLedger.WantsQuestion(); ++times) {
        mNowMs += 1;
        mWalkedBefore.try_emplace(Today(), mWalkedLast);
        mWalkedLast = mWatch.mWalked;
        mWalkedAt[mNowMs] = mWatch.mWalked;
        mLedger.Take(mWatch.Read(mNowMs));
    }
}

void World::Connect()
{
    mHasLink = true;
    mLedger.Connected(OneIn(2) ? "" : std::to_string(mWatch.mRun));
    AskUntilSure();
    mIsDisturbed = true;
}

/** It may have saved last some time ago. */
void World::RestartPhone()
{
    if (OneIn(2)) {
        Save();
    }
    for (; mSavedOn <= Today(); mSavedOn += std::chrono::days(1)) {
        mDisturbed.insert(mSavedOn); // of which the old text does not know all
    }
    auto restored = StepLedger::Restore(mSaved, mZone);
    ASSERT_TRUE(restored.Ok()) << restored.GetError() << '\n' << mSaved;
    ASSERT_EQ(restored.Value().Save(), mSaved);
    mLedger = std::move(restored).Value();
    mIsMissing = false;
    Connect();
    Save();
}

void World::Save()
{
    mSaved = mLedger.Save();
    mSavedOn = Today();
}

void World::Check(local_days date)
{
    const DaySteps &day = mLedger.Days().at(date);
    const std::int64_t untilMs = day.mUntil.time_since_epoch().count();
    const std::int64_t sinceMs = day.mSince.time_since_epoch().count();
    ASSERT_EQ(mWalkedAt.count(untilMs), 1U);
    const std::int64_t before = day.mFromMidnight ? mWalkedBefore.at(date) : mWalkedAt.at(sinceMs);
    const std::int64_t walked = mWalkedAt.at(untilMs) - before;
    ASSERT_LE(day.mSteps, walked) << mLedger.Save();
    if (day.mIsExact && !mHabits.mIsInAnotherZone) {
        ASSERT_EQ(day.mSteps, walked) << mLedger.Save();
    }
}

void RunWorlds(unsigned firstSeed, int days, const Habits &habits, double leastFollowed)
{
    const auto start = static_cast<unsigned>(FromEnvironment("PARVANE_LEDGER_SEED", 0)) + firstSeed;
    const auto worlds = static_cast<unsigned>(days / kDaysOfAWorld);
    int followed = 0;
    int exact = 0;
    for (unsigned seed = start; seed < start + worlds; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        World world(seed, habits);
        world.Run();
        followed += world.mFollowedDays;
        exact += world.mExactDays;
        ASSERT_FALSE(testing::Test::HasFailure());
        ASSERT_TRUE(habits.mIsInAnotherZone || exact == followed);
    }
    std::cout << worlds * kDaysOfAWorld << " days, " << followed << " without a loss, " << exact
              << " of them exact\n";
    EXPECT_GE(followed, leastFollowed * worlds * kDaysOfAWorld);
}

/** Puts the zone back, which the worlds set. */
class StepLedgerModelTest : public testing::Test
{
protected:
    ~StepLedgerModelTest() override
    {
        unsetenv("TZ");
        tzset();
    }
};

} // namespace

TEST_F(StepLedgerModelTest, RandomDaysWithLosses)
{
    RunWorlds(1'000'000, 2 * DaysToRun(), {}, 0.1);
}

TEST_F(StepLedgerModelTest, RandomDaysWithoutLosses)
{
    Habits habits;
    habits.mLosesLinks = false;
    RunWorlds(2'000'000, DaysToRun(), habits, 0.8);
}

TEST_F(StepLedgerModelTest, RandomDaysWithTotalsThatAFloatRounds)
{
    Habits habits;
    habits.mHasLargeTotals = true;
    RunWorlds(3'000'000, DaysToRun(), habits, 0);
}

TEST_F(StepLedgerModelTest, RandomDaysOfAWatchInAnotherZone)
{
    Habits habits;
    habits.mIsInAnotherZone = true;
    RunWorlds(4'000'000, DaysToRun(), habits, 0);
}
