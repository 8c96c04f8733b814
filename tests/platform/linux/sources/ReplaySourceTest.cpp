#include "ReplaySource.h"

#include <cmath>
#include <functional>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "RecordingReader.h"
#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::int64_t kStartUs = 1'000'000;
constexpr char kNames[] = "t_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,"
                          "calories_kcal,speed,activity,gesture\n";
constexpr char kAllNames[] = "t_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,"
                             "calories_kcal,speed,activity,gesture,peak_to_peak,spo2,"
                             "activity_accuracy,restart\n";

std::string ToText(ContextItem item, const SensorReading &reading)
{
    std::ostringstream text;
    text << static_cast<int>(item);
    for (const SensorValue &value : reading) {
        text << ' ' << value.mKey << '=';
        std::visit([&text](auto number) { text << number; }, value.mValue);
    }
    return text.str();
}

} // namespace

/** Plays small recordings; each reading that comes is noted with the time at which it came. */
class ReplaySourceTest : public testing::Test, public SensorListener
{
protected:
    void Play(const std::string &rows, const ReplayOptions &options = {})
    {
        PlayAll({kNames + rows}, options);
    }

    /** Plays recordings in turn. */
    void PlayAll(const std::vector<std::string> &texts, const ReplayOptions &options = {})
    {
        const TemporaryDirectory directory;
        std::vector<std::string> paths;
        for (const std::string &text : texts) {
            paths.push_back(directory / (std::to_string(paths.size()) + ".csv"));
            WriteFile(paths.back(), text);
        }
        mClock.mMonotonicUs = kStartUs;
        auto timer = std::make_unique<ManualTimer>();
        mTimer = timer.get();
        mSource = std::make_unique<ReplaySource>(LoadRecordings(paths), options, mClock,
                                                 std::move(timer));
        mSource->SetListener(this);
    }

    /** Lets the timer fire at its times, up to a moment of the replay. */
    void AdvanceTo(double ms)
    {
        const std::int64_t targetUs = kStartUs + static_cast<std::int64_t>(ms * 1000);
        while (mTimer->mDueUs && *mTimer->mDueUs <= targetUs) {
            mClock.mMonotonicUs = *mTimer->mDueUs;
            mTimer->Fire();
        }
        mClock.mMonotonicUs = targetUs;
    }

    /** Lets the timer fire once, late. */
    void FireLateAt(double ms)
    {
        mClock.mMonotonicUs = kStartUs + static_cast<std::int64_t>(ms * 1000);
        ASSERT_TRUE(mTimer->mDueUs);
        mTimer->Fire();
    }

    std::vector<std::string> Take() { return std::exchange(mReadings, {}); }

    std::string Latest(ContextItem item) const
    {
        const auto reading = mSource->Latest(item);
        return reading ? ToText(item, *reading) : "none";
    }

    /** When the timer is due, in microseconds of the replay; -1 when it is not set. */
    std::int64_t DueUs() const { return mTimer->mDueUs ? *mTimer->mDueUs - kStartUs : -1; }

    void OnReading(ContextItem item, const SensorReading &reading) override
    {
        const double ms = static_cast<double>(mClock.mMonotonicUs - kStartUs) / 1000;
        std::ostringstream text;
        text << ms << ": " << ToText(item, reading);
        mReadings.push_back(text.str());
        if (mOnReading) {
            mOnReading(item);
        }
    }

    ManualClock mClock;
    ManualTimer *mTimer = nullptr;
    std::unique_ptr<ReplaySource> mSource;
    std::vector<std::string> mReadings;
    std::function<void(ContextItem)> mOnReading;
};

TEST_F(ReplaySourceTest, WithoutAStartedItemThereIsNoTimer)
{
    Play("0,60,,,,,,,,\n1000,61,,,,,,,,\n");
    EXPECT_EQ(DueUs(), -1);
    mSource->Start(ContextItem::HeartRate);
    EXPECT_EQ(DueUs(), 0);
    mSource->Stop(ContextItem::HeartRate);
    EXPECT_EQ(DueUs(), -1);
}

