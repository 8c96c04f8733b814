#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PlayedSession.h"

// The contract of docs/phone.md: what becomes of a session when links come and go.

using namespace ParvaneHost;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ReconnectTest : public testing::Test
{
protected:
    /** A link, and the acknowledgement of its stop, with its flags. */
    void Link(std::uint8_t flags)
    {
        mPlayed.mSession.Connected(mPlayed.Now());
        mPlayed.Hear({{static_cast<std::uint8_t>(flags * 16 + 4), 2, 0, 1}});
    }

    void Lose() { mPlayed.mSession.Lost("gone", mPlayed.Now()); }

    static SessionOptions Options()
    {
        SessionOptions options;
        options.mAsksWorn = false; // the packets alone that a case is about
        return options;
    }

    PlayedSession mPlayed{Options()};
};

} // namespace

TEST_F(ReconnectTest, LinkIsWantedFromTheBeginning)
{
    EXPECT_TRUE(mPlayed.mSession.WantsLink());
    EXPECT_FALSE(mPlayed.mSession.IsLinked());
    EXPECT_EQ(mPlayed.mSession.Deadline(), std::nullopt);
}

TEST_F(ReconnectTest, LinkCountsWhenItsStopIsAcknowledged)
{
    mPlayed.mSession.Connected(mPlayed.Now());
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("14000001"));
    EXPECT_THAT(mPlayed.Texts(), IsEmpty());
    mPlayed.Hear({{0x14, 2, 0, 1}});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("linked"));
    EXPECT_TRUE(mPlayed.mSession.IsLinked());
    EXPECT_EQ(mPlayed.mSession.Deadline(), std::nullopt);
}

TEST_F(ReconnectTest, LossAndReturnAreToldOnceEach)
{
    Link(1);
    Lose();
    Lose();
    mPlayed.mSession.Lost("gone once more", mPlayed.Now());
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("linked", "lost: gone"));
    mPlayed.Until(1s);
    Link(2);
    mPlayed.Hear({{0x24, 2, 0, 1}});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("linked"));
}

TEST_F(ReconnectTest, PausesGrowUntilTheWatchIsHeard)
{
    for (const auto pause : {100ms, 200ms, 400ms, 800ms, 1600ms, 3200ms, 5000ms, 5000ms}) {
        EXPECT_TRUE(mPlayed.mSession.WantsLink());
        const auto failed = mPlayed.Now().mSteady;
        mPlayed.mSession.Lost("refused", mPlayed.Now());
        EXPECT_THAT(mPlayed.Texts(), ElementsAre("attempt failed: refused, " +
                                                 std::to_string(pause.count()) + " ms"));
        EXPECT_FALSE(mPlayed.mSession.WantsLink());
        EXPECT_EQ(mPlayed.mSession.Deadline(), failed + pause);
        mPlayed.Until(std::chrono::duration_cast<std::chrono::milliseconds>(
            (failed + pause).time_since_epoch()));
    }
    Link(1);
    Lose();
    EXPECT_EQ(mPlayed.mSession.Deadline(), mPlayed.Now().mSteady + 100ms);
}

TEST_F(ReconnectTest, LinkThatIsClosedBeforeItAnswersIsAFailedAttempt)
{
    mPlayed.mSession.Connected(mPlayed.Now());
    mPlayed.mSession.Lost("another host is connected", mPlayed.Now());
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("attempt failed: another host is connected, 100 ms"));
    mPlayed.Until(100ms);
    mPlayed.mSession.Connected(mPlayed.Now());
    mPlayed.mSession.Lost("another host is connected", mPlayed.Now());
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("attempt failed: another host is connected, 200 ms"));
}

TEST_F(ReconnectTest, LinkOnWhichNobodyAnswersIsGivenUp)
{
    mPlayed.mSession.Connected(mPlayed.Now());
    mPlayed.Until(5s);
    EXPECT_FALSE(mPlayed.mSession.WantsLink());
    EXPECT_THAT(
        mPlayed.Texts(),
        ElementsAre("attempt failed: no answer to the stop of 'activity' within 5 s, 100 ms"));
    mPlayed.Until(5100ms);
    EXPECT_TRUE(mPlayed.mSession.WantsLink());
    mPlayed.Sent();
    mPlayed.mSession.Connected(mPlayed.Now());
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("24000001"));
}

TEST_F(ReconnectTest, StopThatSomebodyAsksForIsTheProofAsWell)
{
    mPlayed.mSession.Connected(mPlayed.Now());
    const RequestId stop = mPlayed.mSession.Stop(Sensor::Activity, mPlayed.Now());
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("14000001"));
    mPlayed.Until(5s);
    EXPECT_FALSE(mPlayed.mSession.WantsLink());
    EXPECT_THAT(
        mPlayed.Texts(),
        ElementsAre("failed activity #" + std::to_string(stop) +
                        ": no answer to the stop of 'activity' within 5 s",
                    "attempt failed: no answer to the stop of 'activity' within 5 s, 100 ms"));
}

TEST_F(ReconnectTest, WhatIsFollowedIsAskedForAgainOnTheNextLink)
{
    for (const Sensor sensor :
         {Sensor::Activity, Sensor::Pedometer, Sensor::HeartRate, Sensor::WearState}) {
        mPlayed.mSession.Follow(sensor, mPlayed.Now());
    }
    EXPECT_THAT(mPlayed.Sent(), IsEmpty()) << "there is no link yet";
    Link(1);
    EXPECT_THAT(mPlayed.Sent(),
                ElementsAre("14000001", "2300000100", "32000002", "12000003", "22000004"));
    Lose();
    mPlayed.Until(1s);
    Link(3);
    EXPECT_THAT(mPlayed.Sent(),
                ElementsAre("34000001", "1300000100", "22000002", "32000003", "12000004"));
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("linked", "lost: gone", "linked"));
}

