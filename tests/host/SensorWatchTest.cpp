#include "SensorWatch.h"

#include <array>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ScriptedWatch.h"

namespace ParvaneHost {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/** A reading whose value is `number`, from 0 to 3. */
Bytes ReadingPacket(std::uint8_t first, std::uint8_t sensor, unsigned number)
{
    const std::array<Bytes, 4> values{Bytes{0x00, 0x00, 0x00, 0x00}, Bytes{0x3F, 0x80, 0x00, 0x00},
                                      Bytes{0x40, 0x00, 0x00, 0x00}, Bytes{0x40, 0x40, 0x00, 0x00}};
    Bytes packet{first, 0x00, 0x0E, sensor, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0F, 0x42, 0x40};
    packet.insert(packet.end(), values.at(number).begin(), values.at(number).end());
    packet.push_back(0x00);
    return packet;
}

/**
 * A watch that answers by itself whenever the client waits, since a reconnecting client connects,
 * stops and starts within one call.
 */
class SensorWatchTest : public testing::Test
{
protected:
    [[nodiscard]] ClientOptions Options()
    {
        ClientOptions options;
        options.mPath = mWatch.Path();
        options.mWait.mTickPeriod = milliseconds{1};
        options.mWait.mOnTick = [this] {
            mWatch.Step([this](const Bytes &packet) { return Answer(packet); });
        };
        return options;
    }

    [[nodiscard]] SensorWatchOptions Quickly()
    {
        SensorWatchOptions options;
        options.mRequestTimeout = mRequestTimeout;
        options.mFirstDelay = milliseconds{1};
        options.mLongestDelay = milliseconds{4};
        options.mOnNotice = [this](const std::string &text) {
            mNotices.push_back(text);
            if (mOnNotice) {
                mOnNotice();
            }
        };
        return options;
    }

    std::vector<Bytes> Answer(const Bytes &packet)
    {
        mReceived.push_back(packet);
        const std::uint8_t first = packet.at(0);
        const std::uint8_t sensor = packet.at(3);
        if (mOnPacket) {
            mOnPacket();
        }
        if (mIsSilent || sensor == mSilentSensor) {
            return {};
        }
        return first % 16 == 4 ? std::vector<Bytes>{{first, 0x02, 0x00, sensor}}
                               : std::vector<Bytes>{ReadingPacket(first, sensor, mCurrent)};
    }

    static Deadline Long() { return Deadline::After(std::chrono::seconds{20}); }

