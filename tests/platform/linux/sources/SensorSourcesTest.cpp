#include "SensorSources.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "BusParts.h"
#include "ManualSource.h"
#include "StartupError.h"
#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

constexpr ContextItem kAllItems[] = {ContextItem::Gesture, ContextItem::Pedometer,
                                     ContextItem::HeartRate, ContextItem::Activity};

/** A source that only remembers its listener. */
class IdleSource : public SensorSource
{
public:
    void SetListener(SensorListener *listener) override { mListener = listener; }
    int Start(ContextItem /*item*/) override { return 0; }
    void Stop(ContextItem /*item*/) override {}
    std::optional<SensorReading> Latest(ContextItem /*item*/) const override
    {
        return std::nullopt;
    }

    SensorListener *mListener = nullptr;
};

/** A module that can make nothing but a strap. */
class StrapParts : public BusParts
{
public:
    std::unique_ptr<SensorSource> MakeBleSource(const BleSettings &settings) override
    {
        mDevices.push_back(settings.mDevice);
        auto source = std::make_unique<IdleSource>();
        mStrap = source.get();
        return source;
    }
    std::unique_ptr<PowerBackend> MakeLogindBackend() override { return nullptr; }
    std::unique_ptr<AlertMonitor> MakeGlibMemoryMonitor() override { return nullptr; }
    std::unique_ptr<AlertMonitor> MakeUPowerMonitor() override { return nullptr; }
    std::unique_ptr<AddressSource> MakeBluezAdapter(const BluetoothSettings & /*settings*/) override
    {
        return nullptr;
    }

    std::vector<std::string> mDevices;
    IdleSource *mStrap = nullptr;
};

class CountingListener : public SensorListener
{
public:
    void OnReading(ContextItem /*item*/, const SensorReading & /*reading*/) override { ++mCount; }
    int mCount = 0;
};

} // namespace

class SensorSourcesTest : public testing::Test
{
protected:
    /** Settings for the replay of a small recording. */
    Settings ReplaySettings(const std::string &rows) const
    {
        WriteFile(mDirectory / "f.csv",
                  "t_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,"
                  "calories_kcal,speed,activity,gesture\n" +
                      rows);
        Settings settings;
        settings.mReplay.mFiles = {mDirectory / "f.csv"};
        return settings;
    }

    TemporaryDirectory mDirectory;
    ManualClock mClock;
};

TEST_F(SensorSourcesTest, ItemsWithoutASensorCanBeStartedAndStaySilent)
{
    const SensorSources sources(Settings(), mClock, nullptr);
    for (const ContextItem item : kAllItems) {
        EXPECT_EQ(sources.KindOf(item), SourceKind::None);
        SensorSource *source = sources.SourceOf(item);
        ASSERT_NE(source, nullptr);
        EXPECT_EQ(source->Start(item), 0);
        EXPECT_FALSE(source->Latest(item));
        EXPECT_EQ(source->Problem(), "no source configured");
        source->Stop(item);
    }
    EXPECT_EQ(sources.Manual(), nullptr);
    EXPECT_EQ(NextWakeMs(), -1);
}

TEST_F(SensorSourcesTest, EachItemHasTheSourceOfItsSetting)
{
    Settings settings = ReplaySettings("0,60,,,,,,,,\n");
    settings.mSensors.mHeartRate = SourceKind::Replay;
    settings.mSensors.mPedometer = SourceKind::Iio;
    settings.mSensors.mActivity = SourceKind::Manual;
    const SensorSources sources(settings, mClock, nullptr);

    EXPECT_EQ(sources.KindOf(ContextItem::HeartRate), SourceKind::Replay);
    EXPECT_EQ(sources.KindOf(ContextItem::Pedometer), SourceKind::Iio);
    EXPECT_EQ(sources.KindOf(ContextItem::Activity), SourceKind::Manual);
    EXPECT_EQ(sources.KindOf(ContextItem::Gesture), SourceKind::None);
    EXPECT_EQ(sources.SourceOf(ContextItem::HeartRate)->Start(ContextItem::Activity), -95);
    EXPECT_EQ(sources.Manual(), sources.SourceOf(ContextItem::Activity));
    EXPECT_EQ(sources.SourceOf(ContextItem::HeartRate)->Problem(), "");
}

TEST_F(SensorSourcesTest, SourceIsMadeOnceForAllItsItems)
{
    Settings settings = ReplaySettings("0,60,,,,,,,2,\n");
    settings.mSensors = {SourceKind::Replay, SourceKind::Manual, SourceKind::Replay,
                         SourceKind::Manual};
    const SensorSources sources(settings, mClock, nullptr);
    EXPECT_EQ(sources.SourceOf(ContextItem::HeartRate), sources.SourceOf(ContextItem::Activity));
    EXPECT_EQ(sources.SourceOf(ContextItem::Pedometer), sources.SourceOf(ContextItem::Gesture));
    EXPECT_NE(sources.SourceOf(ContextItem::HeartRate), sources.SourceOf(ContextItem::Gesture));
}

