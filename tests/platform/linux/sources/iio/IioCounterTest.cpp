#include "IioCounter.h"

#include <gtest/gtest.h>

namespace ParvanePlatform {

namespace {

using Step = IioCounter::Step;

constexpr double kLimit = 2147483647.0;

} // namespace

TEST(IioCounterTest, HasNoCountBeforeTheFirstValue)
{
    const IioCounter counter(kLimit);
    EXPECT_FALSE(counter.Count());
}

TEST(IioCounterTest, CountsWithTheDevice)
{
    IioCounter counter(kLimit);
    EXPECT_EQ(counter.Take(1000.0), Step::On);
    EXPECT_EQ(counter.Count(), 1000.0);
    EXPECT_EQ(counter.Take(1000.0), Step::On);
    EXPECT_EQ(counter.Take(1025.0), Step::On);
    EXPECT_EQ(counter.Count(), 1025.0);
}

TEST(IioCounterTest, ResetCountsNothingAndTheCountGoesOn)
{
    IioCounter counter(kLimit);
    counter.Take(500.0);
    EXPECT_EQ(counter.Take(0.0), Step::Back);
    EXPECT_EQ(counter.Count(), 500.0);
    EXPECT_EQ(counter.Take(7.0), Step::On);
    EXPECT_EQ(counter.Count(), 507.0);
}

TEST(IioCounterTest, WrapOf16BitsCountsNothingAndTheCountGoesOn)
{
    IioCounter counter(kLimit);
    counter.Take(65530.0);
    EXPECT_EQ(counter.Take(4.0), Step::Back);
    EXPECT_EQ(counter.Count(), 65530.0);
    counter.Take(10.0);
    EXPECT_EQ(counter.Count(), 65536.0);
}

TEST(IioCounterTest, SeveralResetsAddUp)
{
    IioCounter counter(kLimit);
    for (const double value : {100.0, 5.0, 15.0, 0.0, 10.0, 20.0}) {
        counter.Take(value);
    }
    EXPECT_EQ(counter.Count(), 130.0);
}

TEST(IioCounterTest, ValueThatIsLowForAMomentCountsNothing)
{
    IioCounter counter(kLimit);
    counter.Take(10000.0);
    EXPECT_EQ(counter.Take(0.0), Step::Back);
    EXPECT_EQ(counter.Take(10000.0), Step::On);
    EXPECT_EQ(counter.Count(), 10000.0);
    counter.Take(9000.0);
    counter.Take(10005.0);
    EXPECT_EQ(counter.Count(), 10005.0);
}

TEST(IioCounterTest, ValueThatIsLowForLongerCountsNothingEither)
{
    IioCounter counter(kLimit);
    for (const double value : {10000.0, 7.0, 0.0, 0.0, 0.0, 10001.0}) {
        counter.Take(value);
    }
    EXPECT_EQ(counter.Count(), 10001.0);
}

TEST(IioCounterTest, CounterThatIsResetTwiceInARowIsCountedFromTheLowerValue)
{
    IioCounter counter(kLimit);
    for (const double value : {500.0, 20.0, 3.0, 3.0, 13.0}) {
        counter.Take(value);
    }
    EXPECT_EQ(counter.Count(), 510.0);
}

TEST(IioCounterTest, OfSeveralFallsInARowOnlyTheFirstIsBack)
{
    IioCounter counter(kLimit);
    counter.Take(500.0);
    EXPECT_EQ(counter.Take(400.0), Step::Back);
    EXPECT_EQ(counter.Take(300.0), Step::On);
    EXPECT_EQ(counter.Take(200.0), Step::On);
    EXPECT_EQ(counter.Take(250.0), Step::On);
    EXPECT_EQ(counter.Take(100.0), Step::Back);
}

TEST(IioCounterTest, AnotherCounterIsNotTakenForTheReturnFromAFall)
{
    IioCounter counter(kLimit);
    counter.Take(100.0);
    counter.Take(0.0);
    counter.Rebase();
    counter.Take(5000.0);
    EXPECT_EQ(counter.Count(), 100.0);
}

TEST(IioCounterTest, CountNeverGoesDownWithFractionsEither)
{
    IioCounter counter(kLimit);
    double before = 0.0;
    for (int i = 0; i < 10000; ++i) {
        counter.Take(0.1 * (i % 37));
        ASSERT_GE(*counter.Count(), before);
        before = *counter.Count();
    }
}

TEST(IioCounterTest, CountStopsAtItsLimit)
{
    IioCounter counter(kLimit);
    counter.Take(2147483640.0);
    counter.Take(0.0);
    counter.Take(100.0);
    EXPECT_EQ(counter.Count(), kLimit);
    EXPECT_EQ(counter.Take(0.0), Step::Back);
    EXPECT_EQ(counter.Count(), kLimit);
}

TEST(IioCounterTest, AnotherCounterIsCountedFromItsFirstValue)
{
    IioCounter counter(kLimit);
    counter.Take(100.0);
    counter.Rebase();
    EXPECT_EQ(counter.Take(90000.0), Step::On);
    EXPECT_EQ(counter.Count(), 100.0);
    counter.Take(90003.0);
    EXPECT_EQ(counter.Count(), 103.0);
}

TEST(IioCounterTest, AnotherCounterThatIsLowerHasNotGoneBack)
{
    IioCounter counter(kLimit);
    counter.Take(100.0);
    counter.Rebase();
    EXPECT_EQ(counter.Take(3.0), Step::On);
    EXPECT_EQ(counter.Count(), 100.0);
}

TEST(IioCounterTest, CountThatComesLateBeginsAtZero)
{
    IioCounter counter(kLimit);
    counter.BeginAtZero();
    counter.Take(5000.0);
    EXPECT_EQ(counter.Count(), 0.0);
    counter.Take(5012.5);
    EXPECT_EQ(counter.Count(), 12.5);
}

TEST(IioCounterTest, CountThatIsThereStays)
{
    IioCounter counter(kLimit);
    counter.Take(50.0);
    counter.BeginAtZero();
    counter.Take(60.0);
    EXPECT_EQ(counter.Count(), 60.0);
}

} // namespace ParvanePlatform