    ScriptedWatch mWatch;
    std::vector<Bytes> mReceived;
    std::vector<std::string> mNotices;
    std::function<void()> mOnNotice;
    std::function<void()> mOnPacket;
    std::uint8_t mSilentSensor = 0;
    unsigned mCurrent = 1;
    bool mIsSilent = false;
    milliseconds mRequestTimeout{20000};
    Client mClient{Options()};
};

TEST_F(SensorWatchTest, ActivityIsStoppedStartedAndThenPushed)
{
    SensorWatch watch(mClient, {Sensor::Activity}, Quickly());
    ASSERT_FALSE(watch.Begin());
    mWatch.Send(ReadingPacket(0x23, 1, 2));
    mWatch.Send(ReadingPacket(0x23, 1, 3));

    EXPECT_EQ(watch.Next(Long()).Value().mValue, 1.0F) << "the answer to the start";
    EXPECT_EQ(watch.Next(Long()).Value().mValue, 2.0F);
    EXPECT_EQ(watch.Next(Long()).Value().mValue, 3.0F);
    EXPECT_FALSE(watch.End());
    EXPECT_THAT(mReceived,
                ElementsAre(Bytes{0x14, 0, 0, 1}, Bytes{0x23, 0, 0, 1, 0}, Bytes{0x34, 0, 0, 1}));
}

TEST_F(SensorWatchTest, StepsAreMeasuredOnceAndNeverStopped)
{
    SensorWatch watch(mClient, {Sensor::Pedometer}, Quickly());
    ASSERT_FALSE(watch.Begin());

    EXPECT_EQ(watch.Next(Long()).Value().mValue, 1.0F);
    mWatch.Send(ReadingPacket(0x12, 2, 3));
    EXPECT_EQ(watch.Next(Long()).Value().mValue, 3.0F);
    EXPECT_FALSE(watch.End());
    EXPECT_THAT(mReceived, ElementsAre(Bytes{0x12, 0, 0, 2}));
}

TEST_F(SensorWatchTest, ReadingsOfOtherSensorsAreDropped)
{
    SensorWatch watch(mClient, {Sensor::Activity}, Quickly());
    ASSERT_FALSE(watch.Begin());
    mWatch.Send(ReadingPacket(0x02, 2, 3));
    mWatch.Send(ReadingPacket(0x23, 1, 2));

    EXPECT_EQ(watch.Next(Long()).Value().mValue, 1.0F);
    EXPECT_EQ(watch.Next(Long()).Value().mValue, 2.0F);
}

TEST_F(SensorWatchTest, TheDeadlineEndsAWaitWithATimeout)
{
    SensorWatch watch(mClient, {Sensor::Activity}, Quickly());
    ASSERT_FALSE(watch.Begin());
    ASSERT_TRUE(watch.Next(Long()).Ok());

    const auto reading = watch.Next(Deadline::After(milliseconds{0}));

    ASSERT_FALSE(reading.Ok());
    EXPECT_TRUE(std::holds_alternative<Timeout>(reading.GetError()));
}

TEST_F(SensorWatchTest, PushesOfOtherSensorsDoNotPutOffTheDeadline)
{
    SensorWatch watch(mClient, {Sensor::Activity}, Quickly());
    ASSERT_FALSE(watch.Begin());
    ASSERT_TRUE(watch.Next(Long()).Ok());
    for (int push = 0; push < 20; ++push) {
        mWatch.Send(ReadingPacket(0x02, 2, 3));
    }

    const auto reading = watch.Next(Deadline::After(milliseconds{0}));

    ASSERT_FALSE(reading.Ok());
    EXPECT_TRUE(std::holds_alternative<Timeout>(reading.GetError()));
}

TEST_F(SensorWatchTest, ALostLinkIsMadeAgainAndTheSensorStartedAgain)
{
    SensorWatch watch(mClient, {Sensor::Activity}, Quickly());
    ASSERT_FALSE(watch.Begin());
    ASSERT_TRUE(watch.Next(Long()).Ok());
    mReceived.clear();
    mCurrent = 2;
    mWatch.HangUp();

    const auto reading = watch.Next(Long());

    ASSERT_TRUE(reading.Ok()) << Describe(reading.GetError());
    EXPECT_EQ(reading.Value().mValue, 2.0F);
    EXPECT_THAT(mReceived, ElementsAre(Bytes{0x34, 0, 0, 1}, Bytes{0x13, 0, 0, 1, 0}));
    EXPECT_THAT(mNotices,
                ElementsAre("the watch closed the link " + mWatch.Path() + "; connecting again",
                            "connected again"));
}

TEST_F(SensorWatchTest, AWatchThatIsAwayIsTriedForAsLongAsTheDeadlineAllows)
{
    SensorWatch watch(mClient, {Sensor::Activity}, Quickly());
    ASSERT_FALSE(watch.Begin());
    ASSERT_TRUE(watch.Next(Long()).Ok());
    mWatch.StopListening();
    mWatch.HangUp();

    const auto reading = watch.Next(Deadline::After(milliseconds{50}));

    ASSERT_FALSE(reading.Ok());
    EXPECT_TRUE(std::holds_alternative<Timeout>(reading.GetError()));
    ASSERT_GE(mNotices.size(), 2U);
    EXPECT_THAT(mNotices.back(), HasSubstr("Connection refused"));
    EXPECT_FALSE(watch.End()) << "there is nothing to stop";
}

TEST_F(SensorWatchTest, ASilentWatchAfterTheLinkWasLostIsTriedAgain)
{
    SensorWatch watch(mClient, {Sensor::Activity}, Quickly());
    ASSERT_FALSE(watch.Begin());
    ASSERT_TRUE(watch.Next(Long()).Ok());
    mIsSilent = true;
    mRequestTimeout = milliseconds{10};
    SensorWatch impatient(mClient, {Sensor::Activity}, Quickly());
    mWatch.HangUp();
    mClient.Disconnect();
    mOnNotice = [this] { mIsSilent = false; };

    EXPECT_TRUE(impatient.Next(Long()).Ok()) << "makes the link on its own";
    ASSERT_GE(mNotices.size(), 2U);
    EXPECT_EQ(mNotices.front(), "no answer to the stop of 'activity' within 0.01 s; trying again");
    EXPECT_EQ(mNotices.back(), "connected again");
}

TEST_F(SensorWatchTest, TheFirstConnectionMayFailForGood)
{
    mWatch.StopListening();
    SensorWatch watch(mClient, {Sensor::Activity}, Quickly());

    const auto error = watch.Begin();

    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(std::get<LinkError>(*error).mReason, LinkError::Reason::CannotConnect);
    EXPECT_THAT(mNotices, IsEmpty());
}

TEST_F(SensorWatchTest, ASilentWatchAtTheBeginningIsATimeout)
{
    mIsSilent = true;
    mRequestTimeout = milliseconds{5};
    SensorWatch watch(mClient, {Sensor::Activity}, Quickly());

    const auto error = watch.Begin();

    ASSERT_TRUE(error.has_value());
    EXPECT_TRUE(std::holds_alternative<Timeout>(*error));
}

TEST_F(SensorWatchTest, HeartRateIsMeasuredAgainAfterEachAnswer)
{
    SensorWatch watch(mClient, {Sensor::HeartRate}, Quickly());
    ASSERT_FALSE(watch.Begin());

    EXPECT_EQ(watch.Next(Long()).Value().mValue, 1.0F);
    mCurrent = 0;
    EXPECT_EQ(watch.Next(Long()).Value().mValue, 0.0F) << "no usable reading is a reading";
    mCurrent = 2;
    EXPECT_EQ(watch.Next(Long()).Value().mValue, 2.0F);
    EXPECT_FALSE(watch.End());
    EXPECT_THAT(mReceived,
                ElementsAre(Bytes{0x12, 0, 0, 3}, Bytes{0x22, 0, 0, 3}, Bytes{0x32, 0, 0, 3}));
}

TEST_F(SensorWatchTest, WornStateIsAskedForAgainOnlyAfterItsTime)
{
    ClientOptions options = Options();
    options.mAskAgainAfter = milliseconds{60};
    Client client(options);
    SensorWatch watch(client, {Sensor::WearState}, Quickly());
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_FALSE(watch.Begin());

    EXPECT_TRUE(watch.Next(Long()).Ok());
    EXPECT_TRUE(watch.Next(Long()).Ok());

    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds{60});
    EXPECT_THAT(mReceived, ElementsAre(Bytes{0x12, 0, 0, 4}, Bytes{0x22, 0, 0, 4}));
}

