#include "Session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PlayedSession.h"

using namespace ParvaneHost;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

SessionOptions Trusting(bool countsSteps = false)
{
    SessionOptions options;
    options.mProvesLink = false;
    options.mAsksWorn = false;
    options.mCountsSteps = countsSteps;
    return options;
}

/** Requests and their answers, on a link that is not put to the proof. */
class SessionTest : public testing::Test
{
protected:
    SessionTest()
    {
        mPlayed.mSession.Connected(mPlayed.Now());
        EXPECT_THAT(mPlayed.Texts(), ElementsAre("linked"));
    }

    RequestId Measure(Sensor sensor) { return mPlayed.mSession.Measure(sensor, mPlayed.Now()); }

    PlayedSession mPlayed{Trusting()};
};

} // namespace

TEST_F(SessionTest, ListIsTheHeaderAndAsManyEntriesAsItCounts)
{
    mPlayed.mSession.List(mPlayed.Now());
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("11000000"));
    mPlayed.Hear({ListHeader(0x91, 2), ListEntry(0x91, 1, 1), ListEntry(0x91, 2, 2)});

    const auto events = mPlayed.Events();
    ASSERT_EQ(events.size(), 1U);
    const auto &told = std::get<Told::NewList>(events.front());
    EXPECT_EQ(told.mRequest, 1U);
    EXPECT_EQ(told.mList.mHeader.AddressText(), "AA:BB:CC:DD:EE:FF");
    EXPECT_EQ(told.mList.mEntries.at(0).mSensor, Sensor::Activity);
    EXPECT_EQ(told.mList.mEntries.at(1).mSensor, Sensor::Pedometer);
}

TEST_F(SessionTest, EmptyListIsJustTheHeader)
{
    mPlayed.mSession.List(mPlayed.Now());
    mPlayed.Hear({ListHeader(0x91, 0)});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("list of 0 #1"));
}

TEST_F(SessionTest, PushAmidTheListIsTold)
{
    mPlayed.mSession.List(mPlayed.Now());
    mPlayed.Hear({ListHeader(0x91, 1), ReadingPacket(0x02, 2, 2), ListEntry(0x91, 1, 3)});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("steps 2", "list of 1 #1"));
}

TEST_F(SessionTest, EntriesOutOfOrderEndTheList)
{
    mPlayed.mSession.List(mPlayed.Now());
    mPlayed.Hear({ListHeader(0x91, 2), ListEntry(0x91, 2, 2), ListEntry(0x91, 2, 2)});
    EXPECT_THAT(mPlayed.Texts(),
                ElementsAre("failed list #1: sensor entry 2 where entry 1 was due"));
}

TEST_F(SessionTest, EntriesWithoutAHeaderOrOfAnotherListAreNone)
{
    mPlayed.Hear({ListHeader(0x91, 1), ListEntry(0x91, 1, 1)});
    mPlayed.mSession.List(mPlayed.Now());
    mPlayed.Hear({ListEntry(0x91, 1, 1), ListHeader(0xA1, 1), ListHeader(0x91, 1),
                  ListEntry(0xA1, 1, 1), ListEntry(0x91, 1, 1)});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("list of 1 #1"));
}

TEST_F(SessionTest, ListThatStopsHalfwayIsGivenUp)
{
    mPlayed.mSession.List(mPlayed.Now());
    mPlayed.Hear({ListHeader(0x91, 2), ListEntry(0x91, 1, 1)});
    mPlayed.Until(5s);
    EXPECT_THAT(mPlayed.Texts(),
                ElementsAre("failed list #1: no answer to the sensor list within 5 s"));
}

TEST_F(SessionTest, MeasurementIsAnsweredByItsSensorAndCommand)
{
    Measure(Sensor::HeartRate);
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("12000003"));
    mPlayed.Hear(
        {ReadingPacket(0x12, 2, 1), ReadingPacket(0x13, 3, 2), ReadingPacket(0x12, 3, 72)});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("steps 1", "hr 2", "hr 72 #1"));
}

TEST_F(SessionTest, FlagsTakeTurnsAndLeaveOutZero)
{
    for (const std::uint8_t first : Bytes{0x12, 0x22, 0x32, 0x12}) {
        Measure(Sensor::Activity);
        mPlayed.Hear({ReadingPacket(first, 1, 1)});
    }
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("12000001", "22000001", "32000001", "12000001"));
    EXPECT_THAT(mPlayed.Texts(),
                ElementsAre("activity 1 #1", "activity 1 #2", "activity 1 #3", "activity 1 #4"));
}

