#include "TimeUtil.h"

#include <ctime>
#include <type_traits>

#include <gtest/gtest.h>

#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

// Central European time: one hour ahead of UTC, two from the last Sunday of March to that of October.
constexpr const char *kCentralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";

class TimeUtilTest : public testing::Test
{
protected:
    ScriptedPlatform mPlatform;
};

TEST_F(TimeUtilTest, CurrentTimeIsTheWallClockInSeconds)
{
    mPlatform.SetTime(1400000123);

    EXPECT_EQ(1400000123, TimeUtil::GetCurrentTime());
    EXPECT_TRUE((std::is_same_v<decltype(TimeUtil::GetCurrentTime()), int32_t>));
    EXPECT_TRUE(std::has_virtual_destructor_v<TimeUtil>);
}

TEST_F(TimeUtilTest, DayReachesFromMidnightToItsLastSecond)
{
    // 2014-05-13 16:53:20 UTC
    EXPECT_EQ(1399939200, TimeUtil::GetStartOfDay(1400000000)); // 00:00:00
    EXPECT_EQ(1400025599, TimeUtil::GetEndOfDay(1400000000));   // 23:59:59
}

TEST_F(TimeUtilTest, AnyTimeOfADayHasTheSameBounds)
{
    for (const int32_t time : {1399939200, 1399939201, 1399999999, 1400025598, 1400025599}) {
        EXPECT_EQ(1399939200, TimeUtil::GetStartOfDay(time));
        EXPECT_EQ(1400025599, TimeUtil::GetEndOfDay(time));
    }
}

TEST_F(TimeUtilTest, MidnightBelongsToTheDayThatItBegins)
{
    EXPECT_EQ(1400025600, TimeUtil::GetStartOfDay(1400025600));
    EXPECT_EQ(1400111999, TimeUtil::GetEndOfDay(1400025600));
}

TEST_F(TimeUtilTest, TheEpochsDayBeginsAtZero)
{
    EXPECT_EQ(0, TimeUtil::GetStartOfDay(0));
    EXPECT_EQ(86399, TimeUtil::GetEndOfDay(0));
}

TEST_F(TimeUtilTest, CurrentTimeIsToday)
{
    EXPECT_TRUE(TimeUtil::IsToday(TimeUtil::GetCurrentTime()));
}

TEST_F(TimeUtilTest, TodaysStartIsTodayAndTheSecondBeforeIsNot)
{
    EXPECT_TRUE(TimeUtil::IsToday(1399939200));
    EXPECT_FALSE(TimeUtil::IsToday(1399939199));
}

TEST_F(TimeUtilTest, TodaysLastSecondIsTodayAndTheNextDaysFirstIsNot)
{
    EXPECT_TRUE(TimeUtil::IsToday(1400025599));
    EXPECT_FALSE(TimeUtil::IsToday(1400025600));
}

TEST_F(TimeUtilTest, TodayFollowsTheClock)
{
    mPlatform.SetTime(1400025600); // the next day

    EXPECT_FALSE(TimeUtil::IsToday(1400025599));
    EXPECT_TRUE(TimeUtil::IsToday(1400025600));
}

TEST_F(TimeUtilTest, DaysAreThoseOfTheLocalTimeZone)
{
    const ScopedTimeZone zone(kCentralEurope);

    // 2014-05-13 18:53:20 there
    EXPECT_EQ(1399932000, TimeUtil::GetStartOfDay(1400000000)); // 2014-05-12 22:00:00 UTC
    EXPECT_EQ(1400018399, TimeUtil::GetEndOfDay(1400000000));   // 2014-05-13 21:59:59 UTC
}

TEST_F(TimeUtilTest, DayWestOfGreenwichMayBeginOnYesterdaysDate)
{
    const ScopedTimeZone zone("PST8");

    // 2014-05-13 01:00:00 UTC, 2014-05-12 17:00:00 there
    EXPECT_EQ(1399881600, TimeUtil::GetStartOfDay(1399942800)); // 2014-05-12 08:00:00 UTC
    EXPECT_EQ(1399967999, TimeUtil::GetEndOfDay(1399942800));
}

// The flag of the given time is kept, whichever side of the change the bound lies on.
TEST_F(TimeUtilTest, BoundsOfTheDaysOfChangeKeepTheDaylightSavingFlagOfTheTime)
{
    const ScopedTimeZone zone(kCentralEurope);

    // 2014-03-30, 01:30 before and 12:00 after the change at 02:00
    EXPECT_EQ(1396134000, TimeUtil::GetStartOfDay(1396139400));
    EXPECT_EQ(1396134000 - 3600, TimeUtil::GetStartOfDay(1396173600));
    EXPECT_EQ(1396216799, TimeUtil::GetEndOfDay(1396173600));
    EXPECT_EQ(1396216799 + 3600, TimeUtil::GetEndOfDay(1396139400));
}

TEST_F(TimeUtilTest, DayBeforeTheEpochHasItsBounds)
{
    EXPECT_EQ(-86400, TimeUtil::GetStartOfDay(-1));
    EXPECT_EQ(-1, TimeUtil::GetEndOfDay(-1));
}

} // namespace
} // namespace Parvane
