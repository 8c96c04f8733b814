#include "StepLedger.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StepLedgerText.h"

using namespace ParvaneHost;
using namespace std::chrono_literals;
using std::chrono::local_days;
using std::chrono::sys_days;
using std::chrono::sys_seconds;

namespace {

constexpr std::chrono::year_month_day kDate{std::chrono::year(2026), std::chrono::month(3),
                                            std::chrono::day(14)};
const local_days kToday{kDate};
const local_days kTomorrow = kToday + std::chrono::days(1);
const sys_days kMidnight{kDate};
// Berlin's in the weeks around it: two hours from the 29th, 01:00 UTC, on.
const sys_seconds kSummerTime = sys_days(kDate) + std::chrono::days(15) + 1h;

std::chrono::seconds Berlin(sys_seconds instant)
{
    return instant < kSummerTime ? 1h : 2h;
}

std::chrono::seconds Utc(sys_seconds /*instant*/)
{
    return 0s;
}

class StepLedgerTest : public testing::Test
{
protected:
    /** A total that arrives a second after the last one, from a watch whose clock is right. */
    void Take(float value) { TakeAt(mNow + 1s, value); }

    void TakeAt(sys_seconds at, float value)
    {
        mNow = at;
        mLedger.Take({value, at + mWatchIsAhead, at});
    }

    void TakeWithoutTime(float value)
    {
        mNow += 1s;
        mLedger.Take({value, std::nullopt, mNow});
    }

    [[nodiscard]] DaySteps Day(local_days date) const { return mLedger.Days().at(date); }

    void ExpectSteps(std::int64_t steps, bool isExact) const
    {
        EXPECT_EQ(Day(kToday).mSteps, steps);
        EXPECT_EQ(Day(kToday).mIsExact, isExact);
    }

    void Restart()
    {
        auto restored = StepLedger::Restore(mLedger.Save(), Utc);
        ASSERT_TRUE(restored.Ok()) << restored.GetError();
        mLedger = std::move(restored).Value();
    }

    StepLedger mLedger{Utc};
    sys_seconds mNow = kMidnight + 12h;
    std::chrono::seconds mWatchIsAhead{0};
};

} // namespace

TEST_F(StepLedgerTest, DifferencesOfTotalsAreTheCount)
{
    Take(0);
    EXPECT_TRUE(mLedger.Days().empty());
    Take(0);
    ExpectSteps(0, true);
    Take(10);
    ExpectSteps(10, true);
    Take(35);
    ExpectSteps(25, true);
    Take(60); // asked for
    ExpectSteps(25, true);
    EXPECT_FALSE(mLedger.WantsQuestion());
}

TEST_F(StepLedgerTest, FirstCountIsWhereADayBeginsThatWasNotFollowed)
{
    Take(5000);
    EXPECT_TRUE(mLedger.WantsQuestion());
    Take(5070);
    ExpectSteps(0, true);
    Take(5150);
    ExpectSteps(10, true);
    EXPECT_FALSE(Day(kToday).mFromMidnight);
    EXPECT_EQ(Day(kToday).mSince, kMidnight + 12h + 2s);
    EXPECT_EQ(Day(kToday).mUntil, kMidnight + 12h + 3s);
}

TEST_F(StepLedgerTest, MissedTotalsAreMadeUpForByTwoInARow)
{
    Take(0);
    Take(10);
    mLedger.Missed();
    Take(501501); // no count
    ExpectSteps(0, true);
    EXPECT_TRUE(mLedger.WantsQuestion());
    Take(502502);
    ExpectSteps(991, true);
}

TEST_F(StepLedgerTest, LinkToTheSameRunOfTheServiceLosesNothing)
{
    mLedger.Connected("17:4711");
    Take(0);
    Take(10);
    mLedger.Connected("17:4711");
    Take(100);
    Take(130);
    ExpectSteps(20, true);
    mLedger.Connected("18:4900");
    Take(230);
    Take(270);
    ExpectSteps(30, false);
}

TEST_F(StepLedgerTest, LinkToAnUnknownRunMayHideARestart)
{
    Take(0);
    Take(10);
    mLedger.Connected();
    Take(100);
    ExpectSteps(0, true); // up to the loss
    Take(130);
    ExpectSteps(20, false);
}

TEST_F(StepLedgerTest, FallOfTheCountIsANewSubscriptionWhoseStepsAreAllNew)
{
    Take(0);
    Take(0);
    Take(70);
    mLedger.Connected();
    Take(70);
    Take(82);
    ExpectSteps(82, false);
    Take(95);
    ExpectSteps(83, false);
}

