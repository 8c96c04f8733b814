#include "IioSource.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "IioTree.h"
#include "Runtime.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int64_t kStartUs = 5'000'000;
constexpr char kSteps[] = "in_steps_input";
constexpr char kWalking[] = "in_activity_walking_input";
constexpr char kRunning[] = "in_activity_running_input";

} // namespace

/** Polls a tree; each reading is noted with the milliseconds since the start. */
class IioSourceTest : public testing::Test, public SensorListener
{
protected:
    IioSourceTest() { Make(1000); }

    void Make(int periodMs)
    {
        mClock.mMonotonicUs = kStartUs;
        auto timer = std::make_unique<ManualTimer>();
        mTimer = timer.get();
        mSource =
            std::make_unique<IioSource>(mTree.Settings({}, periodMs), mClock, std::move(timer));
        mSource->SetListener(this);
    }

    void AddWatch() const
    {
        mTree.Add(0, {{kSteps, "10\n"}});
        mTree.Add(1, {{kWalking, "80\n"}, {kRunning, "0\n"}});
    }

    void AdvanceTo(std::int64_t ms)
    {
        const std::int64_t targetUs = kStartUs + ms * 1000;
        while (mTimer->mDueUs && *mTimer->mDueUs <= targetUs) {
            mClock.mMonotonicUs = std::max(mClock.mMonotonicUs, *mTimer->mDueUs);
            mTimer->Fire();
        }
        mClock.mMonotonicUs = targetUs;
    }

    void FireLateAt(std::int64_t ms)
    {
        mClock.mMonotonicUs = kStartUs + ms * 1000;
        ASSERT_TRUE(mTimer->mDueUs);
        mTimer->Fire();
    }

    std::vector<std::string> Take() { return std::exchange(mReadings, {}); }

    std::string Latest(ContextItem item) const
    {
        const auto reading = mSource->Latest(item);
        return reading ? TextOf(*reading) : "none";
    }

    /** When the timer is due, in milliseconds since the start; -1 when it is not set. */
    std::int64_t DueMs() const { return mTimer->mDueUs ? (*mTimer->mDueUs - kStartUs) / 1000 : -1; }

    void OnReading(ContextItem item, const SensorReading &reading) override
    {
        const std::int64_t ms = (mClock.mMonotonicUs - kStartUs) / 1000;
        mReadings.push_back(std::to_string(ms) + ": " + TextOf(reading));
        if (mOnReading) {
            mOnReading(item);
        }
    }

    StderrCapture mCapture;
    IioTree mTree;
    ManualClock mClock;
    ManualTimer *mTimer = nullptr;
    std::unique_ptr<IioSource> mSource;
    std::vector<std::string> mReadings;
    std::function<void(ContextItem)> mOnReading;
};

TEST_F(IioSourceTest, HeartRateAndGestureAreNotServed)
{
    EXPECT_EQ(mSource->Start(ContextItem::HeartRate), -95);
    EXPECT_EQ(mSource->Start(ContextItem::Gesture), -95);
    mSource->Stop(ContextItem::HeartRate);
    EXPECT_EQ(Latest(ContextItem::HeartRate), "none");
    EXPECT_EQ(DueMs(), -1);
}

TEST_F(IioSourceTest, DeviceThatIsNotThereYetIsNoFailure)
{
    EXPECT_EQ(mSource->Start(ContextItem::Pedometer), 0);
    AdvanceTo(1500);
    EXPECT_THAT(Take(), IsEmpty());
    AddWatch();
    AdvanceTo(2500);
    EXPECT_THAT(Take(), ElementsAre("2000: pedometer/total_steps=10"));
}

TEST_F(IioSourceTest, WithoutAStartedItemThereIsNoTimer)
{
    AddWatch();
    EXPECT_EQ(DueMs(), -1);
    mSource->Start(ContextItem::Pedometer);
    mSource->Start(ContextItem::Activity);
    mSource->Stop(ContextItem::Pedometer);
    EXPECT_NE(DueMs(), -1);
    mSource->Stop(ContextItem::Activity);
    EXPECT_EQ(DueMs(), -1);
}

