#include "PowerLocks.h"

#include <limits>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "FakeBusParts.h"
#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

/** What can hold, and what it holds. */
struct Backend
{
    bool mCanHold = true;
    int mHolds = 0;
};

std::vector<std::unique_ptr<PowerBackend>> List(Backend &first, Backend &second)
{
    std::vector<std::unique_ptr<PowerBackend>> backends;
    backends.push_back(std::make_unique<FakeBackend>("first", first.mCanHold, first.mHolds));
    backends.push_back(std::make_unique<FakeBackend>("second", second.mCanHold, second.mHolds));
    return backends;
}

} // namespace

TEST(PowerLocksTest, LockEndsByItsTimeOut)
{
    const ManualClock clock;
    PowerLocks locks(clock);
    StderrCapture capture;
    EXPECT_EQ(locks.Lock(2, 16000), 0);
    EXPECT_EQ(locks.List().size(), 1U);

    RunWhileBusy();

    EXPECT_EQ(locks.List().size(), 0U);
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
    EXPECT_TRUE(RunUntil([&locks] { return locks.List().size() == 1; }));
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
    EXPECT_EQ(locks.List().size(), 0U);
}

TEST(PowerLocksTest, FirstBackendThatCanHoldDoesUntilTheTimeOut)
{
    const ManualClock clock;
    Backend first;
    Backend second;
    PowerLocks locks(clock, List(first, second));
    StderrCapture capture;
    EXPECT_EQ(locks.Lock(2, 16000), 0);
    EXPECT_EQ(first.mHolds, 1);
    EXPECT_EQ(second.mHolds, 0);

    RunWhileBusy();

    EXPECT_EQ(first.mHolds, 0);
    EXPECT_EQ(capture.Take(), "I platform: power: state 2 kept for 16000 ms by first\n"
                              "I platform: power: state 2 released\n");
}

TEST(PowerLocksTest, NextBackendHoldsWhatTheOneBeforeCannot)
{
    const SystemClock clock;
    Backend first;
    Backend second;
    PowerLocks locks(clock, List(first, second));
    const StderrCapture quiet;
    first.mCanHold = false;
    EXPECT_EQ(locks.Lock(2, 60000), 0);
    first.mCanHold = true;
    EXPECT_EQ(locks.Lock(2, 60000), 0);

    EXPECT_EQ(first.mHolds, 1);
    EXPECT_EQ(second.mHolds, 1);
    ASSERT_EQ(locks.List().size(), 2U);
    EXPECT_EQ(locks.List()[0].mBackend, "second");
    EXPECT_EQ(locks.List()[1].mBackend, "first");
}

TEST(PowerLocksTest, LockThatNothingCanHoldFailsWithOneLineUntilSomethingCan)
{
    const SystemClock clock;
    Backend first;
    Backend second;
    PowerLocks locks(clock, List(first, second));
    first.mCanHold = false;
    second.mCanHold = false;
    StderrCapture capture;
    EXPECT_EQ(locks.Lock(2, 60000), -1);
    EXPECT_EQ(locks.Lock(2, 60000), -1);
    EXPECT_EQ(locks.List().size(), 0U);
    EXPECT_EQ(NextWakeMs(), -1);
    first.mCanHold = true;
    EXPECT_EQ(locks.Lock(2, 60000), 0);
    EXPECT_EQ(capture.Take(),
              "W platform: power: state 2 cannot be kept: nothing here can hold it\n"
              "I platform: power: state 2 kept for 60000 ms by first\n");
}

TEST(PowerLocksTest, EndOfTheListReleasesWhatIsHeld)
{
    const ManualClock clock;
    Backend first;
    Backend second;
    const StderrCapture quiet;
    auto locks = std::make_unique<PowerLocks>(clock, List(first, second));
    EXPECT_EQ(locks->Lock(2, 1), 0);
    EXPECT_EQ(locks->Lock(1, 1), 0);
    EXPECT_EQ(first.mHolds, 2);
    locks.reset();
    EXPECT_EQ(first.mHolds, 0);
}

TEST(PowerLocksTest, ListTellsStateBackendAndTimes)
{
    ManualClock clock;
    clock.mMonotonicUs = 1'000'000;
    PowerLocks locks(clock);
    const StderrCapture quiet;
    EXPECT_TRUE(locks.List().empty());
    EXPECT_EQ(locks.Lock(2, 16000), 0);

    const std::vector<PowerLocks::Status> list = locks.List();
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].mState, 2);
    EXPECT_EQ(list[0].mBackend, "none");
    EXPECT_EQ(list[0].mTaken.mWallMs, 1769862896789);
    EXPECT_EQ(list[0].mEndUs, 17'000'000);
}

} // namespace ParvanePlatform
