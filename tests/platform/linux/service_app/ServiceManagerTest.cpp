#include "ServiceManager.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Datagram.h"
#include "ScopedEnvironment.h"
#include "TestSupport.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

using Parvane::SendDatagram;

using testing::ElementsAre;
using testing::IsEmpty;

/** A manager's socket. */
class ServiceManagerTest : public testing::Test
{
protected:
    ServiceManagerTest() : mSocket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, Path().c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(bind(mSocket.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address),
                  0);
        mEnvironment.Set("NOTIFY_SOCKET", Path());
        mEnvironment.Set("WATCHDOG_USEC", std::nullopt);
        mEnvironment.Set("WATCHDOG_PID", std::nullopt);
    }

    std::string Path() const { return mDirectory / "notify"; }

    /** What the manager has been told since the last call. */
    std::vector<std::string> Told() const
    {
        std::vector<std::string> messages;
        char text[512];
        for (;;) {
            const ssize_t size = recv(mSocket.Get(), text, sizeof text, MSG_DONTWAIT);
            if (size < 0) {
                return messages;
            }
            messages.emplace_back(text, static_cast<std::size_t>(size));
        }
    }

    TemporaryDirectory mDirectory;
    Parvane::UniqueFd mSocket;
    ScopedEnvironment mEnvironment;
    ManualClock mClock;
    ManualTimer mTimer;
};

TEST_F(ServiceManagerTest, ManagerIsToldOfTheBeginningAndTheEnd)
{
    ServiceManager manager(mClock, mTimer);
    EXPECT_THAT(Told(), IsEmpty());

    manager.OnReady();
    EXPECT_THAT(Told(), ElementsAre("READY=1\nSTATUS=Serving"));
    EXPECT_FALSE(mTimer.mDueUs.has_value());

    manager.OnStopping();
    EXPECT_THAT(Told(), ElementsAre("STOPPING=1\nSTATUS=Ending"));
}

TEST_F(ServiceManagerTest, AbstractSocketIsReached)
{
    const Parvane::UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr family = {AF_UNIX, {}};
    // The kernel finds an abstract name that nobody has.
    ASSERT_EQ(bind(socket.Get(), &family, sizeof family.sa_family), 0);
    sockaddr_un address = {};
    socklen_t size = sizeof address;
    ASSERT_EQ(getsockname(socket.Get(), reinterpret_cast<sockaddr *>(&address), &size), 0);
    const std::string name(address.sun_path + 1, size - sizeof family.sa_family - 1);
    mEnvironment.Set("NOTIFY_SOCKET", "@" + name);
    ServiceManager(mClock, mTimer).OnStopping();
    char text[64] = {};
    EXPECT_GT(recv(socket.Get(), text, sizeof text - 1, MSG_DONTWAIT), 0);
    EXPECT_STREQ(text, "STOPPING=1\nSTATUS=Ending");
}

TEST_F(ServiceManagerTest, SignsOfLifeComeAtHalfTheIntervalUntilTheEnd)
{
    mEnvironment.Set("WATCHDOG_USEC", "3000000");
    mEnvironment.Set("WATCHDOG_PID", std::to_string(getpid()));
    ServiceManager manager(mClock, mTimer);
    EXPECT_FALSE(mTimer.mDueUs.has_value());
    mClock.mMonotonicUs = 100;
    manager.OnReady();
    EXPECT_EQ(mTimer.mDueUs, 1'500'100);
    EXPECT_EQ(Told().size(), 1U);

    mClock.mMonotonicUs = 1'600'000;
    mTimer.Fire();
    EXPECT_THAT(Told(), ElementsAre("WATCHDOG=1"));
    EXPECT_EQ(mTimer.mDueUs, 3'100'000);

    manager.OnStopping();
    EXPECT_FALSE(mTimer.mDueUs.has_value());
}

TEST_F(ServiceManagerTest, WatchdogOfAnotherProcessOrWithoutAnIntervalIsNone)
{
    mEnvironment.Set("WATCHDOG_USEC", "3000000");
    mEnvironment.Set("WATCHDOG_PID", std::to_string(getppid()));
    ServiceManager(mClock, mTimer).OnReady();
    EXPECT_FALSE(mTimer.mDueUs.has_value());

    mEnvironment.Set("WATCHDOG_PID", std::to_string(getpid()));
    for (const char *interval : {"0", "", "soon", "-1", "18446744073709551615"}) {
        mEnvironment.Set("WATCHDOG_USEC", interval);
        ServiceManager(mClock, mTimer).OnReady();
        EXPECT_FALSE(mTimer.mDueUs.has_value()) << interval;
    }
}

TEST_F(ServiceManagerTest, ExtremeIntervalsNeitherSpinNorOverflow)
{
    mEnvironment.Set("WATCHDOG_USEC", "1");
    ServiceManager(mClock, mTimer).OnReady();
    EXPECT_EQ(mTimer.mDueUs, 1000);

    mEnvironment.Set("WATCHDOG_USEC", "18446744073709551614");
    mClock.mMonotonicUs = 1;
    ServiceManager(mClock, mTimer).OnReady();
    EXPECT_EQ(mTimer.mDueUs, 31'536'000'000'001);
}

TEST_F(ServiceManagerTest, WithoutASocketNothingIsToldAndNoTimerIsSet)
{
    mEnvironment.Set("WATCHDOG_USEC", "3000000");
    for (const char *socket : {"", static_cast<const char *>(nullptr)}) {
        mEnvironment.Set("NOTIFY_SOCKET",
                         socket != nullptr ? std::optional<std::string>(socket) : std::nullopt);
        ServiceManager manager(mClock, mTimer);
        manager.OnReady();
        EXPECT_FALSE(mTimer.mDueUs.has_value());
        manager.OnStopping();
    }
    EXPECT_THAT(Told(), IsEmpty());
}

TEST_F(ServiceManagerTest, ManagerThatCannotBeReachedIsOneWarning)
{
    const std::pair<std::string, int> cases[] = {{mDirectory / "nobody", ENOENT},
                                                 {"relative/path", EINVAL},
                                                 {"@", EINVAL},
                                                 {'/' + std::string(200, 'x'), EINVAL}};
    for (const auto &[socket, error] : cases) {
        mEnvironment.Set("NOTIFY_SOCKET", socket);
        StderrCapture capture;
        ServiceManager(mClock, mTimer).OnReady();
        EXPECT_EQ(capture.Take(), "W platform: cannot tell the service manager: error " +
                                      std::to_string(error) + "\n");
    }
}

TEST_F(ServiceManagerTest, ManagerThatDoesNotReadIsLeftAloneAfterASecond)
{
    const Parvane::UniqueFd filler(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    while (SendDatagram(filler.Get(), Path(), "x", MSG_DONTWAIT) == 0) {
    }
    StderrCapture capture;
    ServiceManager(mClock, mTimer).OnStopping();
    EXPECT_EQ(capture.Take(), "W platform: cannot tell the service manager: error 11\n");
}

} // namespace ParvanePlatform
