#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "PrivateBus.h"
#include "ServiceFixture.h"

using ParvanePlatform::PrivateBus;
using ParvanePlatform::SilentBus;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

constexpr char kNoInhibitor[] = "([],)";
// A measuring period takes 15 seconds, the lock for it 16.
constexpr std::chrono::seconds kMeasurement(40);

} // namespace

/** The service on a device whose power, memory, battery and adapter others look after. */
class PowerTest : public ServiceFixture
{
protected:
    void SetUp() override
    {
        if (const std::string reason = PrivateBus::WhyNot(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        mBus = std::make_unique<PrivateBus>();
    }

    void StartConfigured()
    {
        // Files in the place of the kernel's: what this machine has must not decide.
        const std::string folder = mFolder.Path().string();
        const std::filesystem::path file = mFolder.Path() / "platform.conf";
        WriteFile(file, "[power]\nlock=auto\nroot=" + folder +
                            "/power\n"
                            "[memory]\nmonitor=auto\npressure_file=" +
                            folder +
                            "/pressure\n"
                            "[battery]\nmonitor=auto\nroot=" +
                            folder +
                            "/supplies\n"
                            "[bluetooth]\nadapter=bluez\n");
        StartService({{"PARVANE_PLATFORM_CONF", file.string()},
                      {"DBUS_SYSTEM_BUS_ADDRESS", mBus->Address()},
                      {"PARVANE_BT_ADDRESS", ""}});
        ASSERT_TRUE(mService->HasLogged("app_create"));
    }

    std::string Inhibitors() const
    {
        return mBus->Call("org.freedesktop.login1", "/org/freedesktop/login1",
                          "org.freedesktop.login1.Manager", "ListInhibitors");
    }

    void WarnOfLowMemory() const
    {
        mBus->Call("org.freedesktop.LowMemoryMonitor", "/org/freedesktop/LowMemoryMonitor",
                   "org.freedesktop.DBus.Mock", "EmitWarning", "(byte 255,)");
    }

    void SetWarningLevel(int level) const
    {
        mBus->SetProperty("org.freedesktop.UPower", "/org/freedesktop/UPower/devices/DisplayDevice",
                          "org.freedesktop.UPower.Device", "WarningLevel",
                          "uint32 " + std::to_string(level));
    }

    std::unique_ptr<PrivateBus> mBus;
};

TEST_F(PowerTest, MeasurementKeepsTheDeviceAwakeUntilTheLocksTimeOut)
{
    const auto logind = mBus->Run("logind");
    StartConfigured();
    const Host host(LinkPath());
    EXPECT_EQ(Inhibitors(), kNoInhibitor);

    host.Send({0x02, 0x00, 0x00, 0x03});

    ASSERT_TRUE(Eventually([this] { return Inhibitors() != kNoInhibitor; }));
    EXPECT_THAT(Inhibitors(), HasSubstr("'sleep:idle', 'Parvane'"));
    EXPECT_NE(host.Receive(kMeasurement), std::nullopt);
    EXPECT_TRUE(Eventually([this] { return Inhibitors() == kNoInhibitor; }, kMeasurement));
    EXPECT_EQ(StopService(), 0);
}

TEST_F(PowerTest, EndOfTheServiceReleasesItsLocks)
{
    const auto logind = mBus->Run("logind");
    StartConfigured();
    const Host host(LinkPath());
    host.Send({0x02, 0x00, 0x00, 0x03});
    ASSERT_TRUE(Eventually([this] { return Inhibitors() != kNoInhibitor; }));

    mService->Signal(SIGKILL);

    EXPECT_TRUE(Eventually([this] { return Inhibitors() == kNoInhibitor; }));
}

TEST_F(PowerTest, LowMemoryEndsTheServiceInOrder)
{
    const auto monitor = mBus->Run("low_memory_monitor");
    StartConfigured();

    // The service listens some time after its start: warned until it hears.
    EXPECT_TRUE(Eventually([this] {
        WarnOfLowMemory();
        return mService->StandardError().find("app_low_memory") != std::string::npos;
    }));

    EXPECT_EQ(mService->WaitForEnd(), 0);
    EXPECT_THAT(mService->StandardError(), HasSubstr("app_low_memory(72) >  ###"));
    EXPECT_THAT(mService->StandardError(), HasSubstr("app_terminate(56) >  ###"));
}

TEST_F(PowerTest, LowBatteryEndsTheServiceInOrder)
{
    const auto upower = mBus->Run("upower");
    StartConfigured();

    SetWarningLevel(3);

    EXPECT_EQ(mService->WaitForEnd(), 0);
    EXPECT_THAT(mService->StandardError(), HasSubstr("app_low_battery(79) >  ###"));
    EXPECT_THAT(mService->StandardError(), HasSubstr("app_terminate(56) >  ###"));
}

TEST_F(PowerTest, BatteryThatIsLowAtTheStartEndsTheServiceInOrder)
{
    const auto upower = mBus->Run("upower");
    SetWarningLevel(5);
    StartConfigured();

    EXPECT_EQ(mService->WaitForEnd(), 0);
    EXPECT_THAT(mService->StandardError(), HasSubstr("app_low_battery(79) >  ###"));
}

TEST_F(PowerTest, WakeLockIsHeldWhereThereIsNoLogind)
{
    const std::filesystem::path folder = mFolder.Path() / "power";
    std::filesystem::create_directory(folder);
    WriteFile(folder / "wake_lock", "");
    WriteFile(folder / "wake_unlock", "");
    StartConfigured();
    const Host host(LinkPath());
    const std::string name = "parvane-" + std::to_string(mService->Pid()) + "-1";

    host.Send({0x02, 0x00, 0x00, 0x03});

    EXPECT_TRUE(
        Eventually([&] { return ReadFile(folder / "wake_lock") == name + " 17000000000"; }));
    EXPECT_EQ(ReadFile(folder / "wake_unlock"), "");
    EXPECT_EQ(StopService(), 0);
    EXPECT_EQ(ReadFile(folder / "wake_unlock"), name);
}

TEST_F(PowerTest, LowBatteryInTheKernelsFilesEndsTheServiceWhereThereIsNoUPower)
{
    const std::filesystem::path battery = mFolder.Path() / "supplies" / "BAT0";
    std::filesystem::create_directories(battery);
    WriteFile(battery / "type", "Battery\n");
    WriteFile(battery / "status", "Discharging\n");
    WriteFile(battery / "capacity", "4\n");
    StartConfigured();

    EXPECT_EQ(mService->WaitForEnd(), 0);
    EXPECT_THAT(mService->StandardError(), HasSubstr("app_low_battery(79) >  ###"));
}

TEST_F(PowerTest, ListHasTheAddressOfTheAdapter)
{
    const auto bluez = mBus->Run("bluez5");
    mBus->Call("org.bluez", "/", "org.bluez.Mock", "AddAdapter", "('hci0', 'watch')");
    StartConfigured();
    const Host host(LinkPath());

    const auto answers = host.Ask({0x01, 0x00, 0x00, 0x00}, 5);

    ASSERT_EQ(answers.size(), 5U);
    EXPECT_THAT(Bytes(answers[0].begin() + 6, answers[0].begin() + 12),
                ElementsAre(0x00, 0x01, 0x02, 0x03, 0x04, 0x05));
}

TEST_F(PowerTest, ServiceRunsWhereNothingOfThisIsThere)
{
    StartConfigured();
    const Host host(LinkPath());
    const auto answers = host.Ask({0x01, 0x00, 0x00, 0x00}, 5);
    ASSERT_EQ(answers.size(), 5U);
    EXPECT_THAT(Bytes(answers[0].begin() + 6, answers[0].begin() + 12),
                ElementsAre(0x00, 0x00, 0x00, 0x00, 0x00, 0x00));

    mBus->Stop();

    EXPECT_THAT(host.Ask({0x04, 0x00, 0x00, 0x01}, 1), ElementsAre(Bytes{0x04, 0x02, 0x00, 0x01}));
    EXPECT_EQ(StopService(), 0);
}

TEST_F(PowerTest, ServiceRunsOnABusThatNeverAnswers)
{
    mBus->Stop();
    const SilentBus silent(mBus->Folder() + "/bus");
    StartConfigured();
    const Host host(LinkPath());

    EXPECT_EQ(host.Ask({0x01, 0x00, 0x00, 0x00}, 5).size(), 5U);
    EXPECT_THAT(host.Ask({0x04, 0x00, 0x00, 0x01}, 1), ElementsAre(Bytes{0x04, 0x02, 0x00, 0x01}));

    EXPECT_EQ(StopService(), 0);
    EXPECT_THAT(mService->StandardError(), HasSubstr("system bus: it does not answer"));
}