TEST_F(IioSourceTest, FirstReadingComesAtOnceButNotFromTheCall)
{
    AddWatch();
    mSource->Start(ContextItem::Pedometer);
    EXPECT_THAT(Take(), IsEmpty());
    EXPECT_EQ(DueMs(), 0);
    mTimer->Fire();
    EXPECT_THAT(Take(), ElementsAre("0: pedometer/total_steps=10"));
    EXPECT_EQ(DueMs(), 1000);
}

TEST_F(IioSourceTest, PedometerIsReportedWhenTheStepsChange)
{
    AddWatch();
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(2500);
    mTree.Write(0, kSteps, "12\n");
    AdvanceTo(4500);
    EXPECT_THAT(Take(),
                ElementsAre("0: pedometer/total_steps=10", "3000: pedometer/total_steps=12"));
}

TEST_F(IioSourceTest, OtherValuesOfThePedometerComeAlongWithTheSteps)
{
    AddWatch();
    mTree.Write(0, "in_velocity_x_input", "1\n");
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(500);
    EXPECT_THAT(Take(), ElementsAre("0: pedometer/total_steps=10 pedometer/speed=3.6"));
    mTree.Write(0, "in_velocity_x_input", "2\n");
    AdvanceTo(1500);
    mTree.Remove(0, "in_velocity_x_input");
    AdvanceTo(2500);
    mTree.Write(0, "in_velocity_x_input", "5\n");
    AdvanceTo(3500);
    EXPECT_THAT(Take(), IsEmpty());
    EXPECT_EQ(Latest(ContextItem::Pedometer), "pedometer/total_steps=10 pedometer/speed=18");
    mTree.Write(0, kSteps, "11\n");
    AdvanceTo(4500);
    EXPECT_THAT(Take(), ElementsAre("4000: pedometer/total_steps=11 pedometer/speed=18"));
}

TEST_F(IioSourceTest, ActivityComesWhenItsStateChanges)
{
    AddWatch();
    mSource->Start(ContextItem::Activity);
    AdvanceTo(500);
    mTree.Write(1, kWalking, "60\n");
    AdvanceTo(1500);
    mTree.Write(1, kRunning, "90\n");
    AdvanceTo(3500);
    EXPECT_THAT(Take(), ElementsAre("0: activity/status=2", "2000: activity/status=3"));
}

TEST_F(IioSourceTest, OneTimerServesBothItems)
{
    AddWatch();
    mSource->Start(ContextItem::Pedometer);
    mSource->Start(ContextItem::Activity);
    AdvanceTo(100);
    EXPECT_THAT(Take(), ElementsAre("0: pedometer/total_steps=10", "0: activity/status=2"));
    mTree.Write(0, kSteps, "11\n");
    mTree.Write(1, kWalking, "0\n");
    AdvanceTo(1000);
    EXPECT_THAT(Take(), ElementsAre("1000: pedometer/total_steps=11", "1000: activity/status=0"));
}

TEST_F(IioSourceTest, SecondItemIsReadAtOnceAndThenWithTheFirst)
{
    AddWatch();
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(400);
    Take();
    mTree.Write(0, kSteps, "11\n");
    mSource->Start(ContextItem::Activity);
    EXPECT_EQ(DueMs(), 400);
    AdvanceTo(500);
    EXPECT_THAT(Take(), ElementsAre("400: activity/status=2"));
    AdvanceTo(1000);
    EXPECT_THAT(Take(), ElementsAre("1000: pedometer/total_steps=11"));
}

TEST_F(IioSourceTest, ScheduleDoesNotDrift)
{
    AddWatch();
    Make(250);
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(0);
    for (int tick = 1; tick <= 20; ++tick) {
        ASSERT_EQ(DueMs(), tick * 250);
        FireLateAt(tick * 250 + 40); // each time late
    }
}

TEST_F(IioSourceTest, TimesThatWereMissedAreLeftOut)
{
    AddWatch();
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(0);
    FireLateAt(86'400'300);
    EXPECT_EQ(DueMs(), 86'401'000);
}