TEST_F(SensorWatchTest, WornStateThatIsNotAnsweredIsAskedForAgain)
{
    ClientOptions options = Options();
    options.mAskAgainAfter = milliseconds{5};
    Client client(options);
    mIsSilent = true;
    mRequestTimeout = milliseconds{100};
    SensorWatch watch(client, {Sensor::WearState}, Quickly());
    ASSERT_FALSE(watch.Begin());

    const auto reading = watch.Next(Long());

    ASSERT_FALSE(reading.Ok());
    EXPECT_EQ(Describe(reading.GetError()), "no answer to the measurement of 'wear' within 0.1 s");
    EXPECT_GE(mReceived.size(), 2U);
}

TEST_F(SensorWatchTest, SeveralSensorsAreInterleaved)
{
    SensorWatch watch(mClient,
                      {Sensor::Activity, Sensor::Pedometer, Sensor::HeartRate, Sensor::WearState},
                      Quickly());
    ASSERT_FALSE(watch.Begin());
    std::vector<Sensor> sensors;
    for (int count = 0; count < 4; ++count) {
        sensors.push_back(watch.Next(Long()).Value().mSensor);
    }
    EXPECT_THAT(sensors, ElementsAre(Sensor::Activity, Sensor::Pedometer, Sensor::HeartRate,
                                     Sensor::WearState));

    mWatch.Send(ReadingPacket(0x23, 1, 2));
    bool hasMoved = false;
    for (int count = 0; count < 10 && !hasMoved; ++count) {
        const Reading reading = watch.Next(Long()).Value();
        hasMoved = reading.mSensor == Sensor::Activity && reading.mValue == 2.0F;
    }
    EXPECT_TRUE(hasMoved) << "heart rate is measured meanwhile";
    EXPECT_FALSE(watch.End());
    EXPECT_EQ(mReceived.back().at(0) % 16, 4) << "the activity is stopped";
}

