#include "SysfsBatteryMonitor.h"

#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace ParvanePlatform {

/** A directory in the place of /sys/class/power_supply. */
class SysfsBatteryMonitorTest : public testing::Test
{
protected:
    SysfsBatteryMonitorTest()
    {
        auto timer = std::make_unique<ManualTimer>();
        mTimer = timer.get();
        BatterySettings settings;
        settings.mRoot = mRoot.Path();
        mMonitor = std::make_unique<SysfsBatteryMonitor>(settings, mClock, std::move(timer));
    }

    void Set(const std::string &supply, const std::string &attribute, const std::string &text) const
    {
        std::filesystem::create_directories(mRoot / supply);
        WriteFile(mRoot / (supply + '/' + attribute), text + '\n');
    }

    void SetBattery(const std::string &name, const std::string &status,
                    const std::string &capacity) const
    {
        Set(name, "type", "Battery");
        Set(name, "status", status);
        Set(name, "capacity", capacity);
    }

    bool Start()
    {
        const bool started = mMonitor->Start([this] { ++mAlerts; });
        RunWhileBusy();
        return started;
    }

    /** The log lines that one period makes. */
    std::string LogOfOnePeriod()
    {
        StderrCapture capture;
        mTimer->Fire();
        RunWhileBusy();
        return capture.Take();
    }

    TemporaryDirectory mRoot;
    ManualClock mClock;
    ManualTimer *mTimer = nullptr;
    std::unique_ptr<SysfsBatteryMonitor> mMonitor;
    int mAlerts = 0;
};

TEST_F(SysfsBatteryMonitorTest, EachCrossingBelowTheLimitAlertsOnce)
{
    SetBattery("BAT0", "Discharging", "5");
    EXPECT_TRUE(Start());
    EXPECT_EQ(mAlerts, 0);

    SetBattery("BAT0", "Discharging", "4");
    EXPECT_EQ(LogOfOnePeriod(), "W platform: battery: low, below 5 percent\n");
    EXPECT_EQ(mAlerts, 1);
    EXPECT_EQ(LogOfOnePeriod(), "");
    EXPECT_EQ(mAlerts, 1);

    SetBattery("BAT0", "Charging", "4");
    EXPECT_EQ(LogOfOnePeriod(), "");
    SetBattery("BAT0", "Discharging", "3");
    EXPECT_EQ(LogOfOnePeriod(), "W platform: battery: low, below 5 percent\n");
    EXPECT_EQ(mAlerts, 2);
}

TEST_F(SysfsBatteryMonitorTest, BatteryThatIsLowAtTheStartAlertsFromTheLoop)
{
    SetBattery("BAT0", "Discharging", "0");
    const StderrCapture quiet;
    EXPECT_TRUE(mMonitor->Start([this] { ++mAlerts; }));
    EXPECT_EQ(mAlerts, 0);
    RunWhileBusy();
    EXPECT_EQ(mAlerts, 1);
}

TEST_F(SysfsBatteryMonitorTest, BatteryThatDoesNotDischargeIsNotLow)
{
    for (const char *status : {"Charging", "Full", "Not charging", "Unknown"}) {
        SetBattery("BAT0", status, "1");
        const StderrCapture quiet;
        EXPECT_TRUE(Start()) << status;
        EXPECT_EQ(mAlerts, 0) << status;
    }
}

TEST_F(SysfsBatteryMonitorTest, FilesAreReadOnceAPeriod)
{
    SetBattery("BAT0", "Discharging", "50");
    mClock.mMonotonicUs = 7;
    Start();
    EXPECT_EQ(mTimer->mDueUs, 60'000'007);
    mClock.mMonotonicUs = 60'000'009;
    LogOfOnePeriod();
    EXPECT_EQ(mTimer->mDueUs, 120'000'009);
}

TEST_F(SysfsBatteryMonitorTest, MachineIsLowWhenItsLastBatteryIs)
{
    SetBattery("BAT0", "Discharging", "3");
    SetBattery("BAT1", "Not charging", "80");
    EXPECT_TRUE(Start());
    EXPECT_EQ(mAlerts, 0);
    SetBattery("BAT0", "Not charging", "3");
    SetBattery("BAT1", "Discharging", "4");
    LogOfOnePeriod();
    EXPECT_EQ(mAlerts, 1);
}