TEST_F(StepLedgerTest, MidnightOfTheWatchIsSeenInTheTotal)
{
    mNow = kMidnight + 23h + 59min;
    Take(150);
    Take(210);
    Take(280); // a count of 70
    TakeAt(kMidnight + 24h + 2min, 80);
    EXPECT_EQ(Day(kTomorrow).mSteps, 10);
    EXPECT_TRUE(Day(kTomorrow).mIsExact);
    EXPECT_TRUE(Day(kTomorrow).mFromMidnight);
    EXPECT_EQ(Day(kTomorrow).mSince, kMidnight + 24h);
    ExpectSteps(10, true);
}

TEST_F(StepLedgerTest, MidnightThatTheTotalDoesNotShowIsAskedAbout)
{
    mNow = kMidnight + 23h;
    Take(0);
    Take(10);
    TakeAt(kMidnight + 25h, 300); // the whole count, or 290
    EXPECT_EQ(Day(kTomorrow).mSteps, 280);
    EXPECT_FALSE(Day(kTomorrow).mIsExact);
    EXPECT_TRUE(mLedger.WantsQuestion());
    Take(600);
    EXPECT_EQ(Day(kTomorrow).mSteps, 290);
    EXPECT_TRUE(Day(kTomorrow).mIsExact);
}

TEST_F(StepLedgerTest, MidnightOfAWatchThatIsHoursAheadIsNoDayOfThePhone)
{
    mWatchIsAhead = 5h;
    mNow = kMidnight + 18h + 59min;
    Take(150);
    Take(210);
    Take(280);
    TakeAt(kMidnight + 19h + 1min, 90);
    ExpectSteps(30, true);
    TakeAt(kMidnight + 24h, 190);
    ExpectSteps(30, true);
    EXPECT_EQ(Day(kTomorrow).mSteps, 10);
    EXPECT_TRUE(Day(kTomorrow).mIsExact);
}

TEST_F(StepLedgerTest, MidnightOfAWatchInAnotherZoneIsSeenOneReadingLate)
{
    Take(0);
    Take(10);
    Take(30);
    Take(50); // a count of 20
    Take(60); // a count of 60 that the zone does not tell
    EXPECT_TRUE(mLedger.WantsQuestion());
    ExpectSteps(10, false);
    Take(120);
    ExpectSteps(50, false);
}

TEST_F(StepLedgerTest, DaysFollowSummerTime)
{
    StepLedger ledger(Berlin);
    const auto take = [&ledger](sys_seconds at, float value) { ledger.Take({value, at, at}); };
    take(kSummerTime - 3h, 0); // 23:00
    take(kSummerTime - 2h - 1s, 100);
    take(kSummerTime - 2h, 101);
    take(kSummerTime + 21h - 1s, 211);
    take(kSummerTime + 21h, 120);
    const local_days longNight = kToday + std::chrono::days(15);
    EXPECT_EQ(ledger.Days().at(longNight).mSince, kSummerTime - 2h);
    EXPECT_EQ(ledger.Days().at(longNight).mSteps, 10);
    EXPECT_EQ(ledger.Days().at(longNight + std::chrono::days(1)).mSince, kSummerTime + 21h);
    EXPECT_EQ(ledger.Days().at(longNight + std::chrono::days(1)).mSteps, 10);
}

TEST_F(StepLedgerTest, StepsInAGapAroundMidnightAreOfNoDay)
{
    mLedger.Connected("a");
    Take(0);
    Take(10);
    mLedger.Connected("a");
    mNow = kMidnight + 32h;
    Take(1000);
    Take(2000);
    ExpectSteps(0, true);
    EXPECT_EQ(Day(kTomorrow).mSteps, 0);
    EXPECT_TRUE(Day(kTomorrow).mIsExact);
    EXPECT_FALSE(Day(kTomorrow).mFromMidnight);
}

TEST_F(StepLedgerTest, PedometerThatBeginsAnewIsTold)
{
    Take(0);
    Take(0);
    Take(50);
    Take(100);
    TakeWithoutTime(100);
    TakeWithoutTime(100);
    ExpectSteps(50, false);
    Take(20); // as after midnight
    ExpectSteps(70, false);
    Take(45);
    ExpectSteps(75, false);
}

TEST_F(StepLedgerTest, BeyondTheRoomOfAFloatStepsAreALowerBound)
{
    Take(16777190);
    Take(16777200);
    Take(16777210);
    ExpectSteps(0, true);
    Take(16777222); // 12, give or take 1
    ExpectSteps(1, false);
    Take(16777236);
    ExpectSteps(2, false);
    TakeAt(kMidnight + 24h, 13); // the watch's new day
    EXPECT_EQ(Day(kTomorrow).mSteps, 0);
    EXPECT_FALSE(Day(kTomorrow).mIsExact);
}