TEST_F(SessionTest, FirstFlagsOutOfRangeBecomeOne)
{
    for (const std::uint8_t flags : Bytes{0, 4, 255}) {
        SessionOptions options = Trusting();
        options.mFirstFlags = flags;
        PlayedSession played(options);
        played.mSession.Connected(played.Now());
        played.mSession.Stop(Sensor::Activity, played.Now());
        EXPECT_THAT(played.Sent(), ElementsAre("14000001"));
    }
}

TEST_F(SessionTest, ManyQuestionsAreAskedAtATime)
{
    for (const Sensor sensor :
         {Sensor::Activity, Sensor::Pedometer, Sensor::HeartRate, Sensor::WearState}) {
        Measure(sensor);
    }
    mPlayed.mSession.List(mPlayed.Now());
    EXPECT_THAT(mPlayed.Sent(),
                ElementsAre("12000001", "22000002", "32000003", "12000004", "21000000"));
    mPlayed.Hear({ReadingPacket(0x32, 3, 72), ListHeader(0xA1, 0), ReadingPacket(0x12, 4, 1),
                  ReadingPacket(0x22, 2, 35), ReadingPacket(0x12, 1, 2)});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("hr 72 #3", "list of 0 #5", "wear 1 #4", "steps 35 #2",
                                             "activity 2 #1"));
}

TEST_F(SessionTest, QuestionThatIsBeingAskedIsNotAskedTwice)
{
    EXPECT_EQ(mPlayed.mSession.Measure(Sensor::HeartRate, mPlayed.Now(), 1s), 1U);
    mPlayed.Until(500ms);
    EXPECT_EQ(mPlayed.mSession.Measure(Sensor::HeartRate, mPlayed.Now(), 3s), 1U);
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("12000003"));
    mPlayed.Until(3s);
    EXPECT_THAT(mPlayed.Texts(), IsEmpty());
    mPlayed.Until(3500ms);
    EXPECT_THAT(mPlayed.Texts(),
                ElementsAre("failed hr #1: no answer to the measurement of 'hr' within 3 s"));
}

TEST_F(SessionTest, LateAnswerIsNotTakenForTheAnswerToTheNextRequest)
{
    Measure(Sensor::HeartRate);
    mPlayed.Until(20s);
    EXPECT_THAT(mPlayed.Texts(),
                ElementsAre("failed hr #1: no answer to the measurement of 'hr' within 20 s"));
    Measure(Sensor::HeartRate);
    mPlayed.Hear({ReadingPacket(0x12, 3, 1), ReadingPacket(0x22, 3, 72)});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("hr 1", "hr 72 #2"));
}

TEST_F(SessionTest, StepsPushedBeforeTheRequestArrivedAreNotItsAnswer)
{
    Measure(Sensor::Pedometer);
    mPlayed.Hear({ReadingPacket(0x02, 2, 1), ReadingPacket(0x12, 2, 2)});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("steps 1", "steps 2 #1"));
}

TEST_F(SessionTest, EachQuestionIsGivenUpAtItsOwnTime)
{
    mPlayed.mSession.Measure(Sensor::HeartRate, mPlayed.Now(), 250ms);
    Measure(Sensor::Activity);
    EXPECT_EQ(mPlayed.mSession.Deadline(), mPlayed.Now().mSteady + 250ms);
    mPlayed.Until(249ms);
    EXPECT_THAT(mPlayed.Texts(), IsEmpty());
    mPlayed.Until(250ms);
    EXPECT_THAT(mPlayed.Texts(),
                ElementsAre("failed hr #1: no answer to the measurement of 'hr' within 0.25 s"));
    EXPECT_EQ(mPlayed.mSession.Deadline(), mPlayed.Now().mSteady + 4750ms);
    mPlayed.Hear({ReadingPacket(0x22, 1, 1)});
    EXPECT_EQ(mPlayed.mSession.Deadline(), std::nullopt);
}

TEST_F(SessionTest, PushesDoNotPutOffTheTimeout)
{
    Measure(Sensor::HeartRate);
    for (int second = 1; second <= 20; ++second) {
        mPlayed.Until(std::chrono::seconds{second} - 1ms);
        mPlayed.Hear({ReadingPacket(0x02, 2, 1)});
    }
    mPlayed.Until(20s);
    EXPECT_EQ(mPlayed.Texts().back(),
              "failed hr #1: no answer to the measurement of 'hr' within 20 s");
}

