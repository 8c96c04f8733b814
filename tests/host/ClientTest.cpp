#include "Client.h"

#include <array>
#include <sys/socket.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ScriptedWatch.h"

namespace ParvaneHost {
namespace {

using std::chrono::milliseconds;

// Readings of 0x000F4240 ms; the first byte is the flags, then the command.
Bytes ReadingPacket(std::uint8_t first, std::uint8_t sensor, const Bytes &value)
{
    Bytes packet{first, 0x00, 0x0E, sensor, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0F, 0x42, 0x40};
    packet.insert(packet.end(), value.begin(), value.end());
    packet.push_back(0x00);
    return packet;
}

const Bytes kZero{0x00, 0x00, 0x00, 0x00};
const Bytes kOne{0x3F, 0x80, 0x00, 0x00};
const Bytes kTwo{0x40, 0x00, 0x00, 0x00};
const Bytes kSeventyTwo{0x42, 0x90, 0x00, 0x00};

Bytes ListHeader(std::uint8_t first, std::uint8_t count)
{
    return {first, 0x80, 0x0A, 0x03, 0x00, 0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, count};
}

Bytes ListEntry(std::uint8_t first, std::uint8_t position, std::uint8_t sensor)
{
    return {first,  position, 0x15, static_cast<std::uint8_t>(0x40 + sensor),
            sensor, 0x01,     0x43, 0x48,
            0x00,   0x00,     0x3F, 0x80,
            0x00,   0x00,     0x00, 0x00,
            0x00,   0x00,     0x00, 0x00,
            0x3A,   0x98,     0x00, 0x00,
            0x00};
}

/**
 * A client that is connected to a scripted watch. The watch may speak before it is asked, as packets
 * wait in the socket: so an exchange is written down as the answer, then the call.
 */
class ClientTest : public testing::Test
{
protected:
    ClientTest()
    {
        EXPECT_FALSE(mClient.Connect());
        mWatch.Accept();
    }

    [[nodiscard]] ClientOptions Options() const
    {
        ClientOptions options;
        options.mPath = mWatch.Path();
        options.mAskAgainAfter = milliseconds{20};
        return options;
    }

    static Deadline Long() { return Deadline::After(std::chrono::seconds{20}); }
    static Deadline Short() { return Deadline::After(milliseconds{1}); }