TEST_F(SensorSourcesTest, AllSourcesHaveTheSameListener)
{
    CountingListener listener;
    Settings settings;
    settings.mSensors.mActivity = SourceKind::Manual;
    SensorSources sources(settings, mClock, nullptr);
    auto idle = std::make_shared<IdleSource>();
    sources.Assign(ContextItem::HeartRate, SourceKind::Ble, idle);
    sources.SetListener(&listener);
    EXPECT_EQ(idle->mListener, &listener);

    sources.SourceOf(ContextItem::Activity)->Start(ContextItem::Activity);
    sources.Manual()->SetActivity(2);
    EXPECT_EQ(listener.mCount, 1);
}

TEST_F(SensorSourcesTest, SeveralRecordingsAreReplayedInTurn)
{
    Settings settings = ReplaySettings("0,60,,,,,,,,\n");
    settings.mReplay.mFiles.push_back(settings.mReplay.mFiles.front());
    settings.mSensors.mHeartRate = SourceKind::Replay;
    settings.mReplay.mLoop = false;
    const SensorSources sources(settings, mClock, nullptr);
    CountingListener listener;
    sources.SourceOf(ContextItem::HeartRate)->SetListener(&listener);

    // The second row is due at 1000 ms: long ago for the main loop, not yet on this clock.
    sources.SourceOf(ContextItem::HeartRate)->Start(ContextItem::HeartRate);
    EXPECT_TRUE(RunUntil([&listener] { return listener.mCount == 1; }));
    mClock.mMonotonicUs = 1'000'000;
    sources.SourceOf(ContextItem::HeartRate)->Start(ContextItem::HeartRate);
    EXPECT_TRUE(RunUntil([&listener] { return listener.mCount == 2; }));
}

TEST_F(SensorSourcesTest, RecordingThatCannotBePlayedStopsTheStart)
{
    Settings settings = ReplaySettings("");
    settings.mSensors.mHeartRate = SourceKind::Replay;
    EXPECT_THROW(SensorSources(settings, mClock, nullptr), StartupError);
    settings.mReplay.mFiles = {};
    EXPECT_THROW(SensorSources(settings, mClock, nullptr), StartupError);
    settings.mSensors.mHeartRate = SourceKind::None; // not asked for, not read
    EXPECT_NO_THROW(SensorSources(settings, mClock, nullptr));
}

TEST_F(SensorSourcesTest, StrapIsMadeOverTheBusWithItsSettings)
{
    Settings settings;
    settings.mSensors.mHeartRate = SourceKind::Ble;
    settings.mBle.mDevice = "AA:BB:CC:DD:EE:FF";
    StrapParts parts;
    const SensorSources sources(settings, mClock, &parts);
    EXPECT_THAT(parts.mDevices, testing::ElementsAre("AA:BB:CC:DD:EE:FF"));
    EXPECT_EQ(sources.SourceOf(ContextItem::HeartRate), parts.mStrap);
}

TEST_F(SensorSourcesTest, WithoutTheBusThereIsNoStrap)
{
    Settings settings;
    settings.mSensors.mHeartRate = SourceKind::Ble;
    SensorSources sources(settings, mClock, nullptr);
    EXPECT_EQ(sources.SourceOf(ContextItem::HeartRate), nullptr);
    EXPECT_EQ(sources.KindOf(ContextItem::HeartRate), SourceKind::Ble);
    sources.SetListener(nullptr); // passes over the item
    EXPECT_NE(sources.SourceOf(ContextItem::Gesture), nullptr);
}

TEST_F(SensorSourcesTest, NothingIsAssignedAtFirst)
{
    const SensorSources sources;
    for (const ContextItem item : kAllItems) {
        EXPECT_EQ(sources.SourceOf(item), nullptr);
        EXPECT_EQ(sources.KindOf(item), SourceKind::None);
    }
}

TEST_F(SensorSourcesTest, KindsHaveTheNamesOfTheConfiguration)
{
    EXPECT_STREQ(NameOf(SourceKind::None), "none");
    EXPECT_STREQ(NameOf(SourceKind::Replay), "replay");
    EXPECT_STREQ(NameOf(SourceKind::Iio), "iio");
    EXPECT_STREQ(NameOf(SourceKind::Ble), "ble");
    EXPECT_STREQ(NameOf(SourceKind::Manual), "manual");
}

} // namespace ParvanePlatform
