#include "GlibMemoryMonitor.h"

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "BusCalls.h"
#include "BusScope.h"
#include "BusTest.h"
#include "Clock.h"

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
        ASSERT_TRUE(!mBus || IsSharedConnectionFresh());
        MakeMonitor();
    }

    void TearDown() override
    {
        RunWhileBusy();
        mMonitor.reset();
    }

    void MakeMonitor()
    {
        mMonitor = std::make_unique<GlibMemoryMonitor>(std::make_shared<SystemBus>(), mClock,
                                                       std::make_unique<LoopTimer>());
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

    /** Warns, and waits until this process has got the last warning. */
    void WarnAndWait(const std::vector<int> &levels)
    {
        const Parvane::ObjectPtr<GDBusConnection> connection(
            g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
        ASSERT_NE(connection, nullptr);
        int got = 0;
        Parvane::BusScope service(connection.get(), kService);
        service.Subscribe({kService, "LowMemoryWarning", "(y)"},
                          [&got](const std::string & /*path*/, GVariant *arguments) {
                              guchar level = 0;
                              g_variant_get(arguments, "(y)", &level);
                              got = level;
                          });
        // An answer of the bus: it has the subscription then.
        ASSERT_TRUE(IsServiceThere(connection.get(), kService));
        for (const int level : levels) {
            Warn(level);
        }
        EXPECT_TRUE(RunUntil([&] { return got == levels.back(); }));
        RunWhileBusy();
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

    SystemClock mClock;
    std::unique_ptr<GlibMemoryMonitor> mMonitor;
    int mAlerts = 0;
};

TEST_F(GlibMemoryMonitorTest, WarningsFromTheLowestLevelOnAlert)
{
    const auto service = mBus->Run("low_memory_monitor");
    StderrCapture capture;
    ASSERT_TRUE(Start());
    ASSERT_TRUE(IsHeard());
    const int before = mAlerts;
    WarnAndWait({49, 51, 255});
    EXPECT_GE(mAlerts, before + 2);
    const std::string log = capture.Take();
    EXPECT_EQ(log.find("level 49\n"), std::string::npos) << log;
    EXPECT_NE(log.find("W platform: memory: low, warning level 51\n"
                       "W platform: memory: low, warning level 255\n"),
              std::string::npos)
        << log;
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
    mBus->Start();
    service = mBus->Run("low_memory_monitor");
    EXPECT_TRUE(IsHeard());
}

TEST_F(GlibMemoryMonitorTest, BusThatDiesWhileGlibBeginsToListenLeavesNobodyDeaf)
{
    const StderrCapture quiet;
    // One more turn of the loop each time, until GLib has all that it asks the bus for.
    for (int turns = 0; turns < 10; ++turns) {
        SCOPED_TRACE(turns);
        auto service = mBus->Run("low_memory_monitor");
        MakeMonitor();
        ASSERT_TRUE(Start());
        for (int turn = 0; turn < turns; ++turn) {
            const Parvane::LoopSource tick =
                Parvane::LoopSource::At(g_get_monotonic_time() + 20'000, [] {});
            g_main_context_iteration(nullptr, TRUE);
        }
        mBus->Pause();
        RunWhileBusy(); // what is asked now is never answered

        mBus->Stop();
        service.reset();
        mBus->Start();

        service = mBus->Run("low_memory_monitor");
        ASSERT_TRUE(IsHeard());
    }
}

TEST_F(GlibMemoryMonitorTest, MonitorMayEndInItsAlert)
{
    const auto service = mBus->Run("low_memory_monitor");
    const StderrCapture quiet;
    ASSERT_TRUE(mMonitor->Start([this] { mMonitor.reset(); }));
    EXPECT_TRUE(Eventually([this] {
        Warn(50);
        return mMonitor == nullptr;
    }));
}

TEST_F(GlibMemoryMonitorTest, MonitorMayEndBeforeGlibListens)
{
    const auto service = mBus->Run("low_memory_monitor");
    const StderrCapture quiet;
    ASSERT_TRUE(Start());
    mMonitor.reset();
    WarnAndWait({255});
    EXPECT_EQ(mAlerts, 0);
}

TEST_F(GlibMemoryMonitorTest, BusThatNeverAnswersHoldsNobodyUp)
{
    mBus->Stop();
    const SilentBus silent(mBus->Folder() + "/bus");
    const StderrCapture quiet;
    const auto start = std::chrono::steady_clock::now();

    EXPECT_FALSE(Start());

    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST_F(GlibMemoryMonitorTest, NoBusIsNothingToWatch)
{
    mBus->Stop();
    EXPECT_FALSE(Start());
}

} // namespace ParvanePlatform
