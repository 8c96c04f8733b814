#include "UPowerMonitor.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "BusCalls.h"
#include "BusTest.h"
#include "Clock.h"

namespace ParvanePlatform {

namespace {

constexpr char kService[] = "org.freedesktop.UPower";

} // namespace

/** The display device of a mocked UPower. */
class UPowerMonitorTest : public BusTest
{
protected:
    bool Start()
    {
        return mMonitor->Start([this] { ++mAlerts; });
    }

    void SetLevel(int level) const
    {
        mBus->SetProperty(kService, "/org/freedesktop/UPower/devices/DisplayDevice",
                          "org.freedesktop.UPower.Device", "WarningLevel",
                          "uint32 " + std::to_string(level));
    }

    /** Lets the monitor get to where it listens, which takes it a few answers. */
    void Settle()
    {
        for (int i = 0; i < 5; ++i) {
            const Parvane::VariantPtr reply(g_dbus_connection_call_sync(
                mSystemBus->Connection(), kService, "/", "org.freedesktop.DBus.Peer", "Ping",
                nullptr, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, nullptr));
            ASSERT_NE(reply, nullptr);
            RunWhileBusy();
        }
    }

    bool Alerts(int expected)
    {
        return RunUntil([this, expected] { return mAlerts == expected; });
    }

