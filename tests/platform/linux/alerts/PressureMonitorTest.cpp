#include "PressureMonitor.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

/**
 * Two ends of a connection over loopback: a byte out of band is an exceptional event at the other
 * end.
 */
class SocketPair
{
public:
    SocketPair()
    {
        const Parvane::UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto *const name = reinterpret_cast<sockaddr *>(&address);
        EXPECT_EQ(bind(listener.Get(), name, size), 0);
        EXPECT_EQ(listen(listener.Get(), 1), 0);
        EXPECT_EQ(getsockname(listener.Get(), name, &size), 0);
        mNear.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(connect(mNear.Get(), name, size), 0);
        mFar.Reset(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        EXPECT_TRUE(mFar);
    }

    /** The end that is watched, for another owner. */
    Parvane::UniqueFd CopyOfNear() const
    {
        return Parvane::UniqueFd(fcntl(mNear.Get(), F_DUPFD_CLOEXEC, 0));
    }

    void MakeEvent() const { EXPECT_EQ(send(mFar.Get(), "!", 1, MSG_OOB), 1); }

    /** The kernel's file forgets an event when it has told it; a socket has to be told to. */
    void TakeEvent() const
    {
        char byte = 0;
        EXPECT_EQ(recv(mNear.Get(), &byte, 1, MSG_OOB), 1);
    }

    /** Ends the connection with a reset: an error at the end that is watched. */
    void Break()
    {
        const linger now = {1, 0};
        EXPECT_EQ(setsockopt(mFar.Get(), SOL_SOCKET, SO_LINGER, &now, sizeof now), 0);
        mFar.Reset();
        pollfd near = {mNear.Get(), 0, 0};
        EXPECT_EQ(poll(&near, 1, 5000), 1);
    }

private:
    Parvane::UniqueFd mNear;
    Parvane::UniqueFd mFar;
};

constexpr char kPressureFile[] = "/proc/pressure/memory";

} // namespace

TEST(PressureMonitorTest, KernelTakesTheLimitAndNothingWakesTheLoop)
{
    const Parvane::UniqueFd file(open(kPressureFile, O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!file) {
        GTEST_SKIP() << kPressureFile << " cannot be opened on this machine";
    }
    constexpr char kLimit[] = "some 200000 2000000";
    if (write(file.Get(), kLimit, sizeof kLimit) < 0) {
        GTEST_SKIP() << kPressureFile << " takes no limit from this process";
    }
    PressureMonitor monitor{MemorySettings()};
    StderrCapture capture;
    EXPECT_TRUE(monitor.Start([] {}));
    EXPECT_EQ(NextWakeMs(), -1);
    EXPECT_EQ(capture.Take(), "");
    EXPECT_STREQ(monitor.Name(), "pressure");
}

TEST(PressureMonitorTest, LimitThatTheKernelRefusesIsNothingToWatch)
{
    if (access(kPressureFile, W_OK) != 0) {
        GTEST_SKIP() << kPressureFile << " cannot be written on this machine";
    }
    MemorySettings settings;
    settings.mStallMs = 3000; // longer than the window
    PressureMonitor monitor(settings);
    StderrCapture capture;
    EXPECT_FALSE(monitor.Start([] {}));
    EXPECT_EQ(capture.Take().rfind("W platform: memory: no events from /proc/pressure/memory: ", 0),
              0U);
}

TEST(PressureMonitorTest, LimitIsWrittenInMicrosecondsWithItsEnd)
{
    const TemporaryDirectory directory;
    MemorySettings settings;
    settings.mPressureFile = directory / "memory";
    settings.mStallMs = 150;
    settings.mWindowMs = 4000;
    WriteFile(settings.mPressureFile, "");
    PressureMonitor monitor(settings);
    EXPECT_TRUE(monitor.Start([] {}));
    EXPECT_EQ(ReadFile(settings.mPressureFile), std::string("some 150000 4000000\0", 20));
}

TEST(PressureMonitorTest, MissingFileIsNothingToWatchAndOneLine)
{
    const TemporaryDirectory directory;
    MemorySettings settings;
    settings.mPressureFile = directory / "memory";
    PressureMonitor monitor(settings);
    StderrCapture capture;
    EXPECT_FALSE(monitor.Start([] {}));
    EXPECT_EQ(capture.Take(), "W platform: memory: no events from " + settings.mPressureFile +
                                  ": No such file or directory\n");
}

TEST(PressureMonitorTest, RefusedWriteIsNothingToWatchAndOneLine)
{
    MemorySettings settings;
    settings.mPressureFile = "/dev/full";
    PressureMonitor monitor(settings);
    StderrCapture capture;
    EXPECT_FALSE(monitor.Start([] {}));
    EXPECT_EQ(capture.Take(),
              "W platform: memory: no events from /dev/full: No space left on device\n");
}

TEST(PressureMonitorTest, EachEventAlertsOnce)
{
    const SocketPair sockets;
    PressureMonitor monitor(MemorySettings(), [&sockets](const MemorySettings & /*settings*/) {
        return sockets.CopyOfNear();
    });
    int alerts = 0;
    ASSERT_TRUE(monitor.Start([&] {
        ++alerts;
        sockets.TakeEvent();
    }));
    StderrCapture capture;
    RunWhileBusy();
    EXPECT_EQ(alerts, 0);

    for (int expected = 1; expected <= 2; ++expected) {
        sockets.MakeEvent();
        EXPECT_TRUE(RunUntil([&] { return alerts == expected; }));
        RunWhileBusy();
        EXPECT_EQ(alerts, expected);
    }
    EXPECT_EQ(capture.Take(), "W platform: memory: low, says /proc/pressure/memory\n"
                              "W platform: memory: low, says /proc/pressure/memory\n");
}

TEST(PressureMonitorTest, FailureOfTheFileEndsTheWatchWithOneLineAndNoAlert)
{
    SocketPair sockets;
    PressureMonitor monitor(MemorySettings(), [&sockets](const MemorySettings & /*settings*/) {
        return sockets.CopyOfNear();
    });
    int alerts = 0;
    ASSERT_TRUE(monitor.Start([&alerts] { ++alerts; }));
    StderrCapture capture;
    sockets.Break();
    RunWhileBusy();
    EXPECT_EQ(alerts, 0);
    EXPECT_EQ(capture.Take(),
              "W platform: memory: no events from /proc/pressure/memory any more\n");
}

TEST(PressureMonitorTest, MonitorMayEndInItsAlert)
{
    const SocketPair sockets;
    std::unique_ptr<PressureMonitor> monitor = std::make_unique<PressureMonitor>(
        MemorySettings(), [&](const MemorySettings & /*unused*/) { return sockets.CopyOfNear(); });
    ASSERT_TRUE(monitor->Start([&monitor] { monitor.reset(); }));
    const StderrCapture quiet;
    sockets.MakeEvent();
    EXPECT_TRUE(RunUntil([&monitor] { return monitor == nullptr; }));
}

} // namespace ParvanePlatform
