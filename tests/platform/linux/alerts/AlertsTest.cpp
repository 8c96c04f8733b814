#include "Alerts.h"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "FakeBusParts.h"
#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

class CountedEvents : public LifecycleEvents
{
public:
    void OnLowMemory() override { ++mLowMemory; }
    void OnLowBattery() override { ++mLowBattery; }
    void OnQuit() override {}

    int mLowMemory = 0;
    int mLowBattery = 0;
};

} // namespace

/** A machine whose files are in a directory and whose services are on a fake bus. */
class AlertsTest : public testing::Test
{
protected:
    AlertsTest()
    {
        mSettings.mMemory.mPressureFile = mDirectory / "pressure";
        mSettings.mBattery.mRoot = mDirectory.Path();
    }

    void MakePressureFile() const { WriteFile(mDirectory / "pressure", ""); }

    void MakeBattery(const std::string &capacity) const
    {
        std::filesystem::create_directories(mDirectory / "BAT0");
        WriteFile(mDirectory / "BAT0/type", "Battery\n");
        WriteFile(mDirectory / "BAT0/status", "Discharging\n");
        WriteFile(mDirectory / "BAT0/capacity", capacity + "\n");
    }

    Alerts Make() { return {mSettings, mClock, mEvents, &mBus}; }

    TemporaryDirectory mDirectory;
    Settings mSettings;
    SystemClock mClock;
    CountedEvents mEvents;
    FakeBusParts mBus;
};

TEST_F(AlertsTest, NothingIsMadeThatIsNotAskedFor)
{
    MakePressureFile();
    MakeBattery("1");
    StderrCapture capture;
    const Alerts alerts(mSettings, mClock, mEvents, nullptr);
    EXPECT_TRUE(alerts.Memory().empty());
    EXPECT_TRUE(alerts.Battery().empty());
    EXPECT_EQ(NextWakeMs(), -1);
    EXPECT_EQ(capture.Take(), "");
}

TEST_F(AlertsTest, ServicesOfTheBusComeFirst)
{
    MakePressureFile();
    MakeBattery("50");
    mSettings.mMemory.mMonitor = MemorySettings::Monitor::Auto;
    mSettings.mBattery.mMonitor = BatterySettings::Monitor::Auto;
    StderrCapture capture;
    const Alerts alerts = Make();
    ASSERT_EQ(alerts.Memory().size(), 1U);
    EXPECT_STREQ(alerts.Memory()[0]->Name(), "glib");
    ASSERT_EQ(alerts.Battery().size(), 1U);
    EXPECT_STREQ(alerts.Battery()[0]->Name(), "upower");
    EXPECT_EQ(capture.Take(), "I platform: memory: watched by glib\n"
                              "I platform: battery: watched by upower\n");
}

TEST_F(AlertsTest, FilesServeWhereTheServicesAreNot)
{
    MakePressureFile();
    MakeBattery("50");
    mBus.mHasServices = false;
    mSettings.mMemory.mMonitor = MemorySettings::Monitor::Auto;
    mSettings.mBattery.mMonitor = BatterySettings::Monitor::Auto;
    StderrCapture capture;
    const Alerts alerts = Make();
    ASSERT_EQ(alerts.Memory().size(), 1U);
    EXPECT_STREQ(alerts.Memory()[0]->Name(), "pressure");
    ASSERT_EQ(alerts.Battery().size(), 1U);
    EXPECT_STREQ(alerts.Battery()[0]->Name(), "sysfs");
    EXPECT_EQ(capture.Take(), "I platform: memory: watched by pressure\n"
                              "I platform: battery: watched by sysfs\n");
}

TEST_F(AlertsTest, MonitorsThatHaveNothingToWatchYetAreKept)
{
    mBus.mHasServices = false;
    mSettings.mMemory.mMonitor = MemorySettings::Monitor::Auto;
    mSettings.mBattery.mMonitor = BatterySettings::Monitor::UPower;
    StderrCapture capture;
    const Alerts alerts = Make();
    EXPECT_EQ(alerts.Memory().size(), 2U);
    ASSERT_EQ(alerts.Battery().size(), 1U);
    EXPECT_EQ(capture.Take(), "W platform: memory: no events from " + (mDirectory / "pressure") +
                                  ": No such file or directory\n"
                                  "W platform: memory: nothing here tells when it is low\n"
                                  "W platform: battery: nothing here tells when it is low\n");
    mBus.mMemoryAlert();
    mBus.mBatteryAlert();
    EXPECT_EQ(mEvents.mLowMemory, 1);
    EXPECT_EQ(mEvents.mLowBattery, 1);
}

TEST_F(AlertsTest, OneThatIsNamedIsTheOnlyOne)
{
    MakePressureFile();
    MakeBattery("50");
    mSettings.mMemory.mMonitor = MemorySettings::Monitor::Pressure;
    mSettings.mBattery.mMonitor = BatterySettings::Monitor::Sysfs;
    const StderrCapture quiet;
    const Alerts alerts(mSettings, mClock, mEvents, nullptr);
    ASSERT_EQ(alerts.Memory().size(), 1U);
    EXPECT_STREQ(alerts.Memory()[0]->Name(), "pressure");
    ASSERT_EQ(alerts.Battery().size(), 1U);
    EXPECT_STREQ(alerts.Battery()[0]->Name(), "sysfs");
}

TEST_F(AlertsTest, EachAlertReachesItsOwnCallback)
{
    mSettings.mMemory.mMonitor = MemorySettings::Monitor::Glib;
    mSettings.mBattery.mMonitor = BatterySettings::Monitor::UPower;
    const StderrCapture quiet;
    const Alerts alerts = Make();
    mBus.mMemoryAlert();
    EXPECT_EQ(mEvents.mLowMemory, 1);
    EXPECT_EQ(mEvents.mLowBattery, 0);
    mBus.mBatteryAlert();
    EXPECT_EQ(mEvents.mLowMemory, 1);
    EXPECT_EQ(mEvents.mLowBattery, 1);
}

TEST_F(AlertsTest, WhatIsLowAtTheStartIsToldFromTheLoop)
{
    MakeBattery("1");
    mSettings.mBattery.mMonitor = BatterySettings::Monitor::Sysfs;
    const StderrCapture quiet;
    const Alerts alerts = Make();
    EXPECT_EQ(mEvents.mLowBattery, 0);
    RunWhileBusy();
    EXPECT_EQ(mEvents.mLowBattery, 1);
}

} // namespace ParvanePlatform