TEST_F(StepLedgerTest, TotalGoesOnBelowZero)
{
    Take(2147483648.0F);
    Take(-2147482624.0F); // 1024 more, give or take 192
    Take(-2147481600.0F);
    Take(-2147480320.0F); // 1280, give or take 128
    ExpectSteps(0, false);
    Take(-2147478272.0F); // 2048
    ExpectSteps(704, false);
}

TEST_F(StepLedgerTest, WhatNoWatchSendsCountsAsMissed)
{
    Take(0);
    Take(10);
    for (const float value : {1.5F, 4294967296.0F, std::numeric_limits<float>::quiet_NaN()}) {
        Take(value);
        EXPECT_TRUE(mLedger.WantsQuestion());
    }
    Take(100);
    Take(125);
    ExpectSteps(15, true);
}

TEST_F(StepLedgerTest, ClockOfThePhoneThatGoesBackLeavesLowerBounds)
{
    Take(0);
    Take(0);
    TakeAt(kMidnight + 36h, 10);
    EXPECT_TRUE(Day(kTomorrow).mIsExact);
    mWatchIsAhead = 24h;
    TakeAt(kMidnight + 12h, 22);
    ExpectSteps(2, false);
    EXPECT_EQ(Day(kTomorrow).mSteps, 10);
}

TEST_F(StepLedgerTest, KeepsTheLatestDays)
{
    Take(0);
    for (int day = 0; day < 40; ++day) {
        TakeAt(kMidnight + 12h + day * 24h, 0);
    }
    EXPECT_EQ(mLedger.Days().size(), StepLedger::kMaxDays);
    EXPECT_EQ(mLedger.Days().rbegin()->first, kToday + std::chrono::days(39));
    Restart();
}

TEST_F(StepLedgerTest, GoesOnInTheAfternoonWithTheStepsOfTheMorning)
{
    mLedger.Connected("17:4711");
    Take(0);
    Take(0);
    Take(1000);
    Restart();
    ExpectSteps(1000, true);
    mLedger.Connected("17:4711");
    Take(3000);
    Take(5000);
    ExpectSteps(2000, true);
}

TEST_F(StepLedgerTest, CountsNoStepTwiceFromAnOldText)
{
    mLedger.Connected("17:4711");
    Take(0);
    Take(0);
    Take(1000);
    const std::string old = mLedger.Save();
    Take(2500); // a count of 1500
    mLedger = StepLedger::Restore(old, Utc).Value();
    mLedger.Connected("17:4711");
    Take(4000);
    Take(5500);
    ExpectSteps(1500, true);
}

TEST_F(StepLedgerTest, TextIsLinesWithAChecksum)
{
    mLedger.Connected("17:4711");
    Take(0);
    Take(10);
    Take(35);
    EXPECT_EQ(mLedger.Save(), "parvane-steps 1\n"
                              "day 2026-03-14 15 1773489602000 1773489603000 0 1 0\n"
                              "count 2026-03-14 10 10 25 25 17:4711\n"
                              "sum 36ea3b5d7b7f347d\n");
}

TEST_F(StepLedgerTest, TellsADamagedTextFromOneOfAnotherVersion)
{
    Take(0);
    Take(10);
    const std::string text = mLedger.Save();
    for (std::size_t i = 0; i < text.size(); ++i) {
        std::string damaged = text;
        damaged[i] = static_cast<char>(damaged[i] ^ 1);
        EXPECT_FALSE(StepLedger::Restore(damaged, Utc).Ok()) << damaged;
        EXPECT_FALSE(StepLedger::Restore(text.substr(0, i), Utc).Ok()) << i;
    }
    EXPECT_EQ(StepLedger::Restore(text + "\n", Utc).GetError(), "it is damaged");
    EXPECT_EQ(StepLedger::Restore(WithChecksum("parvane-steps 2\n"), Utc).GetError(),
              "it is of another version than 1");
}

TEST_F(StepLedgerTest, TextThatContradictsItselfIsDamaged)
{
    const std::string head = "parvane-steps 1\n";
    const std::string day = "day 2026-03-14 15 1000 2000 0 1 0\n";
    EXPECT_TRUE(StepLedger::Restore(WithChecksum(head), Utc).Ok());
    EXPECT_TRUE(StepLedger::Restore(WithChecksum(head + day), Utc).Ok());
    for (const std::string &body : {
             head + "day 2026-02-30 15 1000 2000 0 1 0\n",
             head + "day 2026-03-14 -1 1000 2000 0 1 0\n",
             head + "day 2026-03-14 15 1000 2000 0 1 1\n",
             head + "count 2026-03-14 10 10 25 25 -\n",
             head + day + "count 2026-03-14 11 10 25 25 -\n",
             head + day + "count 2026-03-14 10 10 26 26 -\n",
             head + day + day,
         }) {
        EXPECT_FALSE(StepLedger::Restore(WithChecksum(body), Utc).Ok()) << body;
    }
}