TEST_F(ReplaySourceTest, RowsComeAtTheirTimes)
{
    Play("0,60,,,,,,,,\n1000,61,,,,,,,,\n2500,62,,,,,,,,\n");
    mSource->Start(ContextItem::HeartRate);
    AdvanceTo(2600);
    EXPECT_THAT(Take(), ElementsAre("0: 7 hrm/heart_rate=60", "1000: 7 hrm/heart_rate=61",
                                    "2500: 7 hrm/heart_rate=62"));
}

TEST_F(ReplaySourceTest, SpeedShortensTheTimes)
{
    Play("0,60,,,,,,,,\n1000,61,,,,,,,,\n1001,62,,,,,,,,\n", {3.0, true});
    mSource->Start(ContextItem::HeartRate);
    AdvanceTo(1);
    EXPECT_THAT(Take(), SizeIs(1));
    EXPECT_EQ(DueUs(), 333334); // rounded up: never early
    AdvanceTo(334);
    EXPECT_THAT(Take(),
                ElementsAre("333.334: 7 hrm/heart_rate=61", "333.667: 7 hrm/heart_rate=62"));
}

TEST_F(ReplaySourceTest, SlowMotionLengthensTheTimes)
{
    Play("0,60,,,,,,,,\n1000,61,,,,,,,,\n", {0.001, true});
    AdvanceTo(1);
    mSource->Start(ContextItem::HeartRate);
    EXPECT_EQ(DueUs(), 1'000'000'000);
}

TEST_F(ReplaySourceTest, WhilePausedNothingIsDueAndWhatWasSaidLastHolds)
{
    Play("0,60,,,,,,,,\n1000,61,,,,,,,,\n2000,62,,,,,,,,\n", {2.0, true});
    mSource->Start(ContextItem::HeartRate);
    AdvanceTo(700);
    EXPECT_THAT(Take(), SizeIs(2));
    mSource->SetPaused(true);
    EXPECT_EQ(DueUs(), -1);
    AdvanceTo(100000);
    EXPECT_EQ(mSource->PositionMs(), 1400);
    EXPECT_EQ(Latest(ContextItem::HeartRate), "7 hrm/heart_rate=61");
    mSource->Start(ContextItem::HeartRate); // as somebody does who asks anew
    EXPECT_EQ(DueUs(), -1);

    mSource->SetPaused(true); // what is so already
    mSource->SetPaused(false);
    EXPECT_EQ(DueUs(), 100300000);
    AdvanceTo(100300);
    EXPECT_THAT(Take(), ElementsAre("100300: 7 hrm/heart_rate=62"));
}

TEST_F(ReplaySourceTest, AJumpGoesOnFromThereWithTheCountersOfTheRecording)
{
    Play("0,60,100,,,,,,,\n1000,61,200,,,,,,,\n2000,,,50,,,,,,\n3000,63,300,,,,,,,\n");
    mSource->Start(ContextItem::Pedometer);
    mSource->Start(ContextItem::HeartRate);
    AdvanceTo(4500); // in the second round
    EXPECT_EQ(mSource->PositionMs(), 500);
    Take();
    EXPECT_EQ(Latest(ContextItem::Pedometer),
              "2 pedometer/total_steps=300 pedometer/walk_steps=50");

    mSource->Seek(1000);
    EXPECT_EQ(mSource->PositionMs(), 1000);
    AdvanceTo(5500);
    EXPECT_THAT(Take(),
                ElementsAre("4500: 7 hrm/heart_rate=61", "4500: 2 pedometer/total_steps=200",
                            "5500: 2 pedometer/total_steps=200 pedometer/walk_steps=50"));
    mSource->Seek(2500.5);
    EXPECT_EQ(Latest(ContextItem::Pedometer),
              "2 pedometer/total_steps=200 pedometer/walk_steps=50");
    EXPECT_EQ(Latest(ContextItem::HeartRate), "7 hrm/heart_rate=61");
    EXPECT_EQ(DueUs(), 5999500);
    mSource->Seek(4000); // its end is the start of the next round
    EXPECT_EQ(mSource->PositionMs(), 0);
    AdvanceTo(5500);
    EXPECT_THAT(Take(), ElementsAre("5500: 7 hrm/heart_rate=60",
                                    "5500: 2 pedometer/total_steps=300 pedometer/walk_steps=50"));
}

TEST_F(ReplaySourceTest, AJumpOverARestartIsOne)
{
    PlayAll({std::string(kAllNames) + "0,,500,20,,,,,,,,,,\n1000,,7,,,,,,,,,,,1\n"
                                      "2000,,9,,,,,,,,,,,\n3000,,,3,,,,,,,,,,2\n"});
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(0);
    mSource->Seek(1500);
    EXPECT_EQ(Latest(ContextItem::Pedometer), "2 pedometer/total_steps=7");
    mSource->Seek(3000);
    AdvanceTo(0);
    EXPECT_THAT(Take(), ElementsAre("0: 2 pedometer/total_steps=500 pedometer/walk_steps=20",
                                    "0: 2 pedometer/walk_steps=3"));
}

TEST_F(ReplaySourceTest, AnotherSpeedGoesOnFromWhereItIs)
{
    Play("0,60,,,,,,,,\n1000,61,,,,,,,,\n2000,62,,,,,,,,\n", {3.0, true});
    mSource->Start(ContextItem::HeartRate);
    AdvanceTo(333.334);
    EXPECT_THAT(Take(), SizeIs(2));
    mSource->SetPaused(true);
    mSource->SetSpeed(0.1);
    EXPECT_EQ(Latest(ContextItem::HeartRate), "7 hrm/heart_rate=61"); // what was due stays due
    EXPECT_EQ(mSource->PositionMs(), 1000);
    mSource->SetPaused(false);
    AdvanceTo(10300);
    EXPECT_THAT(Take(), IsEmpty());
    mSource->SetSpeed(1000);
    AdvanceTo(10301);
    EXPECT_THAT(Take(), SizeIs(1));
}

TEST_F(ReplaySourceTest, AnotherRecordingPlaysFromItsStartForWhatIsStarted)
{
    Play("0,60,5,,,,,,,\n9000,61,,,,,,,,\n", {1.0, false});
    mSource->Start(ContextItem::HeartRate);
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(1000);
    Take();
    mSource->Open(ParseRecording("b", std::string(kNames) + "0,,,,,,,,1,\n500,90,,,,,,,,\n"));
    EXPECT_EQ(mSource->LengthMs(), 1000);
    EXPECT_EQ(Latest(ContextItem::Pedometer), "none");
    AdvanceTo(60000);
    EXPECT_THAT(Take(), ElementsAre("1500: 7 hrm/heart_rate=90"));
    EXPECT_EQ(mSource->PositionMs(), 1000); // it plays once
}

TEST_F(ReplaySourceTest, PositionFollowsTheClockWhileNobodyListens)
{
    Play("0,60,,,,,,,,\n1000,61,,,,,,,,\n2000,62,,,,,,,,\n");
    AdvanceTo(1500);
    mSource->Start(ContextItem::HeartRate);
    EXPECT_EQ(DueUs(), 2'000'000);
    AdvanceTo(2000);
    EXPECT_THAT(Take(), ElementsAre("2000: 7 hrm/heart_rate=62"));
}

TEST_F(ReplaySourceTest, RowThatIsDueJustNowIsDelivered)
{
    Play("0,60,,,,,,,,\n1000,61,,,,,,,,\n");
    AdvanceTo(1000);
    mSource->Start(ContextItem::HeartRate);
    EXPECT_EQ(DueUs(), 1'000'000);
}

TEST_F(ReplaySourceTest, TimerIsSetForStartedItemsOnly)
{
    Play("0,60,,,,,,,,\n1000,61,,,,,,,,\n5000,62,,,,,,,2,\n");
    AdvanceTo(1);
    mSource->Start(ContextItem::Activity);
    EXPECT_EQ(DueUs(), 5'000'000);
    mSource->Start(ContextItem::HeartRate);
    EXPECT_EQ(DueUs(), 1'000'000);
    mSource->Stop(ContextItem::HeartRate);
    EXPECT_EQ(DueUs(), 5'000'000);
}

TEST_F(ReplaySourceTest, ItemThatNoRowHasIsRefused)
{
    Play("0,60,,,,,,,,\n1000,61,,,,,,,,\n");
    for (const ContextItem item :
         {ContextItem::Gesture, ContextItem::Pedometer, ContextItem::Activity}) {
        EXPECT_EQ(mSource->Start(item), -95);
        EXPECT_EQ(Latest(item), "none");
        mSource->Stop(item);
    }
    EXPECT_EQ(DueUs(), -1);
    EXPECT_EQ(mSource->Start(ContextItem::HeartRate), 0);
}

TEST_F(ReplaySourceTest, EachItemHasItsOwnKeys)
{
    Play("0,-3,8,3,5,10.5,2,7.25,1,4\n");
    for (const ContextItem item : {ContextItem::Gesture, ContextItem::Pedometer,
                                   ContextItem::HeartRate, ContextItem::Activity}) {
        mSource->Start(item);
    }
    AdvanceTo(0);
    EXPECT_THAT(Take(),
                ElementsAre("0: 7 hrm/heart_rate=-3",
                            "0: 2 pedometer/total_steps=8 pedometer/walk_steps=3 "
                            "pedometer/run_steps=5 pedometer/distance=10.5 pedometer/calories=2 "
                            "pedometer/speed=7.25",
                            "0: 23 activity/status=1", "0: 1 motion/action=4"));
}

TEST_F(ReplaySourceTest, PedometerReadingCarriesAllThatIsKnown)
{
    Play("0,,5,,,,,,,\n1000,60,,,,,,,,\n2000,,,,,1.5,,,,\n");
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(2000);
    EXPECT_THAT(Take(), ElementsAre("0: 2 pedometer/total_steps=5",
                                    "2000: 2 pedometer/total_steps=5 pedometer/distance=1.5"));
}

TEST_F(ReplaySourceTest, CountersGoOnInTheNextRound)
{
    Play("0,,0,,,0.5,,3,,\n1000,,7,,,,,4,,\n2000,,9,,,8,,,,\n");
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(2999);
    EXPECT_THAT(Take(), SizeIs(3));
    AdvanceTo(7000);
    EXPECT_THAT(
        Take(),
        ElementsAre("3000: 2 pedometer/total_steps=9 pedometer/distance=8 pedometer/speed=3",
                    "4000: 2 pedometer/total_steps=16 pedometer/distance=8 pedometer/speed=4",
                    "5000: 2 pedometer/total_steps=18 pedometer/distance=15.5 pedometer/speed=4",
                    "6000: 2 pedometer/total_steps=18 pedometer/distance=15.5 pedometer/speed=3",
                    "7000: 2 pedometer/total_steps=25 pedometer/distance=15.5 pedometer/speed=4"));
}

TEST_F(ReplaySourceTest, RecordingThatDoesNotBeginAtZeroHasNoJumpAtItsSeams)
{
    Play("0,,5000,,,,,,,\n1000,,5010,,,,,,,\n");
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(5000);
    EXPECT_THAT(
        Take(),
        ElementsAre("0: 2 pedometer/total_steps=5000", "1000: 2 pedometer/total_steps=5010",
                    "2000: 2 pedometer/total_steps=5010", "3000: 2 pedometer/total_steps=5020",
                    "4000: 2 pedometer/total_steps=5020", "5000: 2 pedometer/total_steps=5030"));
}

TEST_F(ReplaySourceTest, CountersStopAtTheMostThatTheirColumnsAllow)
{
    Play("0,,0,,,0,,,,\n1000,,2147483000,,,400000000,,,,\n");
    const auto stepsAndDistanceAt = [this](double ms) {
        AdvanceTo(ms);
        std::vector<double> values;
        const auto reading = mSource->Latest(ContextItem::Pedometer);
        for (const SensorValue &value : *reading) {
            values.push_back(std::get<double>(value.mValue));
        }
        return values;
    };
    EXPECT_THAT(stepsAndDistanceAt(3000), ElementsAre(2147483647.0, 800000000.0));
    EXPECT_THAT(stepsAndDistanceAt(4000), ElementsAre(2147483647.0, 800000000.0));
    EXPECT_THAT(stepsAndDistanceAt(5000), ElementsAre(2147483647.0, 1e9));
    EXPECT_THAT(stepsAndDistanceAt(2e12), ElementsAre(2147483647.0, 1e9));
}

TEST_F(ReplaySourceTest, FractionsDoNotMakeACounterGoDownAtASeam)
{
    Play("0,,,,,0.1,,,,\n1000,,,,,0.30000000000000004,,,,\n2000,,,,,12.7,,,,\n");
    double last = 0.0;
    for (int round = 0; round < 20000; ++round) {
        for (const double rowMs : {0.0, 1000.0, 2000.0}) {
            AdvanceTo(round * 3000.0 + rowMs);
            const SensorReading reading = *mSource->Latest(ContextItem::Pedometer);
            const double distance = std::get<double>(reading.begin()->mValue);
            ASSERT_GE(distance, last) << "round " << round << ", " << rowMs << " ms";
            last = distance;
        }
    }
    EXPECT_NEAR(last, 12.7 + 19999 * 12.6, 1e-6);
}

TEST_F(ReplaySourceTest, FieldThatStartsLateIsKnownFromTheRoundBefore)
{
    Play("0,,1,,,,,,,\n1000,,2,,,,5,6,,\n");
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(2000);
    EXPECT_THAT(
        Take(),
        ElementsAre("0: 2 pedometer/total_steps=1",
                    "1000: 2 pedometer/total_steps=2 pedometer/calories=5 pedometer/speed=6",
                    "2000: 2 pedometer/total_steps=2 pedometer/calories=5 "
                    "pedometer/speed=6"));
}

TEST_F(ReplaySourceTest, WithoutLoopItEndsAfterTheLastRow)
{
    Play("0,60,,,,,,,,\n1000,61,,,,,,,,\n", {1.0, false});
    mSource->Start(ContextItem::HeartRate);
    AdvanceTo(1000);
    EXPECT_THAT(Take(), SizeIs(2));
    EXPECT_EQ(DueUs(), -1);
    AdvanceTo(1e9);
    EXPECT_EQ(Latest(ContextItem::HeartRate), "7 hrm/heart_rate=61");
}

TEST_F(ReplaySourceTest, ItemThatHasHadItsLastRowIsStartedAndSilent)
{
    Play("0,60,,,,,,,1,\n1000,61,,,,,,,,\n", {1.0, false});
    AdvanceTo(500);
    EXPECT_EQ(mSource->Start(ContextItem::Activity), 0);
    EXPECT_EQ(DueUs(), -1);
    EXPECT_EQ(Latest(ContextItem::Activity), "23 activity/status=1");
    AdvanceTo(1e9);
    EXPECT_EQ(mSource->Start(ContextItem::HeartRate), 0);
    EXPECT_EQ(DueUs(), -1);
    EXPECT_THAT(Take(), IsEmpty());
}

TEST_F(ReplaySourceTest, LateTimerDeliversAllThatIsDue)
{
    Play("0,60,,,,,,,,\n1000,61,4,,,,,,,\n2000,62,,,,,,,,\n3000,63,,,,,,,,\n");
    mSource->Start(ContextItem::HeartRate);
    mSource->Start(ContextItem::Pedometer);
    FireLateAt(2500);
    EXPECT_THAT(Take(),
                ElementsAre("2500: 7 hrm/heart_rate=60", "2500: 7 hrm/heart_rate=61",
                            "2500: 2 pedometer/total_steps=4", "2500: 7 hrm/heart_rate=62"));
    EXPECT_EQ(DueUs(), 3'000'000);
}

TEST_F(ReplaySourceTest, RowsThatTakeLongAreSpreadOverTurns)
{
    Play("0,60,,,,,,,,\n1,61,,,,,,,,\n2,62,,,,,,,,\n1000,63,,,,,,,,\n");
    mSource->Start(ContextItem::HeartRate);
    mOnReading = [this](ContextItem) { mClock.mMonotonicUs += 3000; };
    FireLateAt(10);
    EXPECT_THAT(Take(), ElementsAre("10: 7 hrm/heart_rate=60", "13: 7 hrm/heart_rate=61"));
    EXPECT_EQ(DueUs(), 2000); // at once
    EXPECT_EQ(Latest(ContextItem::HeartRate), "7 hrm/heart_rate=61");

    mTimer->Fire();
    EXPECT_THAT(Take(), ElementsAre("16: 7 hrm/heart_rate=62"));
    EXPECT_EQ(DueUs(), 1'000'000);
}

TEST_F(ReplaySourceTest, WholeRoundsThatWereMissedAreLeftOut)
{
    Play("0,60,1,,,,,,,\n1000,61,5,,,,,,,\n"); // a round takes 2000 ms and counts 4 steps
    mSource->Start(ContextItem::HeartRate);
    mSource->Start(ContextItem::Pedometer);
    FireLateAt(2'000'000'000 + 500); // in round 1000000
    EXPECT_THAT(Take(),
                ElementsAre("2e+09: 7 hrm/heart_rate=60", "2e+09: 2 pedometer/total_steps=4e+06"));
    EXPECT_EQ(DueUs(), 2'000'001'000'000);
}

TEST_F(ReplaySourceTest, OneRoundLateIsStillDeliveredWhole)
{
    Play("0,60,,,,,,,,\n1000,61,,,,,,,,\n");
    mSource->Start(ContextItem::HeartRate);
    FireLateAt(1000);
    EXPECT_THAT(Take(), SizeIs(2));
    FireLateAt(5000); // due are 2000, 3000, 4000, 5000: the first two make a round
    EXPECT_THAT(Take(), ElementsAre("5000: 7 hrm/heart_rate=60", "5000: 7 hrm/heart_rate=61"));
}

TEST_F(ReplaySourceTest, LatestIsTheNewestRowWithAValue)
{
    Play("1000,60,,,,,,,1,\n2000,,,,,,,,,\n3000,61,,,,,,,,\n");
    EXPECT_EQ(Latest(ContextItem::HeartRate), "none");
    AdvanceTo(1000);
    EXPECT_EQ(Latest(ContextItem::HeartRate), "7 hrm/heart_rate=60");
    AdvanceTo(2999);
    EXPECT_EQ(Latest(ContextItem::HeartRate), "7 hrm/heart_rate=60");
    AdvanceTo(3000);
    EXPECT_EQ(Latest(ContextItem::HeartRate), "7 hrm/heart_rate=61");
    EXPECT_EQ(Latest(ContextItem::Activity), "23 activity/status=1");
    AdvanceTo(4500); // the second round has begun, its first row has not
    EXPECT_EQ(Latest(ContextItem::HeartRate), "7 hrm/heart_rate=61");
    AdvanceTo(5000);
    EXPECT_EQ(Latest(ContextItem::HeartRate), "7 hrm/heart_rate=60");
}

TEST_F(ReplaySourceTest, LatestIsRightAtTheEdgesOfManyRounds)
{
    // Rounds of 33 ms, of 3 steps each.
    Play("0,60,1,,,,,9,,\n7,61,3,,,,,,,\n20,62,4,,,,,8,,\n", {7.0, true});
    for (std::int64_t round = 0; round < 2000; ++round) {
        const double roundMs = static_cast<double>(round) * 33.0;
        mClock.mMonotonicUs = kStartUs + static_cast<std::int64_t>(std::ceil(roundMs * 1000 / 7.0));
        const std::string steps = "2 pedometer/total_steps=" + std::to_string(round * 3 + 1);
        ASSERT_EQ(Latest(ContextItem::Pedometer), steps + " pedometer/speed=9");
        --mClock.mMonotonicUs;
        if (round > 0) {
            ASSERT_EQ(Latest(ContextItem::Pedometer), steps + " pedometer/speed=8");
        }
    }
}

TEST_F(ReplaySourceTest, FurtherValuesComeWithTheirRowsOnly)
{
    PlayAll({std::string(kAllNames) + "0,60,,,,,,,2,,812.5,98,3,\n1,61,,,,,,,1,,,,,\n"
                                      "2,,,,,,,,,,800,,,\n3,,,,,,,,,,,,1,\n"});
    mSource->Start(ContextItem::HeartRate);
    mSource->Start(ContextItem::Activity);
    AdvanceTo(3);
    EXPECT_THAT(Take(), ElementsAre("0: 7 hrm/heart_rate=60 hrm/peak_to_peak=812.5 hrm/spo2=98",
                                    "0: 23 activity/status=2 activity/accuracy=3",
                                    "1: 7 hrm/heart_rate=61", "1: 23 activity/status=1",
                                    "2: 7 hrm/peak_to_peak=800", "3: 23 activity/accuracy=1"));
}

TEST_F(ReplaySourceTest, RowsOfTheSameTimeKeepTheirOrder)
{
    Play("5,,,,,,,,,4\n5,,1,,,,,,,\n5,60,,,,,,,,\n5,,2,,,,,,,\n5,61,,,,,,,1,\n");
    for (const ContextItem item : {ContextItem::Gesture, ContextItem::Pedometer,
                                   ContextItem::HeartRate, ContextItem::Activity}) {
        mSource->Start(item);
    }
    AdvanceTo(5);
    EXPECT_THAT(Take(), ElementsAre("5: 1 motion/action=4", "5: 2 pedometer/total_steps=1",
                                    "5: 7 hrm/heart_rate=60", "5: 2 pedometer/total_steps=2",
                                    "5: 7 hrm/heart_rate=61", "5: 23 activity/status=1"));
}

TEST_F(ReplaySourceTest, FilesArePlayedWithoutAGapAndRoundAgain)
{
    PlayAll({std::string(kNames) + "0,60,5,,,,,,,\n1000,61,9,,,,,,,\n",
             std::string(kNames) + "0,70,0,,,1.5,,,,\n500,71,4,,,,,,,\n"});
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(2999);
    EXPECT_THAT(Take(),
                ElementsAre("0: 2 pedometer/total_steps=5", "1000: 2 pedometer/total_steps=9",
                            "2000: 2 pedometer/total_steps=9 pedometer/distance=1.5",
                            "2500: 2 pedometer/total_steps=13 pedometer/distance=1.5"));
    AdvanceTo(5999);
    EXPECT_THAT(Take(), ElementsAre("3000: 2 pedometer/total_steps=13 pedometer/distance=1.5",
                                    "4000: 2 pedometer/total_steps=17 pedometer/distance=1.5",
                                    "5000: 2 pedometer/total_steps=17 pedometer/distance=1.5",
                                    "5500: 2 pedometer/total_steps=21 pedometer/distance=1.5"));
    AdvanceTo(6000);
    EXPECT_THAT(Take(), ElementsAre("6000: 2 pedometer/total_steps=21 pedometer/distance=1.5"));
}

TEST_F(ReplaySourceTest, WithoutLoopTheLastFileIsTheEnd)
{
    PlayAll({std::string(kNames) + "0,60,,,,,,,,\n", std::string(kNames) + "0,70,,,,,,,,\n"},
            {1.0, false});
    mSource->Start(ContextItem::HeartRate);
    AdvanceTo(1e6);
    EXPECT_THAT(Take(), ElementsAre("0: 7 hrm/heart_rate=60", "1000: 7 hrm/heart_rate=70"));
    EXPECT_EQ(DueUs(), -1);
}

TEST_F(ReplaySourceTest, PedometerThatBeginsAnewDoesSoInEachRound)
{
    PlayAll(
        {std::string(kAllNames) + "0,,90,,,5,,,,,,,,\n1000,,2,,,,,,,,,,,1\n2000,,7,,,,,,,,,,,\n"});
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(8000);
    EXPECT_THAT(Take(),
                ElementsAre("0: 2 pedometer/total_steps=90 pedometer/distance=5",
                            "1000: 2 pedometer/total_steps=2", "2000: 2 pedometer/total_steps=7",
                            "3000: 2 pedometer/total_steps=7 pedometer/distance=5",
                            "4000: 2 pedometer/total_steps=2", "5000: 2 pedometer/total_steps=7",
                            "6000: 2 pedometer/total_steps=7 pedometer/distance=5",
                            "7000: 2 pedometer/total_steps=2", "8000: 2 pedometer/total_steps=7"));
}

TEST_F(ReplaySourceTest, CountersGoOnAfterAValueWasForgottenAndItIsSoInEachRound)
{
    PlayAll(
        {std::string(kAllNames) + "0,,5,,,,,3,,,,,,\n1000,,6,,,,,,,,,,,2\n2000,,9,,,,,,,,,,,\n"});
    mSource->Start(ContextItem::Pedometer);
    AdvanceTo(7000);
    EXPECT_THAT(Take(),
                ElementsAre("0: 2 pedometer/total_steps=5 pedometer/speed=3",
                            "1000: 2 pedometer/total_steps=6", "2000: 2 pedometer/total_steps=9",
                            "3000: 2 pedometer/total_steps=9 pedometer/speed=3",
                            "4000: 2 pedometer/total_steps=10", "5000: 2 pedometer/total_steps=13",
                            "6000: 2 pedometer/total_steps=13 pedometer/speed=3",
                            "7000: 2 pedometer/total_steps=14"));
}

TEST_F(ReplaySourceTest, ListenerThatThrowsDoesNotEndTheReplay)
{
    Play("0,60,1,,,,,,,\n1000,61,2,,,,,,,\n");
    mSource->Start(ContextItem::HeartRate);
    mSource->Start(ContextItem::Pedometer);
    mOnReading = [](ContextItem item) {
        if (item == ContextItem::HeartRate) {
            throw std::bad_alloc();
        }
    };
    EXPECT_THROW(FireLateAt(0), std::bad_alloc);
    mOnReading = nullptr;
    AdvanceTo(1000);
    EXPECT_THAT(Take(),
                ElementsAre("0: 7 hrm/heart_rate=60", "0: 2 pedometer/total_steps=1",
                            "1000: 7 hrm/heart_rate=61", "1000: 2 pedometer/total_steps=2"));
}

TEST_F(ReplaySourceTest, ListenerMayStopTheItemInItsCall)
{
    Play("0,60,,,,,,,,\n0,61,,,,,,,,\n");
    mSource->Start(ContextItem::HeartRate);
    mOnReading = [this](ContextItem item) { mSource->Stop(item); };
    AdvanceTo(0);
    EXPECT_THAT(Take(), SizeIs(1));
    EXPECT_EQ(DueUs(), -1);
}

TEST_F(ReplaySourceTest, ItemThatIsStartedAnewInItsCallDoesNotComeTwice)
{
    Play("0,60,,,,,,,,\n1000,61,,,,,,,,\n");
    mSource->Start(ContextItem::HeartRate);
    mOnReading = [this](ContextItem item) {
        mSource->Stop(item);
        mSource->Start(item);
    };
    AdvanceTo(0);
    EXPECT_THAT(Take(), ElementsAre("0: 7 hrm/heart_rate=60"));
    EXPECT_EQ(DueUs(), 1'000'000);
}

TEST_F(ReplaySourceTest, ListenerMayStartAnotherItemInItsCall)
{
    Play("0,60,1,,,,,,,\n1000,61,2,,,,,,,\n");
    mSource->Start(ContextItem::HeartRate);
    mOnReading = [this](ContextItem item) {
        if (item == ContextItem::HeartRate) {
            mSource->Start(ContextItem::Pedometer);
        }
    };
    AdvanceTo(0);
    EXPECT_THAT(Take(), ElementsAre("0: 7 hrm/heart_rate=60"));
    mOnReading = nullptr;
    AdvanceTo(1000);
    EXPECT_THAT(Take(),
                ElementsAre("1000: 7 hrm/heart_rate=61", "1000: 2 pedometer/total_steps=2"));
}

TEST_F(ReplaySourceTest, LatestOfAStartedItemIsNotAheadOfItsReadings)
{
    Play("0,60,,,,,,,,\n1000,61,,,,,,,,\n2000,62,,,,,,,,\n");
    mSource->Start(ContextItem::HeartRate);
    AdvanceTo(0);
    mClock.mMonotonicUs = kStartUs + 2'000'000; // the timer is late
    EXPECT_EQ(Latest(ContextItem::HeartRate), "7 hrm/heart_rate=60");
    mTimer->Fire();
    EXPECT_EQ(Latest(ContextItem::HeartRate), "7 hrm/heart_rate=62");
}

TEST_F(ReplaySourceTest, WithoutAListenerNothingBreaks)
{
    Play("0,60,,,,,,,,\n");
    mSource->SetListener(nullptr);
    mSource->Start(ContextItem::HeartRate);
    AdvanceTo(0);
    EXPECT_THAT(Take(), IsEmpty());
    EXPECT_EQ(DueUs(), 1'000'000);
}

} // namespace ParvanePlatform
