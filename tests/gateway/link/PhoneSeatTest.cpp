#include "PhoneSeat.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeWatch.h"
#include "TestLoop.h"

namespace ParvaneGateway {
namespace {

using ::testing::ElementsAre;
using Answer = PhoneSeat::Answer;

/** A phone with as much room as the test gives it. */
class TestPhone : public Phone
{
public:
    bool Deliver(PacketBytes packet) override
    {
        if (mRoom == 0) {
            return false;
        }
        --mRoom;
        mReceived.emplace_back(packet.begin(), packet.end());
        return true;
    }
    void GoOn() override { ++mToldToGoOn; }
    void Close(PhoneEnd why) override { mEnd = why; }
    [[nodiscard]] PhoneIdentity Identity() const override { return {"test", "phone"}; }

    std::size_t mRoom = 1000000;
    std::vector<Bytes> mReceived;
    int mToldToGoOn = 0;
    std::optional<PhoneEnd> mEnd;
};

class PhoneSeatTest : public ::testing::Test
{
protected:
    void Sit(TestPhone &phone)
    {
        ASSERT_EQ(mSeat.Sit(phone), Answer::Seated);
        ASSERT_TRUE(mWatch->Accept());
    }

    /** Sends numbered packets until the seat wants no more. @return how many */
    std::uint32_t FillWatch(TestPhone &phone)
    {
        std::uint32_t count = 0;
        while (mSeat.Packet(phone, Numbered(count))) {
            ++count;
        }
        return count + 1; // the last one was taken, too
    }

    static Bytes Numbered(std::uint32_t number)
    {
        Bytes packet(1000);
        packet[0] = static_cast<std::uint8_t>(number >> 8U);
        packet[1] = static_cast<std::uint8_t>(number);
        return packet;
    }

    /** Everything that reaches the watch, until it has `count` packets. */
    std::vector<Bytes> ReceiveAtWatch(std::size_t count)
    {
        std::vector<Bytes> packets;
        EXPECT_TRUE(RunUntil([&] {
            while (auto packet = mWatch->Receive()) {
                packets.push_back(*packet);
            }
            return packets.size() >= count;
        }));
        return packets;
    }

