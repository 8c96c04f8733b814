#include "Wait.h"

#include <poll.h>

#include <gtest/gtest.h>

#include "Pipe.h"

namespace Parvane {
namespace {

using std::chrono::milliseconds;

const Deadline &AtOnce()
{
    static const Deadline deadline = Deadline::After(milliseconds{0});
    return deadline;
}

TEST(WaitTest, AReadyDescriptorIsReadyAfterTheDeadlineToo)
{
    const Pipe pipe;
    EXPECT_EQ(WaitFor(pipe.mWriteEnd.Get(), POLLOUT, AtOnce(), {}), WaitResult::Ready);
    EXPECT_EQ(WaitFor(pipe.mReadEnd.Get(), POLLIN, AtOnce(), {}), WaitResult::TimedOut);
}

TEST(WaitTest, TheTimeAlonePasses)
{
    EXPECT_EQ(WaitFor(-1, 0, Deadline::After(milliseconds{2}), {}), WaitResult::TimedOut);
}

TEST(WaitTest, AnInterruptionIsLookedAtFirst)
{
    const Pipe pipe;
    const Pipe other;
    ASSERT_EQ(::write(other.mWriteEnd.Get(), "x", 1), 1);
    WaitOptions options;
    options.mInterruptFd = other.mReadEnd.Get();
    EXPECT_EQ(WaitFor(pipe.mWriteEnd.Get(), POLLOUT, Deadline::Never(), options),
              WaitResult::Interrupted);
}

TEST(WaitTest, AReaderThatGoesInterrupts)
{
    Pipe pipe;
    WaitOptions options;
    options.mOutputFd = pipe.mWriteEnd.Get();
    EXPECT_EQ(WaitFor(-1, 0, AtOnce(), options), WaitResult::TimedOut);
    pipe.mReadEnd.Reset();
    EXPECT_EQ(WaitFor(-1, 0, Deadline::Never(), options), WaitResult::Interrupted);
}

TEST(WaitTest, TheTickComesUntilTheDescriptorIsReady)
{
    const Pipe pipe;
    int ticks = 0;
    WaitOptions options;
    options.mTickPeriod = milliseconds{1};
    options.mOnTick = [&ticks, &pipe] {
        if (++ticks == 3) {
            EXPECT_EQ(::write(pipe.mWriteEnd.Get(), "x", 1), 1);
        }
    };
    EXPECT_EQ(WaitFor(pipe.mReadEnd.Get(), POLLIN, Deadline::Never(), options), WaitResult::Ready);
    EXPECT_EQ(ticks, 3);
}

} // namespace
} // namespace Parvane