TEST_F(SensorWatchTest, ASensorWithoutAnAnswerIsLeftOut)
{
    mSilentSensor = 2;
    mRequestTimeout = milliseconds{100};
    SensorWatch watch(mClient, {Sensor::Pedometer, Sensor::WearState}, Quickly());
    ASSERT_FALSE(watch.Begin());

    EXPECT_EQ(watch.Next(Long()).Value().mSensor, Sensor::WearState);
    EXPECT_FALSE(watch.Next(Deadline::After(milliseconds{200})).Ok());

    EXPECT_THAT(mNotices, ElementsAre("no answer to the measurement of 'steps' within 0.1 s; "
                                      "it is left out"));
}

TEST_F(SensorWatchTest, ALinkThatIsLostBeforeAnyReadingIsFinal)
{
    mIsSilent = true;
    SensorWatch watch(mClient, {Sensor::HeartRate}, Quickly());
    ASSERT_FALSE(watch.Begin());
    mOnPacket = [this] { mWatch.HangUp(); };

    const auto reading = watch.Next(Long());

    ASSERT_FALSE(reading.Ok());
    EXPECT_EQ(std::get<LinkError>(reading.GetError()).mReason, LinkError::Reason::AnotherHost);
    EXPECT_THAT(mNotices, IsEmpty());
}

TEST_F(SensorWatchTest, TimeThatIsOverBeforeAnyReadingNamesTheQuestion)
{
    mIsSilent = true;
    SensorWatch watch(mClient, {Sensor::HeartRate}, Quickly());
    ASSERT_FALSE(watch.Begin());

    const auto reading = watch.Next(Deadline::After(milliseconds{10}));

    ASSERT_FALSE(reading.Ok());
    EXPECT_EQ(Describe(reading.GetError()), "no answer to the measurement of 'hr' within 0.01 s");
}

TEST_F(SensorWatchTest, ABrokenPacketIsReported)
{
    SensorWatch watch(mClient, {Sensor::Activity}, Quickly());
    ASSERT_FALSE(watch.Begin());
    ASSERT_TRUE(watch.Next(Long()).Ok());
    mWatch.Send({0x13});

    const auto reading = watch.Next(Long());

    ASSERT_FALSE(reading.Ok());
    EXPECT_TRUE(std::holds_alternative<ProtocolError>(reading.GetError()));
}

TEST_F(SensorWatchTest, AnInterruptionEndsTheWaitAndTheStopIsStillSent)
{
    std::array<int, 2> ends{-1, -1};
    ASSERT_EQ(::pipe(ends.data()), 0);
    const UniqueFd readEnd(ends[0]);
    const UniqueFd writeEnd(ends[1]);
    ClientOptions options = Options();
    options.mWait.mInterruptFd = readEnd.Get();
    Client client(options);
    SensorWatch watch(client, {Sensor::Activity}, Quickly());
    ASSERT_FALSE(watch.Begin());
    ASSERT_TRUE(watch.Next(Long()).Ok());
    ASSERT_EQ(::write(writeEnd.Get(), "x", 1), 1);

    const auto reading = watch.Next(Long());
    std::array<char, 1> taken{};
    ASSERT_EQ(::read(readEnd.Get(), taken.data(), 1), 1);

    ASSERT_FALSE(reading.Ok());
    EXPECT_TRUE(std::holds_alternative<Interrupted>(reading.GetError()));
    EXPECT_FALSE(watch.End());
    EXPECT_EQ(mReceived.back(), (Bytes{0x34, 0, 0, 1}));
}

TEST_F(SensorWatchTest, AStopThatIsNotAcknowledgedIsReported)
{
    ASSERT_FALSE(mClient.Connect());
    mIsSilent = true;
    mRequestTimeout = milliseconds{10};
    SensorWatch impatient(mClient, {Sensor::Activity}, Quickly());

    const auto error = impatient.End();

    ASSERT_TRUE(error.has_value());
    EXPECT_TRUE(std::holds_alternative<Timeout>(*error));
}

} // namespace
} // namespace ParvaneHost