    ScriptedWatch mWatch;
    Client mClient{Options()};
};

TEST_F(ClientTest, TheListIsTheHeaderAndAsManyEntriesAsItCounts)
{
    mWatch.Send(ListHeader(0x91, 2));
    mWatch.Send(ListEntry(0x91, 1, 1));
    mWatch.Send(ListEntry(0x91, 2, 2));
    mWatch.Send(ReadingPacket(0x02, 2, kOne));

    const auto list = mClient.ListSensors(Long());

    EXPECT_EQ(mWatch.Receive(), (Bytes{0x11, 0x00, 0x00, 0x00}));
    ASSERT_TRUE(list.Ok()) << Describe(list.GetError());
    EXPECT_EQ(list.Value().mHeader.AddressText(), "AA:BB:CC:DD:EE:FF");
    ASSERT_EQ(list.Value().mEntries.size(), 2U);
    EXPECT_EQ(list.Value().mEntries[0].mSensor, Sensor::Activity);
    EXPECT_EQ(list.Value().mEntries[1].mSensor, Sensor::Pedometer);
    EXPECT_TRUE(mClient.TakeUnclaimed().empty()) << "nothing is read after the last entry";
}

TEST_F(ClientTest, AnEmptyListIsJustTheHeader)
{
    mWatch.Send(ListHeader(0x91, 0));

    const auto list = mClient.ListSensors(Long());

    ASSERT_TRUE(list.Ok()) << Describe(list.GetError());
    EXPECT_TRUE(list.Value().mEntries.empty());
}

TEST_F(ClientTest, APushAmidTheListIsKept)
{
    mWatch.Send(ListHeader(0x91, 1));
    mWatch.Send(ReadingPacket(0x02, 2, kTwo));
    mWatch.Send(ListEntry(0x91, 1, 3));

    const auto list = mClient.ListSensors(Long());

    ASSERT_TRUE(list.Ok()) << Describe(list.GetError());
    EXPECT_EQ(list.Value().mEntries.size(), 1U);
    const auto push = mClient.Receive(Short());
    ASSERT_TRUE(push.Ok());
    EXPECT_EQ(std::get<Reading>(push.Value()).mValue, 2.0F);
}

TEST_F(ClientTest, EntriesOutOfOrderAreAProtocolError)
{
    mWatch.Send(ListHeader(0x91, 2));
    mWatch.Send(ListEntry(0x91, 2, 2));

    const auto list = mClient.ListSensors(Long());

    ASSERT_FALSE(list.Ok());
    EXPECT_EQ(Describe(list.GetError()),
              "the watch broke the protocol: sensor entry 2 where entry 1 was due");
    EXPECT_TRUE(mClient.IsConnected());
}

TEST_F(ClientTest, AListThatStopsHalfwayIsATimeout)
{
    mWatch.Send(ListHeader(0x91, 2));
    mWatch.Send(ListEntry(0x91, 1, 1));

    const auto list = mClient.ListSensors(Short());

    ASSERT_FALSE(list.Ok());
    EXPECT_EQ(Describe(list.GetError()), "no answer to the sensor list within 0.001 s");
}

TEST_F(ClientTest, AMeasurementIsAnsweredByItsSensorAndCommand)
{
    mWatch.Send(ReadingPacket(0x12, 2, kOne)); // steps
    mWatch.Send(ReadingPacket(0x13, 3, kTwo)); // a start's
    mWatch.Send(ReadingPacket(0x12, 3, kSeventyTwo));

    const auto reading = mClient.Measure(Sensor::HeartRate, Long());

    EXPECT_EQ(mWatch.Receive(), (Bytes{0x12, 0x00, 0x00, 0x03}));
    ASSERT_TRUE(reading.Ok()) << Describe(reading.GetError());
    EXPECT_EQ(reading.Value().mValue, 72.0F);
    EXPECT_EQ(reading.Value().mTimeFieldMs, 1000000U);
    EXPECT_EQ(mClient.TakeUnclaimed().size(), 2U);
}

TEST_F(ClientTest, FlagsTakeTurnsAndLeaveOutZero)
{
    for (const std::uint8_t first : Bytes{0x12, 0x22, 0x32, 0x12}) {
        mWatch.Send(ReadingPacket(first, 1, kOne));
        ASSERT_TRUE(mClient.Measure(Sensor::Activity, Long()).Ok());
        EXPECT_EQ(mWatch.Receive(), (Bytes{first, 0x00, 0x00, 0x01}));
    }
}

TEST_F(ClientTest, ALateAnswerIsNotTakenForTheAnswerToTheNextRequest)
{
    EXPECT_FALSE(mClient.Measure(Sensor::HeartRate, Short()).Ok());
    mWatch.Send(ReadingPacket(0x12, 3, kOne));
    mWatch.Send(ReadingPacket(0x22, 3, kSeventyTwo));

    const auto reading = mClient.Measure(Sensor::HeartRate, Long());

    ASSERT_TRUE(reading.Ok()) << Describe(reading.GetError());
    EXPECT_EQ(reading.Value().mValue, 72.0F);
}

TEST_F(ClientTest, StepsPushedBeforeTheRequestArrivedAreNotItsAnswer)
{
    mWatch.Send(ReadingPacket(0x02, 2, kOne));
    mWatch.Send(ReadingPacket(0x12, 2, kTwo));

    const auto reading = mClient.Measure(Sensor::Pedometer, Long());

    ASSERT_TRUE(reading.Ok()) << Describe(reading.GetError());
    EXPECT_EQ(reading.Value().mValue, 2.0F);
    EXPECT_EQ(std::get<Reading>(mClient.Receive(Short()).Value()).mValue, 1.0F);
}

TEST_F(ClientTest, SilenceIsATimeoutThatNamesTheRequest)
{
    const auto reading = mClient.Measure(Sensor::HeartRate, Short());

    ASSERT_FALSE(reading.Ok());
    EXPECT_EQ(Describe(reading.GetError()), "no answer to the measurement of 'hr' within 0.001 s");
    EXPECT_TRUE(mClient.IsConnected());
}

TEST_F(ClientTest, PushesDoNotPutOffTheTimeout)
{
    for (int push = 0; push < 50; ++push) {
        mWatch.Send(ReadingPacket(0x02, 2, kOne));
    }

    const auto reading = mClient.Measure(Sensor::HeartRate, Deadline::After(milliseconds{0}));

    ASSERT_FALSE(reading.Ok());
    EXPECT_TRUE(std::holds_alternative<Timeout>(reading.GetError()));
    EXPECT_EQ(mClient.TakeUnclaimed().size(), 1U) << "one packet is looked at, the rest stay";
}

TEST_F(ClientTest, TheWornStateIsAskedForAgainWhenTheWatchKeepsSilent)
{
    int asked = 0;
    ClientOptions options = Options();
    options.mWait.mTickPeriod = milliseconds{1};
    options.mWait.mOnTick = [this, &asked] {
        mWatch.Step([&asked](const Bytes & /*packet*/) {
            ++asked;
            return asked == 2 ? std::vector<Bytes>{ReadingPacket(0x12, 4, kOne)}
                              : std::vector<Bytes>{};
        });
    };
    Client asking(options);
    ASSERT_FALSE(asking.Connect());

    const auto reading = asking.Measure(Sensor::WearState, Long());

    ASSERT_TRUE(reading.Ok()) << Describe(reading.GetError());
    EXPECT_EQ(reading.Value().mValue, 1.0F);
    EXPECT_EQ(asked, 2);
}

TEST_F(ClientTest, TheWornStateIsTakenWithTheFlagsOfTheRequestBefore)
{
    mWatch.Send(ReadingPacket(0x32, 4, kOne));

    const auto reading = mClient.Measure(Sensor::WearState, Long());

    ASSERT_TRUE(reading.Ok()) << Describe(reading.GetError());
    EXPECT_EQ(reading.Value().mValue, 1.0F);
}

TEST_F(ClientTest, TheWornStateIsNotAskedForAgainAfterTheDeadline)
{
    EXPECT_FALSE(mClient.Measure(Sensor::WearState, Short()).Ok());

    EXPECT_EQ(mWatch.Receive(), (Bytes{0x12, 0x00, 0x00, 0x04}));
    EXPECT_TRUE(mWatch.IsQuiet());
}

TEST_F(ClientTest, AStartStopsFirstAndAwaitsTheAcknowledgement)
{
    mWatch.Send({0x14, 0x02, 0x00, 0x01});
    mWatch.Send(ReadingPacket(0x23, 1, kTwo));

    const auto reading = mClient.Start(Sensor::Activity, Long(), 5);

    EXPECT_EQ(mWatch.Receive(), (Bytes{0x14, 0x00, 0x00, 0x01}));
    EXPECT_EQ(mWatch.Receive(), (Bytes{0x23, 0x00, 0x00, 0x01, 0x05}));
    ASSERT_TRUE(reading.Ok()) << Describe(reading.GetError());
    EXPECT_EQ(reading.Value().mCommand, Command::Start);
    EXPECT_EQ(reading.Value().mValue, 2.0F);
}

TEST_F(ClientTest, AStartIsNotSentBeforeTheStopIsAcknowledged)
{
    EXPECT_FALSE(mClient.Start(Sensor::Activity, Short()).Ok());

    EXPECT_EQ(mWatch.Receive(), (Bytes{0x14, 0x00, 0x00, 0x01}));
    EXPECT_TRUE(mWatch.IsQuiet());
}

TEST_F(ClientTest, PushesFromBeforeTheStopAreNotTheAnswerToTheStart)
{
    mWatch.Send(ReadingPacket(0x33, 1, kZero));
    mWatch.Send({0x14, 0x02, 0x00, 0x01});
    mWatch.Send(ReadingPacket(0x23, 1, kOne));

    const auto reading = mClient.Start(Sensor::Activity, Long());

    ASSERT_TRUE(reading.Ok()) << Describe(reading.GetError());
    EXPECT_EQ(reading.Value().mValue, 1.0F);
    EXPECT_EQ(mClient.TakeUnclaimed().size(), 1U);
}

TEST_F(ClientTest, AStartOfTheStepsIsAnsweredAsIfMeasured)
{
    mWatch.Send({0x14, 0x02, 0x00, 0x02});
    mWatch.Send(ReadingPacket(0x02, 2, kTwo)); // with the flags of the last measurement: none

    const auto reading = mClient.Start(Sensor::Pedometer, Long());

    ASSERT_TRUE(reading.Ok()) << Describe(reading.GetError());
    EXPECT_EQ(reading.Value().mCommand, Command::MeasureOnce);
    EXPECT_EQ(reading.Value().mValue, 2.0F);
}

TEST_F(ClientTest, WhatTheWatchWouldIgnoreIsNotSent)
{
    for (const Sensor sensor : {Sensor::HeartRate, Sensor::WearState, Sensor{9}}) {
        const auto reading = mClient.Start(sensor, Long());
        ASSERT_FALSE(reading.Ok());
        EXPECT_TRUE(std::holds_alternative<Unsupported>(reading.GetError()));
    }
    EXPECT_EQ(Describe(mClient.Start(Sensor::HeartRate, Long()).GetError()),
              "the watch does not push 'hr': only activity and steps can be started");
    EXPECT_TRUE(mWatch.IsQuiet());
}

TEST_F(ClientTest, AStopIsAcknowledgedByItsSensorAndFlags)
{
    mWatch.Send({0x34, 0x02, 0x00, 0x01}); // other flags
    mWatch.Send({0x14, 0x02, 0x00, 0x03}); // another sensor
    mWatch.Send({0x14, 0x02, 0x00, 0x01});

    const auto stopped = mClient.Stop(Sensor::Activity, Long());

    EXPECT_EQ(mWatch.Receive(), (Bytes{0x14, 0x00, 0x00, 0x01}));
    ASSERT_TRUE(stopped.Ok()) << Describe(stopped.GetError());
    EXPECT_EQ(mClient.TakeUnclaimed().size(), 2U);
}

TEST_F(ClientTest, ReceiveTakesKeptPacketsFirstAndThenTheLinks)
{
    mWatch.Send(ReadingPacket(0x02, 2, kOne));
    mWatch.Send({0x14, 0x02, 0x00, 0x01});
    ASSERT_TRUE(mClient.Stop(Sensor::Activity, Long()).Ok());
    mWatch.Send(ReadingPacket(0x33, 1, kTwo));

    EXPECT_EQ(std::get<Reading>(mClient.Receive(Long()).Value()).mSensor, Sensor::Pedometer);
    EXPECT_EQ(std::get<Reading>(mClient.Receive(Long()).Value()).mSensor, Sensor::Activity);
    EXPECT_FALSE(mClient.Receive(Short()).Ok());
}

TEST_F(ClientTest, APacketThatIsNoneIsAProtocolErrorAndTheLinkGoesOn)
{
    mWatch.Send({0x12, 0x00});
    const auto broken = mClient.Measure(Sensor::Activity, Long());
    mWatch.Send(ReadingPacket(0x22, 1, kOne));
    const auto good = mClient.Measure(Sensor::Activity, Long());

    ASSERT_FALSE(broken.Ok());
    EXPECT_EQ(Describe(broken.GetError()), "the watch broke the protocol: packet size (offset 2): "
                                           "expected 4, 13, 18 or 25 bytes, found 2 bytes");
    EXPECT_TRUE(good.Ok());
}

TEST_F(ClientTest, AFloodOfUnaskedPacketsIsAProtocolErrorInsteadOfEndlessMemory)
{
    ClientOptions options = Options();
    options.mWait.mTickPeriod = milliseconds{1};
    std::array<int, 2> ends{-1, -1};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends.data()), 0);
    const UniqueFd watch(ends[1]);
    const Bytes push = ReadingPacket(0x02, 2, kOne);
    const auto flood = [&watch, &push] {
        while (::send(watch.Get(), push.data(), push.size(), MSG_NOSIGNAL) > 0) {
        }
    };
    options.mWait.mOnTick = flood;
    options.mMaxUnclaimed = 400;
    Client client(options, UniqueFd(ends[0]));