    TestFolder mFolder;
    std::optional<FakeWatch> mWatch{mFolder.Path("link.sock")};
    PhoneSeat mSeat{mFolder.Path("link.sock")};
    TestPhone mPhone;
    TestPhone mSecond;
};

TEST_F(PhoneSeatTest, ConnectsToTheWatchOnlyWhileAPhoneSits)
{
    RunDue();
    EXPECT_FALSE(mWatch->Accept());

    Sit(mPhone);
    EXPECT_TRUE(mSeat.IsTaken());
    mSeat.Left(mPhone);

    EXPECT_TRUE(mWatch->HasEnded());
    EXPECT_FALSE(mSeat.IsTaken());
}

TEST_F(PhoneSeatTest, PassesPacketsWholeInBothDirections)
{
    Sit(mPhone);
    EXPECT_TRUE(mSeat.Packet(mPhone, Bytes{1, 0, 0, 0}));
    EXPECT_TRUE(mSeat.Packet(mPhone, Bytes{2, 0, 0, 3}));
    EXPECT_EQ(mWatch->Receive(), (Bytes{1, 0, 0, 0}));
    EXPECT_EQ(mWatch->Receive(), (Bytes{2, 0, 0, 3}));

    mWatch->Send({0x81, 2});
    mWatch->Send(Bytes(65531, 7));
    RunUntil([this] { return mPhone.mReceived.size() == 2; });
    EXPECT_THAT(mPhone.mReceived, ElementsAre(Bytes{0x81, 2}, Bytes(65531, 7)));
    EXPECT_EQ(mSeat.GetStatus().mPacketsToWatch, 2U);
    EXPECT_EQ(mSeat.GetStatus().mPacketsToPhone, 2U);
}

TEST_F(PhoneSeatTest, DropsAPacketOfTheWatchThatIsTooLong)
{
    Sit(mPhone);
    mWatch->Send(Bytes(65532));
    mWatch->Send({5});
    RunUntil([this] { return !mPhone.mReceived.empty(); });
    EXPECT_THAT(mPhone.mReceived, ElementsAre(Bytes{5}));
}

TEST_F(PhoneSeatTest, RefusesASecondPhone)
{
    Sit(mPhone);
    EXPECT_EQ(mSeat.Sit(mSecond), Answer::AnotherPhone);
    EXPECT_FALSE(mWatch->Accept());
    EXPECT_FALSE(mSeat.Packet(mSecond, Bytes{1}));
    EXPECT_FALSE(mWatch->Receive());

    mSeat.Left(mSecond); // it never sat here
    EXPECT_TRUE(mSeat.IsTaken());
    EXPECT_EQ(mSeat.GetStatus().mRefusedForAnother, 1U);
}

TEST_F(PhoneSeatTest, SaysThatTheWatchIsAway)
{
    mWatch.reset();
    EXPECT_EQ(mSeat.Sit(mPhone), Answer::WatchAway);
    EXPECT_FALSE(mSeat.IsTaken());
    EXPECT_EQ(mSeat.GetStatus().mRefusedForWatch, 1U);

    mWatch.emplace(mFolder.Path("link.sock"));
    Sit(mPhone);
}

TEST_F(PhoneSeatTest, TellsThePhoneThatTheWatchHasGoneAfterWhatItHasSent)
{
    Sit(mPhone);
    mPhone.mRoom = 1;
    mWatch->Send({1});
    mWatch->Send({2});
    mWatch->Close();
    RunUntil([this] { return !mPhone.mReceived.empty(); });
    RunDue();
    EXPECT_FALSE(mPhone.mEnd);

    mPhone.mRoom = 1;
    mSeat.HasRoom(mPhone);
    EXPECT_TRUE(RunUntil([this] { return mPhone.mEnd.has_value(); }));
    EXPECT_EQ(mPhone.mEnd, PhoneEnd::WatchAway);
    EXPECT_THAT(mPhone.mReceived, ElementsAre(Bytes{1}, Bytes{2}));
    EXPECT_FALSE(mSeat.IsTaken());
}

TEST_F(PhoneSeatTest, APhoneThatDoesNotReadFillsTheWatchsLink)
{
    Sit(mPhone);
    mPhone.mRoom = 3;
    std::uint32_t sent = 0;
    for (int quiet = 0; quiet < 3; ++quiet) { // three turns without room: the link is full
        while (mWatch->Send(Numbered(sent))) {
            ++sent;
            quiet = 0;
        }
        RunDue();
    }
    EXPECT_EQ(mPhone.mReceived.size(), 3U);

    mPhone.mRoom = 1000000;
    mSeat.HasRoom(mPhone);
    EXPECT_TRUE(RunUntil([&] { return mPhone.mReceived.size() == sent; }));
    for (std::uint32_t i = 0; i < sent; ++i) {
        ASSERT_EQ(mPhone.mReceived[i], Numbered(i));
    }
    EXPECT_TRUE(mWatch->Send({1}));
}

TEST_F(PhoneSeatTest, AWatchThatDoesNotReadHoldsThePhoneUp)
{
    Sit(mPhone);
    const std::uint32_t count = FillWatch(mPhone);
    RunDue();
    EXPECT_EQ(mPhone.mToldToGoOn, 0);

    const std::vector<Bytes> packets = ReceiveAtWatch(count);
    ASSERT_EQ(packets.size(), count);
    for (std::uint32_t i = 0; i < count; ++i) {
        ASSERT_EQ(packets[i], Numbered(i));
    }
    EXPECT_TRUE(RunUntil([this] { return mPhone.mToldToGoOn == 1; }));
    EXPECT_TRUE(mSeat.Packet(mPhone, Bytes{1}));
}

TEST_F(PhoneSeatTest, GivesUpAPhoneThatGoesOnAllTheSame)
{
    Sit(mPhone);
    FillWatch(mPhone);
    for (int i = 0; i < 70 && !mPhone.mEnd; ++i) {
        EXPECT_FALSE(mSeat.Packet(mPhone, Bytes(1000)));
    }
    EXPECT_EQ(mPhone.mEnd, PhoneEnd::TooMuch);
    EXPECT_FALSE(mSeat.IsTaken());
}

TEST_F(PhoneSeatTest, TheLastPacketsOfAPhoneReachTheWatchAndNobodyElseSitsMeanwhile)
{
    Sit(mPhone);
    const std::uint32_t count = FillWatch(mPhone);
    mSeat.Left(mPhone);
    mWatch->Send({9}); // for nobody
    EXPECT_EQ(mSeat.Sit(mSecond), Answer::AnotherPhone);

    EXPECT_EQ(ReceiveAtWatch(count).size(), count);
    EXPECT_TRUE(RunUntil([this] { return !mSeat.IsTaken(); }));
    EXPECT_TRUE(mPhone.mReceived.empty());
    EXPECT_EQ(mPhone.mToldToGoOn, 0);
}

TEST_F(PhoneSeatTest, NothingOfOnePhoneReachesTheNext)
{
    Sit(mPhone);
    mPhone.mRoom = 0;
    mWatch->Send({1});
    mWatch->Send({2});
    RunDue();
    mSeat.Left(mPhone);

    Sit(mSecond);
    mWatch->Send({3});
    RunUntil([this] { return !mSecond.mReceived.empty(); });
    EXPECT_THAT(mSecond.mReceived, ElementsAre(Bytes{3}));
}

TEST_F(PhoneSeatTest, TellsRoadsWhenTheSeatIsTakenAndFree)
{
    std::vector<bool> told;
    mSeat.AddListener([&] { told.push_back(mSeat.IsTaken()); });
    Sit(mPhone);
    mSeat.Left(mPhone);
    EXPECT_THAT(told, ElementsAre(true, false));
}

TEST_F(PhoneSeatTest, ClosesThePhoneWhenItStopsAndSeatsNobodyAnyMore)
{
    Sit(mPhone);
    mSeat.Stop();
    EXPECT_EQ(mPhone.mEnd, PhoneEnd::Stopping);
    EXPECT_TRUE(mWatch->HasEnded());
    EXPECT_EQ(mSeat.Sit(mSecond), Answer::WatchAway);
}

} // namespace
} // namespace ParvaneGateway
