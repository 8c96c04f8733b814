#include "power/PowerLocks.h"

#include <limits>
#include <memory>

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace ParvanePlatform {

TEST(PowerLocksTest, LockEndsByItsTimeOut)
{
    const ManualClock clock;
    PowerLocks locks(clock);
    StderrCapture capture;
    EXPECT_EQ(locks.Lock(2, 16000), 0);
    EXPECT_EQ(locks.Count(), 1U);

    RunWhileBusy();

    EXPECT_EQ(locks.Count(), 0U);
    EXPECT_EQ(capture.Take(), "I platform: power: state 2 kept for 16000 ms\n"
                              "I platform: power: state 2 released\n");
}

TEST(PowerLocksTest, LocksAreIndependent)
{
    SystemClock clock;
    PowerLocks locks(clock);
    const StderrCapture quiet;
    EXPECT_EQ(locks.Lock(1, std::numeric_limits<int>::max()), 0);
    EXPECT_EQ(locks.Lock(2, 1), 0);
    EXPECT_TRUE(RunUntil([&locks] { return locks.Count() == 1; }));
    EXPECT_GT(NextWakeMs(), 2'000'000'000);
}

TEST(PowerLocksTest, EndOfTheListEndsTheTimers)
{
    const ManualClock clock;
    const StderrCapture quiet;
    auto locks = std::make_unique<PowerLocks>(clock);
    EXPECT_EQ(locks->Lock(2, 1), 0);
    locks.reset();
    EXPECT_EQ(NextWakeMs(), -1);
}

TEST(PowerLocksTest, ValuesMustBeAboveZero)
{
    const ManualClock clock;
    PowerLocks locks(clock);
    EXPECT_EQ(locks.Lock(0, 1), -22);
    EXPECT_EQ(locks.Lock(-1, 1), -22);
    EXPECT_EQ(locks.Lock(2, 0), -22);
    EXPECT_EQ(locks.Lock(2, -1), -22);
    EXPECT_EQ(locks.Count(), 0U);
}

} // namespace ParvanePlatform