TEST_F(SessionTest, WornStateIsAskedForAgainWhenTheWatchKeepsSilent)
{
    Measure(Sensor::WearState);
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("12000004"));
    mPlayed.Until(3499ms);
    EXPECT_THAT(mPlayed.Sent(), IsEmpty());
    mPlayed.Until(3500ms);
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("12000004"));
    mPlayed.Hear({ReadingPacket(0x12, 4, 1)});
    mPlayed.Until(60s);
    EXPECT_THAT(mPlayed.Sent(), IsEmpty());
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("wear 1 #1"));
}

TEST_F(SessionTest, WornStateIsTakenWithTheFlagsOfTheRequestBefore)
{
    Measure(Sensor::WearState);
    mPlayed.Hear({ReadingPacket(0x32, 4, 1)});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("wear 1 #1"));
}

TEST_F(SessionTest, WornStateIsNotAskedForAgainAfterItsTime)
{
    mPlayed.mSession.Measure(Sensor::WearState, mPlayed.Now(), 3500ms);
    mPlayed.Sent();
    mPlayed.Until(60s);
    EXPECT_THAT(mPlayed.Sent(), IsEmpty());
    EXPECT_EQ(mPlayed.Texts().size(), 1U);
}

TEST_F(SessionTest, SensorThatTheWatchDoesNotHaveIsNotAskedFor)
{
    EXPECT_EQ(Measure(Sensor{9}), 1U);
    mPlayed.mSession.Stop(Sensor{0}, mPlayed.Now());
    mPlayed.mSession.Follow(Sensor{200}, mPlayed.Now());
    EXPECT_THAT(mPlayed.Sent(), IsEmpty());
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("failed unknown #1: the watch has no such sensor",
                                             "failed unknown #2: the watch has no such sensor",
                                             "failed unknown: the watch has no such sensor"));
    EXPECT_FALSE(mPlayed.mSession.Follows(Sensor{200}));
}

TEST_F(SessionTest, StopIsAcknowledgedByItsSensorAndFlags)
{
    mPlayed.mSession.Stop(Sensor::Activity, mPlayed.Now());
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("14000001"));
    mPlayed.Hear({{0x34, 2, 0, 1}, {0x14, 2, 0, 3}});
    EXPECT_THAT(mPlayed.Texts(), IsEmpty());
    mPlayed.Hear({{0x14, 2, 0, 1}, {0x14, 2, 0, 1}});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("stopped activity #1"));
}

TEST_F(SessionTest, PacketThatIsNoneIsToldAndEndsNothing)
{
    Measure(Sensor::Activity);
    mPlayed.Hear({{0x12, 0x00}, {0x15, 0x00, 0x02, 0x01}, ReadingPacket(0x12, 1, 1)});
    EXPECT_THAT(mPlayed.Texts(),
                ElementsAre("nonsense: packet size (offset 2): expected 4, 13, 18 or "
                            "25 bytes, found 2 bytes",
                            "activity 1 #1"));
}

TEST_F(SessionTest, ReadingsHaveTheirTimeAndWhatTheyAreWorth)
{
    PlayedSession played(Trusting(), Instant{1000s});
    played.mSession.Connected(played.Now());
    played.Hear({ReadingPacket(0x12, 4, 1), ReadingPacket(0x12, 3, 0)});
    const auto events = played.Events();
    const auto &told = std::get<Told::NewReading>(events.back());
    EXPECT_EQ(told.mWatchTime, Instant{1000s});
    EXPECT_FALSE(told.mObservation.IsMeasurement());
    EXPECT_EQ(told.mObservation.mWorn, Worn::Yes);
    EXPECT_TRUE(told.mObservation.mIsUnbroken);
    played.mSession.Lost("gone", played.Now());
    EXPECT_FALSE(played.mSession.Latest(Sensor::HeartRate)->mIsUnbroken);
}

TEST_F(SessionTest, WornStateIsAskedForWithAHeartRateUnlessItWasJustTold)
{
    SessionOptions options = Trusting();
    options.mAsksWorn = true;
    PlayedSession played(options);
    played.mSession.Connected(played.Now());
    played.mSession.Follow(Sensor::HeartRate, played.Now());
    EXPECT_THAT(played.Sent(), ElementsAre("12000003", "22000004"));
    played.Hear({ReadingPacket(0x22, 4, 1)});
    played.Until(15s);
    played.Hear({ReadingPacket(0x12, 3, 72)});
    EXPECT_EQ(std::get<Told::NewReading>(played.Events().back()).mObservation.mWorn, Worn::Yes);
    EXPECT_THAT(played.Sent(), ElementsAre("32000003"));
    played.Until(31s);
    played.Hear({ReadingPacket(0x32, 3, 72)});
    EXPECT_THAT(played.Sent(), ElementsAre("12000003", "22000004"));
}

