#include "Signals.h"

#include <cerrno>
#include <poll.h>

#include <gtest/gtest.h>

#include "Pipe.h"

namespace Parvane {
namespace {

bool IsReadable(int fd)
{
    pollfd polled{fd, POLLIN, 0};
    return ::poll(&polled, 1, 0) == 1;
}

TEST(SignalsTest, ASignalMakesTheDescriptorReadableUntilItIsTaken)
{
    const Signals signals;
    EXPECT_FALSE(IsReadable(signals.Fd()));
    EXPECT_EQ(signals.Take(), 0);

    ::raise(SIGTERM);
    EXPECT_TRUE(IsReadable(signals.Fd()));
    EXPECT_EQ(signals.Take(), SIGTERM);
    EXPECT_FALSE(IsReadable(signals.Fd()));
}

TEST(SignalsTest, ASignalThatWasInheritedAsIgnoredComesAllTheSame)
{
    struct sigaction ignore = {};
    struct sigaction before = {};
    ignore.sa_handler = SIG_IGN;
    ::sigaction(SIGINT, &ignore, &before);
    {
        const Signals signals;
        ::raise(SIGINT);
        EXPECT_EQ(signals.Take(), SIGINT);
    }
    ::sigaction(SIGINT, &before, nullptr);
}

TEST(SignalsTest, WritingToNobodyFailsAndWhatWasBeforeComesBack)
{
    struct sigaction after = {};
    {
        const Signals signals;
        Pipe pipe;
        pipe.mReadEnd.Reset();
        EXPECT_EQ(::write(pipe.mWriteEnd.Get(), "x", 1), -1);
        EXPECT_EQ(errno, EPIPE);
    }
    ::sigaction(SIGPIPE, nullptr, &after);
    EXPECT_EQ(after.sa_handler, SIG_DFL);
}

TEST(SignalsTest, WhatNobodyHasTakenByTheEndIsDropped)
{
    {
        const Signals signals;
        ::raise(SIGTERM);
    }
    SUCCEED() << "this process goes on";
}

TEST(SignalsDeathTest, TheProcessCanDieByTheSignal)
{
    const auto die = [] {
        const Signals signals;
        ::raise(SIGTERM);
        Signals::Die(signals.Take());
    };
    EXPECT_EXIT(die(), testing::KilledBySignal(SIGTERM), "");
}

} // namespace
} // namespace Parvane