    const auto reading = client.Measure(Sensor::Activity, Long());

    ASSERT_FALSE(reading.Ok());
    EXPECT_EQ(
        Describe(reading.GetError()),
        "the watch broke the protocol: more than 400 unasked packets before the answer to the "
        "measurement of 'activity'");
    EXPECT_EQ(client.TakeUnclaimed().size(), 400U);
}

TEST_F(ClientTest, ALostLinkFailsTheRequestAndAllLaterOnes)
{
    mWatch.Send(ReadingPacket(0x02, 2, kOne));
    mWatch.HangUp();

    const auto lost = mClient.Measure(Sensor::HeartRate, Long());
    const auto later = mClient.Stop(Sensor::Activity, Long());

    ASSERT_FALSE(lost.Ok());
    EXPECT_EQ(std::get<LinkError>(lost.GetError()).mPath, mWatch.Path());
    EXPECT_FALSE(mClient.IsConnected());
    ASSERT_FALSE(later.Ok());
    EXPECT_EQ(std::get<LinkError>(later.GetError()).mReason, LinkError::Reason::NotConnected);
}

TEST_F(ClientTest, ReconnectMakesANewLinkAndKeepsWhatWasNotClaimed)
{
    mWatch.Send(ReadingPacket(0x02, 2, kOne));
    EXPECT_FALSE(mClient.Measure(Sensor::HeartRate, Short()).Ok());

    EXPECT_FALSE(mClient.Reconnect());
    mWatch.Receive();
    EXPECT_TRUE(mWatch.SeesHostLeave());
    mWatch.Accept();
    mWatch.Send(ReadingPacket(0x22, 1, kTwo));

    EXPECT_EQ(mClient.Measure(Sensor::Activity, Long()).Value().mValue, 2.0F);
    EXPECT_EQ(mClient.TakeUnclaimed().size(), 1U);
}