// What lay in the link while the process was held up is as old as its time says, whatever the clocks.
TEST_F(SessionTest, AgeBeginsWhenTheReadingWasSent)
{
    const auto heartRate = [](std::uint8_t minutes) {
        Bytes packet = ReadingPacket(0x12, 3, 72); // its time is 1,000,000 ms
        const std::uint32_t time = 1000000U + minutes * 60000U;
        for (unsigned byte = 0; byte < 4; ++byte) {
            packet[9 + byte] = static_cast<std::uint8_t>(time >> (24 - 8 * byte));
        }
        return packet;
    };
    const auto age = [this](const Told::Event &event) {
        return std::get<Told::NewReading>(event).mObservation.Age(mPlayed.Now().mWall);
    };
    mPlayed.Hear({heartRate(0)});
    EXPECT_EQ(age(mPlayed.Events().back()), 0s);
    mPlayed.Sleep(60min);
    mPlayed.Hear({heartRate(1), heartRate(60)});
    const auto events = mPlayed.Events();
    EXPECT_EQ(age(events.at(0)), 59min);
    EXPECT_EQ(age(events.at(1)), 0s);
    mPlayed.Hear({heartRate(30)}); // the watch's clock was set back
    EXPECT_EQ(age(mPlayed.Events().back()), 0s);
}

TEST_F(SessionTest, TimeOfZeroIsNone)
{
    Bytes packet = ReadingPacket(0x12, 3, 72);
    std::fill(packet.begin() + 9, packet.begin() + 13, std::uint8_t{0});
    mPlayed.Hear({packet});
    EXPECT_EQ(std::get<Told::NewReading>(mPlayed.Events().back()).mWatchTime, std::nullopt);
}

// --- followed sensors ---------------------------------------------------------------------------

TEST_F(SessionTest, FollowedActivityIsStoppedStartedAndThenPushed)
{
    mPlayed.mSession.Follow(Sensor::Activity, mPlayed.Now());
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("14000001"));
    mPlayed.Hear({ReadingPacket(0x33, 1, 3)}); // pushed before the stop
    EXPECT_THAT(mPlayed.Sent(), IsEmpty());
    mPlayed.Hear({{0x14, 2, 0, 1}});
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("2300000100"));
    mPlayed.Hear({ReadingPacket(0x23, 1, 1), ReadingPacket(0x23, 1, 2)});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("activity 3", "activity 1", "activity 2"));
    EXPECT_EQ(mPlayed.mSession.Deadline(), std::nullopt);

    mPlayed.mSession.Stop(Sensor::Activity, mPlayed.Now());
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("34000001"));
    mPlayed.Hear({{0x34, 2, 0, 1}});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("stopped activity #3"));
    EXPECT_THAT(mPlayed.Sent(), IsEmpty()) << "it is wanted no more";
}

TEST_F(SessionTest, StartThatIsNotAnsweredEndsTheLink)
{
    mPlayed.mSession.Follow(Sensor::Activity, mPlayed.Now());
    mPlayed.Hear({{0x14, 2, 0, 1}});
    mPlayed.Until(5s);
    EXPECT_THAT(mPlayed.Texts(),
                ElementsAre("lost: no answer to the start of 'activity' within 5 s"));
    EXPECT_FALSE(mPlayed.mSession.WantsLink());
}

TEST_F(SessionTest, FollowedStepsAreAskedForOnceAndPushed)
{
    mPlayed.mSession.Follow(Sensor::Pedometer, mPlayed.Now());
    mPlayed.Hear({ReadingPacket(0x12, 2, 1), ReadingPacket(0x12, 2, 3)});
    mPlayed.Until(1h);
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("12000002"));
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("steps 1", "steps 3"));
}

TEST_F(SessionTest, FollowedHeartRateIsMeasuredAgainAfterEachAnswer)
{
    mPlayed.mSession.Follow(Sensor::HeartRate, mPlayed.Now());
    mPlayed.Hear({ReadingPacket(0x12, 3, 71), ReadingPacket(0x22, 3, 0)});
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("12000003", "22000003", "32000003"));
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("hr 71", "hr 0"));
}