TEST_F(SysfsBatteryMonitorTest, MainsPeripheralsAndEmptyBaysAreNotCounted)
{
    Set("AC", "type", "Mains");
    Set("AC", "online", "0");
    SetBattery("mouse", "Discharging", "1");
    Set("mouse", "scope", "Device");
    SetBattery("BAT1", "Discharging", "1");
    Set("BAT1", "present", "0");
    StderrCapture capture;
    EXPECT_FALSE(Start());
    EXPECT_EQ(mAlerts, 0);
    EXPECT_EQ(capture.Take(), "W platform: battery: there is none in " + mRoot.Path() + "\n");
}

TEST_F(SysfsBatteryMonitorTest, BatteryThatComesLaterIsWatched)
{
    std::filesystem::remove(mRoot.Path());
    StderrCapture capture;
    EXPECT_FALSE(Start());
    EXPECT_EQ(capture.Take(), "W platform: battery: there is none in " + mRoot.Path() + "\n");
    SetBattery("BAT0", "Discharging", "2");
    EXPECT_EQ(LogOfOnePeriod(), "I platform: battery: " + mRoot.Path() +
                                    " can be read again\n"
                                    "W platform: battery: low, below 5 percent\n");
    EXPECT_EQ(mAlerts, 1);
}

TEST_F(SysfsBatteryMonitorTest, BatteryThatGoesAndReturnsAlertsOncePerCrossing)
{
    SetBattery("BAT0", "Discharging", "2");
    {
        const StderrCapture quiet;
        Start();
    }
    std::filesystem::remove_all(mRoot / "BAT0");
    EXPECT_EQ(LogOfOnePeriod(), "W platform: battery: there is none in " + mRoot.Path() + "\n");
    EXPECT_EQ(LogOfOnePeriod(), "");
    SetBattery("BAT0", "Discharging", "2");
    EXPECT_EQ(LogOfOnePeriod(), "I platform: battery: " + mRoot.Path() + " can be read again\n");
    EXPECT_EQ(mAlerts, 1);
}

TEST_F(SysfsBatteryMonitorTest, GarbageIsOneLinePerChangeAndNoAlert)
{
    SetBattery("BAT0", "Discharging", "50");
    Start();
    const std::string battery = mRoot / "BAT0";
    const std::string notOne = "W platform: battery: " + battery + "/capacity is no percentage\n";
    SetBattery("BAT0", "Discharging", "-1");
    EXPECT_EQ(LogOfOnePeriod(), notOne);
    for (const char *capacity : {"", "101", "4 ", "4x", "0x4", "99999999999999999999"}) {
        SetBattery("BAT0", "Discharging", capacity);
        EXPECT_EQ(LogOfOnePeriod(), "") << capacity;
    }
    std::filesystem::remove(battery + "/capacity");
    EXPECT_EQ(LogOfOnePeriod(), "W platform: battery: " + battery + "/capacity cannot be read\n");
    SetBattery("BAT0", "Exploding", "4");
    EXPECT_EQ(LogOfOnePeriod(),
              "W platform: battery: " + battery + "/status is none of the kernel's\n");
    std::filesystem::remove(battery + "/status");
    EXPECT_EQ(LogOfOnePeriod(), "W platform: battery: " + battery + "/status cannot be read\n");
    EXPECT_EQ(mAlerts, 0);
}

TEST_F(SysfsBatteryMonitorTest, UnreadableBatteryDoesNotHideALowOne)
{
    SetBattery("BAT0", "Discharging", "nonsense");
    SetBattery("BAT1", "Discharging", "4");
    const StderrCapture quiet;
    EXPECT_TRUE(Start());
    EXPECT_EQ(mAlerts, 1);
}

TEST_F(SysfsBatteryMonitorTest, MonitorMayEndInItsAlert)
{
    SetBattery("BAT0", "Discharging", "50");
    ASSERT_TRUE(mMonitor->Start([this] { mMonitor.reset(); }));
    SetBattery("BAT0", "Discharging", "4");
    const StderrCapture quiet;
    mTimer->Fire();
    EXPECT_EQ(mMonitor, nullptr);
}

} // namespace ParvanePlatform