    SystemClock mClock;
    std::shared_ptr<SystemBus> mSystemBus = std::make_shared<SystemBus>();
    std::unique_ptr<UPowerMonitor> mMonitor =
        std::make_unique<UPowerMonitor>(mSystemBus, mClock, std::make_unique<LoopTimer>());
    int mAlerts = 0;
};

TEST_F(UPowerMonitorTest, EachChangeToLowAlertsOnce)
{
    const auto upower = mBus->Run("upower");
    StderrCapture capture;
    ASSERT_TRUE(Start());
    Settle();
    for (int round = 1; round <= 2; ++round) {
        for (const int level : {3, 4, 5, 1}) {
            SetLevel(level);
        }
        EXPECT_TRUE(Alerts(round));
        RunWhileBusy();
        EXPECT_EQ(mAlerts, round);
    }
    EXPECT_EQ(capture.Take(), "W platform: battery: low, warning level 3\n"
                              "W platform: battery: low, warning level 3\n");
}

TEST_F(UPowerMonitorTest, OtherLevelsAreNotLow)
{
    const auto upower = mBus->Run("upower");
    const StderrCapture quiet;
    ASSERT_TRUE(Start());
    Settle();
    for (const int level : {0, 1, 2, 6, 1000}) {
        SetLevel(level);
    }
    SetLevel(5); // the last: what came before it has been seen then
    EXPECT_TRUE(Alerts(1));
}

TEST_F(UPowerMonitorTest, BatteryThatIsLowAtTheStartAlertsFromTheLoop)
{
    const auto upower = mBus->Run("upower");
    SetLevel(4);
    const StderrCapture quiet;
    ASSERT_TRUE(Start());
    EXPECT_EQ(mAlerts, 0);
    EXPECT_TRUE(Alerts(1));
}

TEST_F(UPowerMonitorTest, MachineWithoutUPowerHasNothingToWatch)
{
    EXPECT_FALSE(Start());
}

TEST_F(UPowerMonitorTest, UPowerThatComesLaterIsHeard)
{
    const StderrCapture quiet;
    ASSERT_FALSE(Start());
    const auto upower = mBus->Run("upower");
    SetLevel(3);
    EXPECT_TRUE(Alerts(1));
}

TEST_F(UPowerMonitorTest, UPowerThatTheBusCanStartIsThere)
{
    mBus->Stop();
    mBus->AddStartable(kService);
    mBus->Start();
    const StderrCapture quiet;
    EXPECT_TRUE(Start());
}

TEST_F(UPowerMonitorTest, UPowerThatGoesAndReturnsAlertsForANewChangeOnly)
{
    auto upower = mBus->Run("upower");
    StderrCapture capture;
    ASSERT_TRUE(Start());
    SetLevel(3);
    ASSERT_TRUE(Alerts(1));
    upower.reset();
    upower = mBus->Run("upower");
    SetLevel(3);
    Settle();
    SetLevel(1);
    SetLevel(4);
    EXPECT_TRUE(Alerts(2));
    RunWhileBusy();
    EXPECT_EQ(mAlerts, 2);
    EXPECT_EQ(capture.Take(), "W platform: battery: low, warning level 3\n"
                              "W platform: battery: UPower is not there\n"
                              "I platform: battery: UPower is there again\n"
                              "W platform: battery: low, warning level 4\n");
}

TEST_F(UPowerMonitorTest, BusThatGoesAndReturnsIsHeardAgain)
{
    auto upower = mBus->Run("upower");
    const StderrCapture quiet;
    ASSERT_TRUE(Start());
    SetLevel(3);
    ASSERT_TRUE(Alerts(1));
    SetLevel(1);
    Settle();
    mBus->Stop();
    upower.reset();
    mBus->Start();
    upower = mBus->Run("upower");
    SetLevel(3);
    EXPECT_TRUE(Alerts(2));
}

TEST_F(UPowerMonitorTest, NoBusIsNothingToWatchUntilThereIsOne)
{
    mBus->Stop();
    const StderrCapture quiet;
    EXPECT_FALSE(Start());
    mBus->Start();
    const auto upower = mBus->Run("upower");
    SetLevel(3);
    EXPECT_TRUE(Alerts(1));
}

TEST_F(UPowerMonitorTest, LevelThatIsNoNumberIsIgnored)
{
    const auto upower = mBus->Run("upower");
    const StderrCapture quiet;
    ASSERT_TRUE(Start());
    Settle();
    mBus->SetProperty(kService, "/org/freedesktop/UPower/devices/DisplayDevice",
                      "org.freedesktop.UPower.Device", "WarningLevel", "'high'");
    SetLevel(3);
    EXPECT_TRUE(Alerts(1));
}

TEST_F(UPowerMonitorTest, LevelThatSomebodyElseTellsDoesNotCount)
{
    const auto upower = mBus->Run("upower");
    StderrCapture capture;
    ASSERT_TRUE(Start());
    Settle();
    SystemBus stranger;
    ASSERT_NE(stranger.Connection(), nullptr);
    GVariant *changed = g_variant_new_parsed(
        "('org.freedesktop.UPower.Device', {'WarningLevel': <uint32 5>}, @as [])");
    ASSERT_TRUE(g_dbus_connection_emit_signal(
        stranger.Connection(), g_dbus_connection_get_unique_name(mSystemBus->Connection()),
        "/org/freedesktop/UPower/devices/DisplayDevice", "org.freedesktop.DBus.Properties",
        "PropertiesChanged", changed, nullptr));
    Parvane::FlushBus(stranger.Connection(), kLongestWaitMs);

    SetLevel(3);

    EXPECT_TRUE(Alerts(1));
    EXPECT_EQ(capture.Take(), "W platform: battery: low, warning level 3\n");
}

TEST_F(UPowerMonitorTest, MonitorMayEndInItsAlert)
{
    const auto upower = mBus->Run("upower");
    SetLevel(3);
    const StderrCapture quiet;
    ASSERT_TRUE(mMonitor->Start([this] { mMonitor.reset(); }));
    EXPECT_TRUE(RunUntil([this] { return mMonitor == nullptr; }));
    RunWhileBusy();
}

TEST_F(UPowerMonitorTest, MonitorMayEndBeforeTheAnswer)
{
    const auto upower = mBus->Run("upower");
    upower->Pause();
    const StderrCapture quiet;
    ASSERT_TRUE(Start());
    RunWhileBusy();
    mMonitor.reset();
    upower->Resume();
    SetLevel(3);
    RunWhileBusy();
    EXPECT_EQ(mAlerts, 0);
}

} // namespace ParvanePlatform