TEST_F(ClientTest, ConnectDoesNothingWhileConnected)
{
    EXPECT_FALSE(mClient.Connect());
    mWatch.Send(ReadingPacket(0x12, 1, kOne));

    EXPECT_TRUE(mClient.Measure(Sensor::Activity, Long()).Ok()) << "over the first link";
}

TEST_F(ClientTest, ConnectSaysWhyItCannot)
{
    mWatch.StopListening();

    const auto error = mClient.Reconnect();

    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(std::get<LinkError>(*error).mReason, LinkError::Reason::CannotConnect);
    EXPECT_FALSE(mClient.IsConnected());
}

TEST_F(ClientTest, RawPacketsPassUntouched)
{
    EXPECT_FALSE(mClient.SendRaw(Bytes{0xFF, 0x00, 0x7F}, Long()));
    EXPECT_EQ(mWatch.Receive(), (Bytes{0xFF, 0x00, 0x7F}));
    mWatch.Send({0x12, 0x00});

    EXPECT_EQ(mClient.ReceiveRaw(Long()).Value(), (Bytes{0x12, 0x00}));
}

TEST_F(ClientTest, FirstFlagsOutOfRangeBecomeOne)
{
    for (const std::uint8_t flags : Bytes{0, 4, 255}) {
        ClientOptions options = Options();
        options.mFirstFlags = flags;
        Client client(options);
        ASSERT_FALSE(client.Connect());
        mWatch.Accept();
        EXPECT_FALSE(client.Stop(Sensor::Activity, Short()).Ok());
        EXPECT_EQ(mWatch.Receive(), (Bytes{0x14, 0x00, 0x00, 0x01}));
    }
}

} // namespace
} // namespace ParvaneHost