TEST_F(IioSourceTest, PeriodCountsFromTheFirstStartAfterAPause)
{
    AddWatch();
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(1);
    mSource->Stop(ContextItem::Pedometer);
    AdvanceTo(10'700);
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(10'700);
    EXPECT_THAT(Take(),
                ElementsAre("0: pedometer/total_steps=10", "10700: pedometer/total_steps=10"));
    EXPECT_EQ(DueMs(), 11'700);
}

TEST_F(IioSourceTest, ItemThatIsStartedAgainBeginsAnew)
{
    AddWatch();
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(300);
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(400);
    EXPECT_THAT(Take(),
                ElementsAre("0: pedometer/total_steps=10", "300: pedometer/total_steps=10"));
    EXPECT_EQ(DueMs(), 1000);
}

TEST_F(IioSourceTest, NothingComesAfterStop)
{
    AddWatch();
    mSource->Start(ContextItem::Pedometer);
    mSource->Start(ContextItem::Activity);
    mSource->Stop(ContextItem::Pedometer);
    AdvanceTo(3000);
    EXPECT_THAT(Take(), ElementsAre("0: activity/status=2"));
}

TEST_F(IioSourceTest, ListenerMayStopAndStartItemsInItsCall)
{
    AddWatch();
    mSource->Start(ContextItem::Pedometer);
    mSource->Start(ContextItem::Activity);
    mOnReading = [this](ContextItem item) {
        if (item == ContextItem::Pedometer) {
            mSource->Stop(ContextItem::Activity);
            mSource->Stop(ContextItem::Pedometer);
        }
    };
    mTimer->Fire();
    EXPECT_THAT(Take(), ElementsAre("0: pedometer/total_steps=10"));
    EXPECT_EQ(DueMs(), -1);
}

TEST_F(IioSourceTest, ItemThatIsStartedAnewInItsCallIsReadInAnotherTurn)
{
    AddWatch();
    mSource->Start(ContextItem::Pedometer);
    mSource->Start(ContextItem::Activity);
    mOnReading = [this](ContextItem item) {
        if (item == ContextItem::Pedometer) {
            mSource->Start(ContextItem::Activity);
        }
    };
    mTimer->Fire();
    EXPECT_THAT(Take(), ElementsAre("0: pedometer/total_steps=10"));
    EXPECT_EQ(DueMs(), 0);
    mTimer->Fire();
    EXPECT_THAT(Take(), ElementsAre("0: activity/status=2"));
    EXPECT_EQ(DueMs(), 1000);
}

TEST_F(IioSourceTest, QueryOfAnItemThatIsNotStartedReadsTheFiles)
{
    EXPECT_EQ(Latest(ContextItem::Pedometer), "none");
    AddWatch();
    EXPECT_EQ(Latest(ContextItem::Pedometer), "pedometer/total_steps=10");
    mTree.Write(0, kSteps, "15\n");
    EXPECT_EQ(Latest(ContextItem::Pedometer), "pedometer/total_steps=15");
    EXPECT_EQ(Latest(ContextItem::Activity), "activity/status=2");
    mTree.Write(0, kSteps, "many\n");
    EXPECT_EQ(Latest(ContextItem::Pedometer), "none");
    EXPECT_EQ(DueMs(), -1);
    EXPECT_THAT(Take(), IsEmpty());
}

TEST_F(IioSourceTest, QueryOfAStartedItemIsAnsweredWithTheNewestReading)
{
    AddWatch();
    mSource->Start(ContextItem::Pedometer);
    EXPECT_EQ(Latest(ContextItem::Pedometer), "pedometer/total_steps=10");
    AdvanceTo(0);
    mTree.Write(0, kSteps, "12\n");
    EXPECT_EQ(Latest(ContextItem::Pedometer), "pedometer/total_steps=10");
    AdvanceTo(1000);
    EXPECT_EQ(Latest(ContextItem::Pedometer), "pedometer/total_steps=12");
}

TEST_F(IioSourceTest, QueryOfAStartedItemIsNotAnsweredWhileTheDeviceIsAway)
{
    AddWatch();
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(0);
    mTree.Remove(0);
    AdvanceTo(2000);
    EXPECT_EQ(Latest(ContextItem::Pedometer), "none");
    mTree.Add(0, {{kSteps, "10\n"}});
    AdvanceTo(3000);
    EXPECT_EQ(Latest(ContextItem::Pedometer), "pedometer/total_steps=10");
    EXPECT_THAT(Take(), ElementsAre("0: pedometer/total_steps=10"));
}

TEST_F(IioSourceTest, QueryInTheOtherItemsReadingIsAnsweredBeforeTheFirstPoll)
{
    AddWatch();
    mSource->Start(ContextItem::Pedometer);
    mSource->Start(ContextItem::Activity);
    std::string answer;
    mOnReading = [&](ContextItem item) {
        if (item == ContextItem::Pedometer) {
            answer = Latest(ContextItem::Activity);
        }
    };
    mTimer->Fire();
    EXPECT_EQ(answer, "activity/status=2");
}

TEST_F(IioSourceTest, CountGoesOnOverQueriesAndSubscriptions)
{
    AddWatch();
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(0);
    mSource->Stop(ContextItem::Pedometer);
    mTree.Write(0, kSteps, "0\n");
    EXPECT_EQ(Latest(ContextItem::Pedometer), "pedometer/total_steps=10");
    mTree.Write(0, kSteps, "3\n");
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(100);
    EXPECT_THAT(Take(), ElementsAre("0: pedometer/total_steps=10", "0: pedometer/total_steps=13"));
}

TEST_F(IioSourceTest, DevicesWorkWhileTheirItemIsStarted)
{
    AddWatch();
    mTree.Write(0, "in_steps_en", "0\n");
    mTree.Write(1, "in_activity_walking_en", "0\n");
    mSource->Start(ContextItem::Pedometer);
    EXPECT_EQ(mTree.Read(0, "in_steps_en"), "0\n"); // no file is touched from inside the call
    AdvanceTo(0);
    EXPECT_EQ(mTree.Read(0, "in_steps_en"), "1\n");
    EXPECT_EQ(mTree.Read(1, "in_activity_walking_en"), "0\n");
    mSource->Stop(ContextItem::Pedometer);
    EXPECT_EQ(mTree.Read(0, "in_steps_en"), "0\n");
    Latest(ContextItem::Pedometer);
    EXPECT_EQ(mTree.Read(0, "in_steps_en"), "0\n");
}

TEST_F(IioSourceTest, StepCounterWorksForAsLongAsOneOfTheItemsNeedsIt)
{
    mTree.Add(0, {{kSteps, "10\n"}, {kWalking, "80\n"}, {"in_steps_en", "0\n"}});
    mSource->Start(ContextItem::Pedometer);
    mSource->Start(ContextItem::Activity);
    AdvanceTo(0);
    mSource->Stop(ContextItem::Pedometer);
    EXPECT_EQ(mTree.Read(0, "in_steps_en"), "1\n");
    mSource->Stop(ContextItem::Activity);
    EXPECT_EQ(mTree.Read(0, "in_steps_en"), "0\n");
}

TEST_F(IioSourceTest, EndOfTheSourceSwitchesTheDevicesOff)
{
    AddWatch();
    mTree.Write(0, "in_steps_en", "0\n");
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(0);
    mSource.reset();
    EXPECT_EQ(mTree.Read(0, "in_steps_en"), "0\n");
}

TEST_F(IioSourceTest, WithoutAListenerNothingBreaks)
{
    AddWatch();
    mSource->SetListener(nullptr);
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(1500);
    EXPECT_THAT(Take(), IsEmpty());
    EXPECT_EQ(DueMs(), 2000);
}

/** The whole runtime, with its items on a tree. */
class IioRuntimeTest : public testing::Test, public LifecycleEvents
{
protected:
    IioRuntimeTest()
    {
        Settings settings;
        settings.mStateDirectory = mDirectory / "state";
        settings.mRuntimeDirectory = mDirectory / "run";
        settings.mSensors.mPedometer = SourceKind::Iio;
        settings.mSensors.mActivity = SourceKind::Iio;
        settings.mIio = mTree.Settings({}, 5);
        mRuntime = std::make_unique<Runtime>(settings, *this);
    }

    void OnLowMemory() override {}
    void OnLowBattery() override {}
    void OnQuit() override {}

    static void OnChanged(int /*error*/, int item, context_data *data, void *user_data,
                          int /*request_id*/) noexcept
    {
        auto *self = static_cast<IioRuntimeTest *>(user_data);
        const std::unique_ptr<context_data, decltype(&free)> owned(data, free);
        int value = -1;
        const char *key =
            item == 2 ? CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT : CONTEXT_ACTIVITY_STATUS;
        context_context_data_get_int(data, key, &value);
        self->mValues[item].push_back(value);
    }

    /** Subscribes through the C interface. */
    int Subscribe(int item)
    {
        int requestId = 0;
        return context_set_changed_callback(item, nullptr, OnChanged, this, &requestId);
    }

    bool HasCome(int item, int value)
    {
        return RunUntil([&] { return !mValues[item].empty() && mValues[item].back() == value; });
    }

    bool HasLogged(const std::string &text)
    {
        mLog += mCapture->Take();
        mCapture = std::make_unique<StderrCapture>();
        return mLog.find(text) != std::string::npos;
    }

    std::unique_ptr<StderrCapture> mCapture = std::make_unique<StderrCapture>();
    std::string mLog;
    TemporaryDirectory mDirectory;
    IioTree mTree;
    std::unique_ptr<Runtime> mRuntime;
    std::map<int, std::vector<int>> mValues;
};

TEST_F(IioRuntimeTest, StepsAndActivityReachTheirSubscribers)
{
    mTree.Add(0, {{kSteps, "100\n"}, {kWalking, "90\n"}});
    ASSERT_EQ(Subscribe(2), 0);
    ASSERT_EQ(Subscribe(23), 0);
    EXPECT_TRUE(HasCome(2, 100));
    EXPECT_TRUE(HasCome(23, 2));
    mTree.Write(0, kSteps, "110\n");
    EXPECT_TRUE(HasCome(2, 110));
}

TEST_F(IioRuntimeTest, DeviceThatIsPulledMidMeasurementComesBackAndTheCountNeverFalls)
{
    mTree.Add(0, {{kSteps, "100\n"}});
    ASSERT_EQ(Subscribe(2), 0);
    ASSERT_TRUE(HasCome(2, 100));
    mTree.Remove(0);
    ASSERT_TRUE(RunUntil([&] { return HasLogged("no device has in_steps_input"); }));
    mTree.Add(7, {{kSteps, "4\n"}});
    ASSERT_TRUE(RunUntil([&] { return HasLogged("has gone back from 100 to 4"); }));
    mTree.Write(7, kSteps, "40\n");
    EXPECT_TRUE(HasCome(2, 136));
    EXPECT_TRUE(std::is_sorted(mValues[2].begin(), mValues[2].end()));
}

TEST_F(IioRuntimeTest, NothingWakesTheLoopWithoutASubscription)
{
    mTree.Add(0, {{kSteps, "100\n"}});
    ASSERT_EQ(Subscribe(2), 0);
    ASSERT_TRUE(HasCome(2, 100));
    ASSERT_EQ(context_unset_changed_callback(2), 0);
    RunWhileBusy();
    EXPECT_EQ(NextWakeMs(), -1);
}

TEST_F(IioRuntimeTest, OtherItemsKeepTheirOwnSources)
{
    for (const ContextManager::ItemStatus &status : mRuntime->Context().Status()) {
        const bool isIio =
            status.mItem == ContextItem::Pedometer || status.mItem == ContextItem::Activity;
        EXPECT_EQ(status.mSource, isIio ? SourceKind::Iio : SourceKind::None);
    }
}

} // namespace ParvanePlatform
