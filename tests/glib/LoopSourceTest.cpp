#include "LoopSource.h"

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/eventfd.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "RunHandler.h"
#include "TestSupport.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

TEST(LoopSourceTest, PostCallsOnceInTheNextTurn)
{
    int calls = 0;
    const Parvane::LoopSource source = Parvane::LoopSource::Post([&calls] { ++calls; });
    EXPECT_EQ(calls, 0);
    EXPECT_TRUE(source.IsActive());

    RunWhileBusy();

    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(source.IsActive());
}

TEST(LoopSourceTest, EndOfTheOwnerEndsTheSource)
{
    int calls = 0;
    {
        const Parvane::LoopSource source = Parvane::LoopSource::Post([&calls] { ++calls; });
    }
    RunWhileBusy();
    EXPECT_EQ(calls, 0);
}

TEST(LoopSourceTest, MovedSourceGoesOnAndReplacedOneEnds)
{
    std::string calls;
    Parvane::LoopSource first = Parvane::LoopSource::Post([&calls] { calls += 'a'; });
    Parvane::LoopSource second = Parvane::LoopSource::Post([&calls] { calls += 'b'; });
    second = std::move(first);
    RunWhileBusy();
    EXPECT_EQ(calls, "a");
}

TEST(LoopSourceTest, HandlerMayEndItsOwnSource)
{
    struct Owner
    {
        Parvane::LoopSource mSource;
    };
    auto owner = std::make_unique<Owner>();
    const auto canary = std::make_shared<int>(5);
    int seen = 0;
    owner->mSource = Parvane::LoopSource::Post([&owner, &seen, canary] {
        owner.reset();
        seen = *canary; // what was captured is still there
    });
    RunWhileBusy();
    EXPECT_EQ(seen, 5);
    EXPECT_EQ(canary.use_count(), 1);
}

TEST(LoopSourceTest, TimerFiresAtItsTimeAndNotBefore)
{
    int calls = 0;
    Parvane::LoopSource source =
        Parvane::LoopSource::At(g_get_monotonic_time() + 2000, [&calls] { ++calls; });
    const std::int64_t startUs = g_get_monotonic_time();
    EXPECT_TRUE(RunUntil([&calls] { return calls == 1; }));
    EXPECT_GE(g_get_monotonic_time() - startUs, 1000);

    source = Parvane::LoopSource::At(g_get_monotonic_time() + 3'600'000'000, [&calls] { ++calls; });
    RunWhileBusy();
    EXPECT_EQ(calls, 1);
    EXPECT_GT(NextWakeMs(), 3'590'000);
}

TEST(LoopSourceTest, WatchedDescriptorCallsWhileItIsReady)
{
    const Parvane::UniqueFd event(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    int calls = 0;
    const Parvane::LoopSource source = Parvane::LoopSource::WatchFd(event.Get(), G_IO_IN, [&] {
        ++calls;
        eventfd_t value = 0;
        eventfd_read(event.Get(), &value);
    });
    RunWhileBusy();
    EXPECT_EQ(calls, 0);
    ASSERT_EQ(eventfd_write(event.Get(), 1), 0);
    RunWhileBusy();
    EXPECT_EQ(calls, 1);
}

TEST(LoopSourceTest, BeforeSleepIsAskedEachTurnAndNeverWakes)
{
    int calls = 0;
    const Parvane::LoopSource source = Parvane::LoopSource::BeforeSleep([&calls] { ++calls; });
    EXPECT_EQ(NextWakeMs(), -1);
    calls = 0;
    const Parvane::LoopSource posted = Parvane::LoopSource::Post([] {});
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(calls, 1);
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(calls, 2);
}

TEST(LoopSourceTest, ExceptionOfAHandlerIsLoggedAndGoesNoFurther)
{
    StderrCapture capture;
    Parvane::SetHandlerLog([](const char *line) noexcept { std::fprintf(stderr, "%s\n", line); });
    const Parvane::LoopSource source =
        Parvane::LoopSource::Post([] { throw std::runtime_error("broken"); });
    RunWhileBusy();
    EXPECT_EQ(capture.Take(), "main loop: broken\n");
}

TEST(LoopSourceTest, TimerCanBeSetAgainFromItsHandlerAndDisarmed)
{
    LoopTimer timer;
    std::string calls;
    timer.Arm(1, [&] {
        calls += 'a';
        timer.Arm(2, [&] { calls += 'b'; });
    });
    RunWhileBusy();
    EXPECT_EQ(calls, "ab");

    timer.Arm(3, [&] { calls += 'c'; });
    timer.Disarm();
    RunWhileBusy();
    EXPECT_EQ(calls, "ab");
}

} // namespace ParvanePlatform
