#include <csignal>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "ServiceFixture.h"

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

namespace {

/** The socket of a service manager. */
class Manager
{
public:
    explicit Manager(std::string path)
        : mPath(std::move(path)), mFd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, mPath.c_str(), sizeof address.sun_path - 1);
        if (bind(mFd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
            throw std::runtime_error("cannot bind " + mPath);
        }
    }
    ~Manager() { close(mFd); }

    Manager(const Manager &) = delete;
    Manager &operator=(const Manager &) = delete;

    const std::string &Path() const { return mPath; }

    /** The next message; empty when none comes in time. */
    std::string Receive() const
    {
        pollfd wait = {mFd, POLLIN, 0};
        if (poll(&wait, 1, 20000) != 1) {
            return "";
        }
        char text[512];
        const ssize_t size = recv(mFd, text, sizeof text, 0);
        return size < 0 ? "" : std::string(text, static_cast<std::size_t>(size));
    }

    bool HasMessage() const
    {
        pollfd wait = {mFd, POLLIN, 0};
        return poll(&wait, 1, 0) == 1;
    }

private:
    std::string mPath;
    int mFd;
};

} // namespace

/** What a service manager hears of the real service. */
class NotifyTest : public ServiceFixture
{
protected:
    Manager mManager{(mFolder.Path() / "notify").string()};
};

TEST_F(NotifyTest, ManagerHearsOfReadinessAndOfTheEnd)
{
    StartService({{"NOTIFY_SOCKET", mManager.Path()}});

    EXPECT_THAT(mManager.Receive(), StartsWith("READY=1\n"));
    EXPECT_THAT(mService->StandardError(), HasSubstr("app_create(41)"));
    EXPECT_TRUE(std::filesystem::exists(LinkPath()));
    EXPECT_EQ(Host(LinkPath()).Ask({0x04, 0x00, 0x00, 0x01}, 1).size(), 1U);
    EXPECT_FALSE(mManager.HasMessage()); // no signs of life, which were not asked for

    EXPECT_EQ(StopService(), 0);
    EXPECT_THAT(mManager.Receive(), StartsWith("STOPPING=1\n"));
    EXPECT_FALSE(mManager.HasMessage());
}

TEST_F(NotifyTest, SignsOfLifeComeForAsLongAsTheLoopTurns)
{
    StartService({{"NOTIFY_SOCKET", mManager.Path()}, {"WATCHDOG_USEC", "100000"}});
    ASSERT_THAT(mManager.Receive(), StartsWith("READY=1\n"));
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(mManager.Receive(), "WATCHDOG=1");
    }

    mService->Signal(SIGTERM);

    std::string last = mManager.Receive();
    while (last == "WATCHDOG=1") {
        last = mManager.Receive();
    }
    EXPECT_THAT(last, StartsWith("STOPPING=1\n"));
    EXPECT_EQ(mService->WaitForEnd(), 0);
}

TEST_F(NotifyTest, WatchdogOfAnotherProcessIsNotAnswered)
{
    StartService({{"NOTIFY_SOCKET", mManager.Path()},
                  {"WATCHDOG_USEC", "1000"},
                  {"WATCHDOG_PID", std::to_string(getpid())}});
    ASSERT_THAT(mManager.Receive(), StartsWith("READY=1\n"));

    EXPECT_EQ(StopService(), 0);

    EXPECT_THAT(mManager.Receive(), StartsWith("STOPPING=1\n"));
}

TEST_F(NotifyTest, ServiceThatCannotStartIsNeverReady)
{
    StartService({{"NOTIFY_SOCKET", mManager.Path()}, {"PARVANE_SPEED", "fast"}});

    EXPECT_EQ(mService->WaitForEnd(), 1);
    while (mManager.HasMessage()) {
        EXPECT_THAT(mManager.Receive(), Not(HasSubstr("READY=1")));
    }
}