TEST_F(ReconnectTest, WhatIsStoppedWithoutALinkIsNotStartedOnTheNext)
{
    mPlayed.mSession.Follow(Sensor::Activity, mPlayed.Now());
    Link(1);
    Lose();
    mPlayed.mSession.Stop(Sensor::Activity, mPlayed.Now());
    mPlayed.Sent();
    mPlayed.Until(1s);
    Link(3);
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("34000001"));
    EXPECT_EQ(mPlayed.Texts().back(), "linked");
}

TEST_F(ReconnectTest, MeasurementInFlightEndsWithAnErrorThatSaysSo)
{
    Link(1);
    mPlayed.mSession.Measure(Sensor::HeartRate, mPlayed.Now());
    mPlayed.mSession.List(mPlayed.Now());
    Lose();
    EXPECT_THAT(
        mPlayed.Texts(),
        ElementsAre("linked", "lost: gone",
                    "failed hr #2: the link was lost before the answer to the measurement of 'hr'",
                    "failed list #3: the link was lost before the answer to the sensor list"));
    mPlayed.Until(1s);
    Link(1);
    mPlayed.Hear({ReadingPacket(0x22, 3, 72)});
    EXPECT_THAT(mPlayed.Texts(), ElementsAre("linked", "hr 72")) << "it answers nothing any more";
}

TEST_F(ReconnectTest, RequestWaitsForALink)
{
    mPlayed.mSession.Measure(Sensor::Activity, mPlayed.Now());
    mPlayed.mSession.Lost("refused", mPlayed.Now());
    mPlayed.Until(1s);
    Link(1);
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("14000001", "22000001"));
    mPlayed.Hear({ReadingPacket(0x22, 1, 2)});
    EXPECT_THAT(mPlayed.Texts(),
                ElementsAre("attempt failed: refused, 100 ms", "linked", "activity 2 #1"));
}

TEST_F(ReconnectTest, RequestThatFindsNoLinkInItsTimeSaysSo)
{
    mPlayed.mSession.Measure(Sensor::Activity, mPlayed.Now(), 2s);
    EXPECT_EQ(mPlayed.mSession.Deadline(), mPlayed.Now().mSteady + 2s);
    mPlayed.Until(2s);
    EXPECT_THAT(mPlayed.Texts(),
                ElementsAre("failed activity #1: no link to the watch within 2 s"));
}

TEST_F(ReconnectTest, WatchThatHasFallenSilentIsAskedForItsSensorsAndThenGivenUp)
{
    Link(1);
    mPlayed.mSession.Measure(Sensor::HeartRate, mPlayed.Now());
    mPlayed.Sent();
    mPlayed.Until(20s);
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("31000000"));
    mPlayed.Until(25s);
    EXPECT_THAT(mPlayed.Texts(),
                ElementsAre("linked",
                            "failed hr #2: no answer to the measurement of 'hr' within 20 s",
                            "lost: no answer to the sensor list within 5 s"));
    EXPECT_FALSE(mPlayed.mSession.WantsLink());
}

TEST_F(ReconnectTest, SensorThatIsSilentOnALinkThatIsThereIsLeftOut)
{
    Link(1);
    mPlayed.mSession.Follow(Sensor::Pedometer, mPlayed.Now());
    mPlayed.Until(5s);
    EXPECT_THAT(mPlayed.Sent(), ElementsAre("14000001", "22000002", "31000000"));
    mPlayed.Hear({ListHeader(0xB1, 0)});
    mPlayed.Until(1h);
    EXPECT_THAT(
        mPlayed.Texts(),
        ElementsAre("linked", "failed steps: no answer to the measurement of 'steps' within 5 s"));
    EXPECT_TRUE(mPlayed.mSession.IsLinked());
}

TEST_F(ReconnectTest, SilenceAmidOtherPacketsIsNoReasonToAsk)
{
    Link(1);
    mPlayed.mSession.Measure(Sensor::HeartRate, mPlayed.Now());
    mPlayed.Sent();
    mPlayed.Until(10s);
    mPlayed.Hear({ReadingPacket(0x02, 2, 1)});
    mPlayed.Until(20s);
    EXPECT_THAT(mPlayed.Sent(), IsEmpty());
}

TEST_F(ReconnectTest, PacketsOfALinkThatIsGoneAreDropped)
{
    Link(1);
    mPlayed.mSession.Measure(Sensor::HeartRate, mPlayed.Now());
    Lose();
    EXPECT_THAT(mPlayed.Sent(), IsEmpty()) << "what was not sent yet is of no use";
    mPlayed.Texts();
    mPlayed.Hear({ReadingPacket(0x22, 3, 72), {0x00}});
    EXPECT_THAT(mPlayed.Texts(), IsEmpty());
}

TEST_F(ReconnectTest, NewLinkInThePlaceOfAnotherIsALossAndAReturn)
{
    Link(1);
    Link(2);
    EXPECT_THAT(mPlayed.Texts(),
                ElementsAre("linked", "lost: another link took its place", "linked"));
}