TEST_F(SessionTest, FollowedHeartRateKeepsThePauseThatIsWanted)
{
    mPlayed.mSession.Follow(Sensor::HeartRate, mPlayed.Now(), 60s);
    mPlayed.Sent();
    mPlayed.Until(15s);
    mPlayed.Hear({ReadingPacket(0x12, 3, 71)});
    mPlayed.Until(59'999ms);
    EXPECT_THAT(mPlayed.Sent(), IsEmpty());
    mPlayed.Until(60s);
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("22000003"));
}

TEST_F(SessionTest, FollowedWornStateIsAskedForAgainOnlyAfterItsTime)
{
    mPlayed.mSession.Follow(Sensor::WearState, mPlayed.Now());
    mPlayed.Hear({ReadingPacket(0x12, 4, 1)});
    mPlayed.Until(3499ms);
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("12000004"));
    mPlayed.Until(3500ms);
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("22000004"));
}

TEST_F(SessionTest, MeasurementJoinsTheQuestionOfAFollowedSensor)
{
    mPlayed.mSession.Follow(Sensor::HeartRate, mPlayed.Now());
    const RequestId request = Measure(Sensor::HeartRate);
    mPlayed.Hear({ReadingPacket(0x12, 3, 71)});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("hr 71 #" + std::to_string(request)));
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("12000003", "22000003")) << "it is followed on";
}

TEST_F(SessionTest, SensorWithoutAnAnswerIsLeftOutUntilItSpeaks)
{
    mPlayed.mSession.Follow(Sensor::HeartRate, mPlayed.Now());
    mPlayed.Until(60s);
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("12000003"));
    EXPECT_THAT(mPlayed.Texts(),
                ElementsAre("failed hr: no answer to the measurement of 'hr' within 20 s"));
    mPlayed.Hear({ReadingPacket(0x12, 3, 70)});
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("22000003"));
}

TEST_F(SessionTest, SeveralSensorsAreFollowedAtATime)
{
    for (const Sensor sensor :
         {Sensor::WearState, Sensor::HeartRate, Sensor::Pedometer, Sensor::Activity}) {
        mPlayed.mSession.Follow(sensor, mPlayed.Now());
    }
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("12000004", "22000003", "32000002", "14000001"));
    mPlayed.Hear({{0x14, 2, 0, 1},
                  ReadingPacket(0x12, 4, 1),
                  ReadingPacket(0x32, 2, 9),
                  ReadingPacket(0x22, 3, 72),
                  ReadingPacket(0x23, 1, 2)});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("wear 1", "steps 9", "hr 72", "activity 2"));
}

// --- steps --------------------------------------------------------------------------------------

namespace {

class StepsSessionTest : public testing::Test
{
protected:
    StepsSessionTest() { mPlayed.mSession.Connected(mPlayed.Now()); }

    [[nodiscard]] std::int64_t Steps() const
    {
        return mPlayed.mSession.Steps().Days().begin()->second.mSteps;
    }

    PlayedSession mPlayed{Trusting(true)};
};

} // namespace

TEST_F(StepsSessionTest, StepsAreAskedForUntilTheyAreKnown)
{
    mPlayed.mSession.Measure(Sensor::Pedometer, mPlayed.Now());
    mPlayed.Hear({ReadingPacket(0x12, 2, 100)});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("linked", "steps 100 ?"));
    mPlayed.Hear({ReadingPacket(0x22, 2, 140)});
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("12000002", "22000002"));
    auto events = mPlayed.Events();
    ASSERT_EQ(events.size(), 1U);
    const auto &first = std::get<Told::NewReading>(events.front());
    EXPECT_EQ(first.mRequest, 1U);
    EXPECT_EQ(first.mSteps->mSteps->mSteps, 0);
    EXPECT_TRUE(first.mSteps->mSteps->mIsExact);

    mPlayed.Hear({ReadingPacket(0x22, 2, 190)}); // a count of 50 after one of 40
    events = mPlayed.Events();
    EXPECT_EQ(std::get<Told::NewReading>(events.back()).mSteps->mSteps->mSteps, 10);
}

