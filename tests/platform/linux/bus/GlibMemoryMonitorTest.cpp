#include "bus/module/GlibMemoryMonitor.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "linux/bus/BusTest.h"

namespace ParvanePlatform {

namespace {

constexpr char kService[] = "org.freedesktop.LowMemoryMonitor";

} // namespace

/** GLib's monitor and a mocked low-memory service. */
class GlibMemoryMonitorTest : public BusTest
{
protected:
    void SetUp() override
    {
        BusTest::SetUp();
        mMonitor = std::make_unique<GlibMemoryMonitor>();
    }

    void TearDown() override
    {
        RunWhileBusy();
        mMonitor.reset();
        if (mBus) {
            // GLib has one connection for the process: the next test needs one of its own.
            mBus->Stop();
            EXPECT_TRUE(Eventually([] { return !HasSharedConnection(); }));
        }
    }

    static bool HasSharedConnection()
    {
        return GObjectPtr<GDBusConnection>(g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr)) !=
               nullptr;
    }

    bool Start()
    {
        return mMonitor->Start([this] { ++mAlerts; });
    }

    void Warn(int level) const
    {
        mBus->Call(kService, "/org/freedesktop/LowMemoryMonitor", "org.freedesktop.DBus.Mock",
                   "EmitWarning", "(byte " + std::to_string(level) + ",)");
    }

    /** GLib listens some time after it has been asked to: warns until it is heard. */
    bool IsHeard()
    {
        const int before = mAlerts;
        return Eventually([this, before] {
            Warn(50);
            return mAlerts > before;
        });
    }

    std::unique_ptr<GlibMemoryMonitor> mMonitor;
    int mAlerts = 0;
};

TEST_F(GlibMemoryMonitorTest, WarningsFromTheLowestLevelOnAlert)
{
    const auto service = mBus->Run("low_memory_monitor");
    StderrCapture capture;
    ASSERT_TRUE(Start());
    ASSERT_TRUE(IsHeard());
    RunWhileBusy();
    for (const int level : {100, 255}) {
        const int before = mAlerts;
        Warn(level);
        EXPECT_TRUE(RunUntil([this, before] { return mAlerts == before + 1; })) << level;
    }
    EXPECT_NE(capture.Take().find("W platform: memory: low, warning level 255\n"),
              std::string::npos);
}

TEST_F(GlibMemoryMonitorTest, WhatIsBelowTheLowestLevelDoesNotAlert)
{
    const auto service = mBus->Run("low_memory_monitor");
    const StderrCapture quiet;
    ASSERT_TRUE(Start());
    ASSERT_TRUE(IsHeard());
    RunWhileBusy();
    const int before = mAlerts;
    Warn(49);
    Warn(255);
    EXPECT_TRUE(RunUntil([this, before] { return mAlerts > before; }));
    RunWhileBusy();
    EXPECT_EQ(mAlerts, before + 1);
}

TEST_F(GlibMemoryMonitorTest, MachineWithoutTheServiceHasNothingToWatch)
{
    EXPECT_FALSE(Start());
}

TEST_F(GlibMemoryMonitorTest, ServiceThatTheBusCanStartIsThere)
{
    mBus->Stop();
    mBus->AddStartable(kService);
    mBus->Start();
    EXPECT_TRUE(Start());
}

TEST_F(GlibMemoryMonitorTest, ServiceThatComesLaterIsHeard)
{
    ASSERT_FALSE(Start());
    const auto service = mBus->Run("low_memory_monitor");
    const StderrCapture quiet;
    EXPECT_TRUE(IsHeard());
}

TEST_F(GlibMemoryMonitorTest, ServiceThatGoesAndReturnsIsHeard)
{
    auto service = mBus->Run("low_memory_monitor");
    ASSERT_TRUE(Start());
    const StderrCapture quiet;
    ASSERT_TRUE(IsHeard());
    service.reset();
    service = mBus->Run("low_memory_monitor");
    EXPECT_TRUE(IsHeard());
}

TEST_F(GlibMemoryMonitorTest, LossOfTheBusEndsNothingAndItsReturnIsHeard)
{
    auto service = mBus->Run("low_memory_monitor");
    ASSERT_TRUE(Start());
    const StderrCapture quiet;
    ASSERT_TRUE(IsHeard());
    mBus->Stop();
    service.reset();
    ASSERT_TRUE(Eventually([] { return !HasSharedConnection(); }));
    mBus->Start();
    service = mBus->Run("low_memory_monitor");
    EXPECT_TRUE(IsHeard());
}

TEST_F(GlibMemoryMonitorTest, NoBusIsNothingToWatch)
{
    mBus->Stop();
    EXPECT_FALSE(Start());
}

} // namespace ParvanePlatform
