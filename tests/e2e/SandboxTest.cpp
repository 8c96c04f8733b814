#include <csignal>

#include "ServiceFixture.h"

using ::testing::ContainsRegex;
using ::testing::HasSubstr;

namespace {

/** "daemon": any user that the system knows, because the bus asks for its groups. */
constexpr const char *kUser = "1";
constexpr unsigned kUserId = 1;
/** What the sandbox ends with when this machine has no means for it. */
constexpr int kCannotBuild = 77;

} // namespace

/** The real service inside of what the unit makes of the system. */
class SandboxTest : public ServiceFixture
{
protected:
    /** Starts a command in the sandbox; skips the test when there is none. */
    void StartInSandbox(const std::vector<std::string> &command, const Environment &more,
                        const std::string &sign)
    {
        std::filesystem::permissions(mFolder.Path(), std::filesystem::perms(0755));
        for (const auto &folder : {mStateDirectory, mRunDirectory}) {
            std::filesystem::create_directories(folder);
            ASSERT_EQ(chown(folder.c_str(), kUserId, kUserId), geteuid() == 0 ? 0 : -1);
        }
        std::vector<std::string> all = {SANDBOX_PROGRAM,          PARVANE_UNIT,           kUser,
                                        mStateDirectory.string(), mRunDirectory.string(), "--"};
        all.insert(all.end(), command.begin(), command.end());
        Environment environment = BaseEnvironment();
        environment["PATH"] = "/usr/sbin:/usr/bin:/sbin:/bin";
        for (const auto &[name, value] : more) {
            environment[name] = value;
        }
        mService = std::make_unique<Process>(all, environment, mFolder.Path());
        std::optional<int> status;
        ASSERT_TRUE(Eventually([&] {
            status = mService->WaitForEnd(std::chrono::seconds(0));
            return status || mService->StandardError().find(sign) != std::string::npos;
        })) << mService->StandardError();
        if (status == kCannotBuild) {
            GTEST_SKIP() << mService->StandardError();
        }
        ASSERT_FALSE(status) << mService->StandardError();
    }
};

TEST_F(SandboxTest, ServiceServesAndKeepsItsState)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the leak check at the end takes more than the unit allows";
#endif
    StartInSandbox({PARVANE_PROGRAM},
                   {{"PARVANE_TRACE", PARVANE_RECORDING}, {"PARVANE_SPEED", "300"}}, "app_service");
    if (IsSkipped() || HasFatalFailure()) {
        return;
    }
    const std::string status = ReadFile("/proc/" + std::to_string(mService->Pid()) + "/status");
    EXPECT_THAT(status, HasSubstr("Uid:\t1\t1\t1\t1\n"));
    EXPECT_THAT(status, HasSubstr("CapEff:\t0000000000000000\n"));
    EXPECT_THAT(status, HasSubstr("CapBnd:\t0000000000000000\n"));
    EXPECT_THAT(status, HasSubstr("NoNewPrivs:\t1\n"));
    EXPECT_THAT(status, HasSubstr("Seccomp:\t2\n"));

    {
        const Host host(LinkPath()); // root, who is known inside as well
        EXPECT_EQ(host.Ask({0x01, 0x00, 0x00, 0x00}, 5).size(), 5U);
        EXPECT_EQ(host.Ask({0x02, 0x00, 0x00, 0x02}, 3).size(), 3U);
    }

    EXPECT_EQ(StopService(), 0);
    EXPECT_FALSE(std::filesystem::exists(LinkPath()));
    EXPECT_GT(std::filesystem::file_size(mStateDirectory / "preferences.db"), 0U);
}

TEST_F(SandboxTest, SystemBusAndFilesOfTheKernelAreWithinReach)
{
    const std::string socket = (mFolder.Path() / "bus").string();
    WriteFile(
        mFolder.Path() / "bus.conf",
        "<busconfig><type>system</type><listen>unix:path=" + socket +
            "</listen><policy context=\"default\"><allow user=\"*\"/>"
            "<allow send_destination=\"*\"/><allow receive_sender=\"*\"/></policy></busconfig>");
    const std::string configuration = "--config-file=" + (mFolder.Path() / "bus.conf").string();
    const Process bus({"/usr/bin/dbus-daemon", configuration, "--nofork"}, {}, mFolder.Path());
    if (!Eventually([&] { return std::filesystem::exists(socket); }, std::chrono::seconds(5))) {
        GTEST_SKIP() << "this machine has no message bus: " << bus.StandardError();
    }

    StartInSandbox(
        {"/bin/sh", "-c",
         "gdbus call --system --dest org.freedesktop.DBus --object-path / --method "
         "org.freedesktop.DBus.GetConnectionUnixUser org.freedesktop.DBus; "
         "cat /proc/pressure/memory; test -d /sys/class && test -w /proc/pressure/memory && "
         "test ! -w /proc/sys/vm/swappiness && echo reached; echo done >&2; exec sleep 60"},
        {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + socket}}, "done");
    if (IsSkipped() || HasFatalFailure()) {
        return;
    }

    EXPECT_THAT(mService->StandardOutput(), HasSubstr("(uint32 0,)"));
    if (std::filesystem::exists("/proc/pressure/memory")) {
        EXPECT_THAT(mService->StandardOutput(), ContainsRegex("some avg10=[0-9.]+"));
        EXPECT_THAT(mService->StandardOutput(), HasSubstr("reached"));
    }
}