TEST_F(StepsSessionTest, FollowedStepsAreAskedForTwiceAfterEachLoss)
{
    mPlayed.mSession.Follow(Sensor::Pedometer, mPlayed.Now());
    mPlayed.Hear(
        {ReadingPacket(0x12, 2, 0), ReadingPacket(0x22, 2, 0), ReadingPacket(0x22, 2, 10)});
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("12000002", "22000002"));
    mPlayed.mSession.Lost("gone", mPlayed.Now());
    mPlayed.Until(1s);
    mPlayed.mSession.Connected(mPlayed.Now());
    // 20 were walked meanwhile: the total has grown by unseen counts, the count is 30.
    mPlayed.Hear({ReadingPacket(0x32, 2, 70), ReadingPacket(0x12, 2, 100)});
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("32000002", "12000002"));
    EXPECT_EQ(Steps(), 30);
}

TEST_F(StepsSessionTest, QuestionsForStepsThatDoNotHelpHaveAnEnd)
{
    mPlayed.mSession.Follow(Sensor::Pedometer, mPlayed.Now());
    for (std::uint8_t answer = 0; answer < 4; ++answer) {
        const auto first = static_cast<std::uint8_t>(0x12 + answer % 3 * 16);
        mPlayed.Hear({ReadingPacket(first, 2, 0.5F)}); // no total at all
    }
    EXPECT_EQ(mPlayed.Sent().size(), 4U);
    EXPECT_EQ(mPlayed.Texts().back(), "steps 1") << "what there is, it is settled";
}

TEST_F(StepsSessionTest, StepsThatNobodyAsksForAreCountedWithoutAQuestion)
{
    mPlayed.Hear(
        {ReadingPacket(0x02, 2, 0), ReadingPacket(0x02, 2, 10), ReadingPacket(0x02, 2, 35)});
    EXPECT_THAT(mPlayed.Sent(), IsEmpty());
    EXPECT_EQ(Steps(), 15);
}

// A process that was stopped reads what the link had room for, and then what is new: the totals
// between them are missing.
TEST_F(StepsSessionTest, StepsAreNotCountedTooHighAfterTheProcessWasHeldUp)
{
    mPlayed.mSession.Follow(Sensor::Pedometer, mPlayed.Now());
    mPlayed.Hear({ReadingPacket(0x12, 2, 0), ReadingPacket(0x22, 2, 0)});
    mPlayed.Sleep(10min);
    float total = 0;
    for (float count = 1; count <= 200; ++count) { // 800 more are dropped
        total += count;
        mPlayed.mSession.Take(ReadingPacket(0x22, 2, total), mPlayed.Now());
    }
    mPlayed.mSession.Advance(mPlayed.Now());
    mPlayed.Sent();
    total = 500500;
    for (const std::uint8_t first : Bytes{0x22, 0x32, 0x12}) {
        mPlayed.Hear({ReadingPacket(first, 2, total += 1000)});
    }
    EXPECT_EQ(Steps(), 1000);
    EXPECT_TRUE(mPlayed.mSession.Steps().Days().begin()->second.mIsExact);
}

TEST_F(StepsSessionTest, CallThatComesLongAfterItsDeadlineMeansMissedPushes)
{
    mPlayed.mSession.Follow(Sensor::Pedometer, mPlayed.Now());
    mPlayed.Hear(
        {ReadingPacket(0x12, 2, 0), ReadingPacket(0x22, 2, 0), ReadingPacket(0x22, 2, 10)});
    mPlayed.mSession.Measure(Sensor::HeartRate, mPlayed.Now());
    mPlayed.Sleep(30s);
    mPlayed.mSession.Advance(mPlayed.Now());
    EXPECT_TRUE(mPlayed.mSession.Steps().WantsQuestion());
    EXPECT_FALSE(mPlayed.mSession.Latest(Sensor::Pedometer)->mIsUnbroken);
}

TEST_F(StepsSessionTest, WhatIsFollowedIsAskedForAgainWhenPacketsMayHaveBeenDropped)
{
    mPlayed.mSession.Follow(Sensor::HeartRate, mPlayed.Now());
    mPlayed.mSession.Follow(Sensor::Pedometer, mPlayed.Now());
    mPlayed.Hear({ReadingPacket(0x22, 2, 0), ReadingPacket(0x32, 2, 0)});
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("12000003", "22000002", "32000002"));
    mPlayed.Texts();
    mPlayed.Sleep(30s); // the answer of the heart rate may have come, and had no room
    mPlayed.mSession.Advance(mPlayed.Now());
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("12000002", "22000003"));
    EXPECT_THAT(mPlayed.Texts(), IsEmpty());
}
