#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "Alerts.h"
#include "BusParts.h"
#include "BusTest.h"
#include "Clock.h"
#include "PowerBackends.h"
#include "PowerLocks.h"
#include "ServiceLoop.h"

// NOLINTNEXTLINE(readability-identifier-naming): a name of C, like those of the interface
extern "C" ParvanePlatform::BusParts *parvane_make_bus_parts();

namespace ParvanePlatform {

namespace {

constexpr std::int64_t kBriefUs = 20'000;

} // namespace

/** The module's parts in the runtime's hands: the real loop of a service, mocked services. */
class BusModuleTest : public BusTest
{
protected:
    void SetUp() override
    {
        BusTest::SetUp();
        mParts.reset(parvane_make_bus_parts());
    }

    static bool OnCreate(void * /*userData*/) { return true; }
    static void OnNothing(void * /*userData*/) {}
    static void OnControl(app_control_h /*request*/, void * /*userData*/) {}
    static void OnLowMemory(void *userData) { Self(userData).End("low memory"); }
    static void OnLowBattery(void *userData) { Self(userData).End("low battery"); }

    static BusModuleTest &Self(void *userData) { return *static_cast<BusModuleTest *>(userData); }

    void End(const std::string &why)
    {
        mEnd = why;
        mLoop->Quit();
    }

    /** Runs a service that ends with the first alert; meanwhile calls `work` again and again. */
    void RunService(const Settings &settings, const std::function<void()> &work)
    {
        const StderrCapture quiet;
        const service_app_callbacks callbacks = {OnCreate, OnNothing, OnControl, OnLowMemory,
                                                 OnLowBattery};
        mLoop = std::make_unique<ServiceLoop>(callbacks, this);
        {
            const Alerts alerts(settings, mClock, *mLoop, mParts.get());
            const Parvane::LoopSource deadline = Parvane::LoopSource::At(
                mClock.MonotonicUs() + 20'000'000, [this] { End("nothing in twenty seconds"); });
            std::function<void()> again = [&] {
                mAgain = Parvane::LoopSource::At(mClock.MonotonicUs() + kBriefUs, [&] {
                    work();
                    again();
                });
            };
            again();
            mLoop->Run();
            mAgain.Remove();
        }
        mLoop.reset();
    }

    SystemClock mClock;
    std::unique_ptr<BusParts> mParts;
    std::unique_ptr<ServiceLoop> mLoop;
    Parvane::LoopSource mAgain;
    std::string mEnd;
};

TEST_F(BusModuleTest, WarningOfTheLowMemoryServiceEndsTheServiceThroughItsCallback)
{
    ASSERT_TRUE(IsSharedConnectionFresh());
    const auto service = mBus->Run("low_memory_monitor");
    Settings settings;
    settings.mMemory.mMonitor = MemorySettings::Monitor::Auto;
    settings.mMemory.mPressureFile = "/nonexistent";
    RunService(settings, [this] {
        mBus->Call("org.freedesktop.LowMemoryMonitor", "/org/freedesktop/LowMemoryMonitor",
                   "org.freedesktop.DBus.Mock", "EmitWarning", "(byte 100,)");
    });
    EXPECT_EQ(mEnd, "low memory");
}

TEST_F(BusModuleTest, WarningOfUPowerEndsTheServiceThroughItsCallback)
{
    const auto upower = mBus->Run("upower");
    Settings settings;
    settings.mBattery.mMonitor = BatterySettings::Monitor::Auto;
    RunService(settings, [this] {
        mBus->SetProperty("org.freedesktop.UPower", "/org/freedesktop/UPower/devices/DisplayDevice",
                          "org.freedesktop.UPower.Device", "WarningLevel", "uint32 4");
    });
    EXPECT_EQ(mEnd, "low battery");
}

TEST_F(BusModuleTest, BatteryThatIsLowBeforeTheServiceRunsEndsItThroughItsCallback)
{
    const auto upower = mBus->Run("upower");
    mBus->SetProperty("org.freedesktop.UPower", "/org/freedesktop/UPower/devices/DisplayDevice",
                      "org.freedesktop.UPower.Device", "WarningLevel", "uint32 5");
    Settings settings;
    settings.mBattery.mMonitor = BatterySettings::Monitor::UPower;
    RunService(settings, [] {});
    EXPECT_EQ(mEnd, "low battery");
}

TEST_F(BusModuleTest, PowerLockIsAnInhibitorUntilItsTimeOut)
{
    const auto logind = mBus->Run("logind");
    const auto inhibitors = [this] {
        return mBus->Call("org.freedesktop.login1", "/org/freedesktop/login1",
                          "org.freedesktop.login1.Manager", "ListInhibitors");
    };
    PowerSettings settings;
    settings.mLock = PowerSettings::Lock::Auto;
    PowerLocks locks(mClock, MakePowerBackends(settings, mParts.get()));
    const StderrCapture quiet;
    // Long enough to be seen before its end on a loaded machine.
    ASSERT_EQ(locks.Lock(2, 2000), 0);
    EXPECT_EQ(locks.List().at(0).mBackend, "logind");
    EXPECT_NE(inhibitors(), "([],)");
    EXPECT_TRUE(Eventually([&] { return locks.List().size() == 0 && inhibitors() == "([],)"; }));
}

TEST_F(BusModuleTest, WakeLockServesWhileThereIsNoLogind)
{
    const TemporaryDirectory root;
    WriteFile(root / "wake_lock", "");
    WriteFile(root / "wake_unlock", "");
    PowerSettings settings;
    settings.mLock = PowerSettings::Lock::Auto;
    settings.mRoot = root.Path();
    PowerLocks locks(mClock, MakePowerBackends(settings, mParts.get()));
    const StderrCapture quiet;
    EXPECT_EQ(locks.Lock(2, 60000), 0);
    const auto logind = mBus->Run("logind");
    EXPECT_EQ(locks.Lock(2, 60000), 0);
    ASSERT_EQ(locks.List().size(), 2U);
    EXPECT_EQ(locks.List()[0].mBackend, "wake_lock");
    EXPECT_EQ(locks.List()[1].mBackend, "logind");
}

} // namespace ParvanePlatform
