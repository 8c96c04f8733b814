#include <cstring>
#include <filesystem>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "ServiceFixture.h"

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

/** A socket where the system bus would be; nobody answers on it. */
class SilentBus
{
public:
    explicit SilentBus(const std::filesystem::path &path)
        : mFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (mFd < 0 ||
            ::bind(mFd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            ::listen(mFd, 8) != 0) {
            throw std::system_error(errno, std::generic_category(), path.string());
        }
    }
    ~SilentBus() { ::close(mFd); }

    SilentBus(const SilentBus &) = delete;
    SilentBus &operator=(const SilentBus &) = delete;

    /** True when somebody has connected and was not counted yet. */
    bool WasCalled() const
    {
        const int connection = ::accept4(mFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection >= 0) {
            ::close(connection);
        }
        return connection >= 0;
    }

private:
    int mFd;
};

std::vector<std::string> Threads(pid_t pid)
{
    std::vector<std::string> threads;
    for (const auto &task :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        threads.push_back(task.path().filename());
    }
    return threads;
}

} // namespace

/** What a service that is not configured does not do: it loads, starts and connects nothing more. */
class DefaultRunTest : public ServiceFixture
{
protected:
    DefaultRunTest() : mBusPath(mFolder.Path() / "bus"), mBus(mBusPath) {}

    void Start()
    {
        StartService({{"PARVANE_TRACE", PARVANE_RECORDING},
                      {"PARVANE_SPEED", "100"},
                      {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + mBusPath.string()},
                      {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + mBusPath.string()}});
    }

    std::string Maps() const
    {
        return ReadFile("/proc/" + std::to_string(mService->Pid()) + "/maps");
    }

    std::filesystem::path mBusPath;
    SilentBus mBus;
};

TEST_F(DefaultRunTest, MeasuringTakesNoOtherThreadLibraryOrBus)
{
    Start();
    const Host host(LinkPath());
    ASSERT_THAT(host.Ask({0x01, 0x00, 0x00, 0x00}, 5), Not(IsEmpty()));
    // Heart rate takes a power lock, steps write a preference.
    host.Send({0x02, 0x00, 0x00, 0x03});
    ASSERT_TRUE(mService->HasLogged("power: "));
    ASSERT_THAT(host.Ask({0x02, 0x00, 0x00, 0x02}, 1), Not(IsEmpty()));

    EXPECT_EQ(Threads(mService->Pid()), std::vector{std::to_string(mService->Pid())});
    EXPECT_FALSE(mBus.WasCalled());
    const std::string maps = Maps();
    EXPECT_THAT(maps, HasSubstr("libparvane-platform.so"));
    for (const char *library :
         {"libgio-", "libgobject-", "libdbus-", "libsystemd", "parvane-platform-bus"}) {
        EXPECT_THAT(maps, Not(HasSubstr(library)));
    }
}
