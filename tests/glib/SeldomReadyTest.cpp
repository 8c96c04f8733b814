#include "SeldomReady.h"

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/eventfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "RunHandler.h"
#include "TestSupport.h"

namespace ParvanePlatform {
namespace {

Parvane::UniqueFd MakeEvent(unsigned value)
{
    return Parvane::UniqueFd(::eventfd(value, EFD_NONBLOCK | EFD_CLOEXEC));
}

/** Makes the event ready. */
void Raise(const Parvane::UniqueFd &event)
{
    const eventfd_t one = 1;
    ASSERT_EQ(::eventfd_write(event.Get(), one), 0);
}

/** Makes the event not ready any more. */
void Lower(const Parvane::UniqueFd &event)
{
    eventfd_t value = 0;
    ASSERT_EQ(::eventfd_read(event.Get(), &value), 0);
}

long OpenDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST(SeldomReadyTest, ReadyDescriptorsAreCalledEachForItself)
{
    const Parvane::UniqueFd first = MakeEvent(0);
    const Parvane::UniqueFd second = MakeEvent(0);
    std::string calls;
    const Parvane::LoopSource firstSource =
        Parvane::LoopSource::WatchSeldom(first.Get(), G_IO_IN, [&] {
            calls += 'a';
            Lower(first);
        });
    const Parvane::LoopSource secondSource =
        Parvane::LoopSource::WatchSeldom(second.Get(), G_IO_IN, [&] {
            calls += 'b';
            Lower(second);
        });
    EXPECT_TRUE(firstSource.IsActive());

    RunWhileBusy();
    EXPECT_EQ(calls, "");
    Raise(second);
    RunWhileBusy();
    EXPECT_EQ(calls, "b");
    Raise(first);
    RunWhileBusy();
    EXPECT_EQ(calls, "ba");
}

TEST(SeldomReadyTest, DescriptorThatStaysReadyIsCalledInEachTurn)
{
    const Parvane::UniqueFd event = MakeEvent(1);
    int calls = 0;
    const Parvane::LoopSource source =
        Parvane::LoopSource::WatchSeldom(event.Get(), G_IO_IN, [&calls] { ++calls; });
    for (int turn = 0; turn < 3; ++turn) {
        g_main_context_iteration(nullptr, FALSE);
    }
    EXPECT_EQ(calls, 3);
}

TEST(SeldomReadyTest, EndedSourceIsNotCalledAndTheSetGoesWithTheLast)
{
    RunWhileBusy(); // the loop has its own descriptors from now on
    const long before = OpenDescriptors();
    const Parvane::UniqueFd first = MakeEvent(1);
    const Parvane::UniqueFd second = MakeEvent(1);
    int calls = 0;
    {
        Parvane::LoopSource firstSource =
            Parvane::LoopSource::WatchSeldom(first.Get(), G_IO_IN, [&calls] { ++calls; });
        const Parvane::LoopSource secondSource =
            Parvane::LoopSource::WatchSeldom(second.Get(), G_IO_IN, [&calls] { ++calls; });
        EXPECT_EQ(OpenDescriptors(), before + 3);
        firstSource.Remove();
        firstSource.Remove();
        EXPECT_FALSE(firstSource.IsActive());
        g_main_context_iteration(nullptr, FALSE);
        EXPECT_EQ(calls, 1);
    }
    EXPECT_EQ(OpenDescriptors(), before + 2);
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(calls, 1);
}

TEST(SeldomReadyTest, HandlerMayEndItselfTheOthersAndTheSet)
{
    struct Sources
    {
        Parvane::LoopSource mFirst;
        Parvane::LoopSource mSecond;
    };
    const Parvane::UniqueFd first = MakeEvent(1);
    const Parvane::UniqueFd second = MakeEvent(1);
    auto sources = std::make_unique<Sources>();
    const auto canary = std::make_shared<int>(5);
    int seen = 0;
    const auto endBoth = [&sources, &seen, canary] {
        sources.reset();
        seen += *canary;
    };
    sources->mFirst = Parvane::LoopSource::WatchSeldom(first.Get(), G_IO_IN, endBoth);
    sources->mSecond = Parvane::LoopSource::WatchSeldom(second.Get(), G_IO_IN, endBoth);

    RunWhileBusy();

    EXPECT_EQ(seen, 5);
}

TEST(SeldomReadyTest, MovedSourceGoesOnAndReplacedOneEnds)
{
    const Parvane::UniqueFd first = MakeEvent(1);
    const Parvane::UniqueFd second = MakeEvent(1);
    std::string calls;
    Parvane::LoopSource source =
        Parvane::LoopSource::WatchSeldom(first.Get(), G_IO_IN, [&calls] { calls += 'a'; });
    Parvane::LoopSource other =
        Parvane::LoopSource::WatchSeldom(second.Get(), G_IO_IN, [&calls] { calls += 'b'; });
    source = std::move(other);
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(calls, "b");
}

TEST(SeldomReadyTest, ExceptionIsLoggedAndTheOthersAreCalled)
{
    StderrCapture log;
    Parvane::SetHandlerLog([](const char *line) noexcept { std::fprintf(stderr, "%s\n", line); });
    const Parvane::UniqueFd first = MakeEvent(0);
    const Parvane::UniqueFd second = MakeEvent(0);
    int calls = 0;
    const Parvane::LoopSource failing =
        Parvane::LoopSource::WatchSeldom(first.Get(), G_IO_IN, [&first] {
            Lower(first);
            throw std::runtime_error("no luck");
        });
    const Parvane::LoopSource working =
        Parvane::LoopSource::WatchSeldom(second.Get(), G_IO_IN, [&] {
            Lower(second);
            ++calls;
        });
    Raise(first);
    Raise(second);

    RunWhileBusy();

    EXPECT_EQ(calls, 1);
    EXPECT_NE(log.Take().find("main loop: no luck"), std::string::npos);
}

TEST(SeldomReadyTest, DescriptorThatTheKernelCannotKeepInASetIsWatchedAllTheSame)
{
    const TemporaryDirectory directory;
    const std::string path = directory / "file";
    // A file of the disk is always ready, and epoll refuses it.
    const Parvane::UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_FALSE(Parvane::SeldomReady::Watch(file.Get(), G_IO_IN, [] {}).has_value());
    int calls = 0;
    const Parvane::LoopSource source =
        Parvane::LoopSource::WatchSeldom(file.Get(), G_IO_IN, [&calls] { ++calls; });
    EXPECT_TRUE(source.IsActive());
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(calls, 1);
}

} // namespace
} // namespace ParvanePlatform
