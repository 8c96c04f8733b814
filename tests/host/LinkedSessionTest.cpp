#include "LinkedSession.h"

#include <algorithm>
#include <array>
#include <memory>
#include <poll.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PlayedSession.h"
#include "ScriptedWatch.h"

namespace ParvaneHost {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::StartsWith;

StepLedger NewLedger()
{
    return StepLedger([](auto) { return std::chrono::seconds{0}; });
}

/** What a watch answers: acknowledgements, and a reading of `value` to everything else. */
std::vector<Bytes> Answer(const Bytes &packet, float value)
{
    const std::uint8_t first = packet.at(0);
    return first % 16 == 4 ? std::vector<Bytes>{{first, 0x02, 0x00, packet.at(3)}}
                           : std::vector<Bytes>{ReadingPacket(first, packet.at(3), value)};
}

SessionOptions Options()
{
    SessionOptions options;
    options.mAsksWorn = false; // nothing but what a case asks for
    return options;
}

/** A session and the watch that it talks to, over a real socket. */
struct Pair
{
    ScriptedWatch mWatch;
    LinkedSession mPhone{mWatch.Path(), Options(), NewLedger()};
    std::vector<std::string> mTold;
};

// --- many of them in a poll(2) loop --------------------------------------------------------------

class ManyWatchesTest : public testing::Test
{
protected:
    static constexpr std::size_t kMany = 50;

    ManyWatchesTest()
    {
        for (std::size_t number = 0; number < kMany; ++number) {
            auto &session = mPairs.emplace_back(std::make_unique<Pair>())->mPhone.Get();
            session.Follow(Sensor::Activity, Now());
            session.Measure(Sensor::HeartRate, Now());
        }
    }

    /** One turn of a loop as an application has it; the watches take a step each. */
    void Turn()
    {
        std::vector<pollfd> polled;
        int timeout = 20;
        for (const auto &pair : mPairs) {
            pair->mPhone.Process();
            while (const auto event = pair->mPhone.Get().NextEvent()) {
                pair->mTold.push_back(TextOf(*event));
            }
            polled.push_back({pair->mPhone.Fd(), pair->mPhone.Awaits(), 0});
            if (const auto due = pair->mPhone.Get().Deadline()) {
                const auto left = std::chrono::ceil<milliseconds>(*due - Now().mSteady);
                timeout = std::clamp(static_cast<int>(left.count()), 0, timeout);
            }
        }
        float value = 1;
        for (const auto &pair : mPairs) {
            pair->mWatch.Step([&value](const Bytes &packet) { return Answer(packet, value); });
            ++value;
        }
        ASSERT_GE(::poll(polled.data(), polled.size(), timeout), 0);
    }

    void TurnUntilEachHasTold(std::size_t events)
    {
        const auto hasTold = [events](const auto &pair) { return pair->mTold.size() >= events; };
        const Deadline end = Deadline::After(std::chrono::seconds{20});
        while (!std::all_of(mPairs.begin(), mPairs.end(), hasTold) && !end.HasPassed()) {
            Turn();
        }
    }

    std::vector<std::unique_ptr<Pair>> mPairs;
};

TEST_F(ManyWatchesTest, EachHasItsOwnLinkAndReadingsInOneThread)
{
    TurnUntilEachHasTold(3);
    for (std::size_t number = 0; number < kMany; ++number) {
        const std::string value = std::to_string(number + 1);
        EXPECT_THAT(
            mPairs[number]->mTold,
            testing::UnorderedElementsAre("linked", "activity " + value, "hr " + value + " #1"));
    }
}

TEST_F(ManyWatchesTest, LinksThatAreLostAreMadeAgainAndTheOthersGoOn)
{
    TurnUntilEachHasTold(3);
    for (std::size_t number = 0; number < kMany; ++number) {
        auto &pair = *mPairs[number];
        pair.mTold.clear();
        if (number % 3 == 0) {
            pair.mWatch.HangUp();
        } else {
            pair.mPhone.Get().Measure(Sensor::WearState, Now());
            pair.mPhone.Get().Measure(Sensor::Pedometer, Now());
            pair.mTold.emplace_back("meanwhile");
        }
    }
    TurnUntilEachHasTold(3);
    for (std::size_t number = 0; number < kMany; ++number) {
        if (number % 3 == 0) {
            EXPECT_THAT(mPairs[number]->mTold,
                        ElementsAre(StartsWith("lost: the watch closed the link"), "linked",
                                    "activity " + std::to_string(number + 1)));
        }
    }
}

// --- one, waited for ----------------------------------------------------------------------------

class LinkedSessionTest : public testing::Test
{
protected:
    LinkedSessionTest()
    {
        mWait.mTickPeriod = milliseconds{1};
        mWait.mOnTick = [this] {
            mPair.mWatch.Step([this](const Bytes &packet) {
                mReceived.push_back(packet);
                return Answer(packet, 2);
            });
        };
    }

    std::string Next()
    {
        auto event = mPair.mPhone.Next(Deadline::After(std::chrono::seconds{20}), mWait);
        return event ? TextOf(event.Value()) : Describe(event.GetError());
    }

    Pair mPair;
    WaitOptions mWait;
    std::vector<Bytes> mReceived;
};

TEST_F(LinkedSessionTest, LinkIsMadeAndMadeAgain)
{
    mPair.mPhone.Get().Follow(Sensor::Activity, Now());
    EXPECT_EQ(Next(), "linked");
    EXPECT_EQ(Next(), "activity 2");
    mPair.mWatch.HangUp();
    EXPECT_EQ(Next(), "lost: the watch closed the link " + mPair.mWatch.Path());
    EXPECT_EQ(mPair.mPhone.WhyLost()->mReason, LinkError::Reason::Closed);
    EXPECT_EQ(Next(), "linked");
    EXPECT_EQ(Next(), "activity 2");
    EXPECT_THAT(mReceived, ElementsAre(Bytes{0x14, 0, 0, 1}, Bytes{0x23, 0, 0, 1, 0},
                                       Bytes{0x34, 0, 0, 1}, Bytes{0x13, 0, 0, 1, 0}));
}

TEST_F(LinkedSessionTest, WatchThatIsNotThereIsAFailedAttempt)
{
    mPair.mWatch.StopListening();
    EXPECT_EQ(Next(), "attempt failed: cannot connect to " + mPair.mWatch.Path() +
                          ": Connection refused (is the watch service running?), 100 ms");
    EXPECT_EQ(mPair.mPhone.Fd(), -1);
    EXPECT_THAT(Next(), testing::EndsWith("200 ms"));
}

TEST_F(LinkedSessionTest, DeadlineEndsTheWait)
{
    EXPECT_EQ(Next(), "linked");
    const auto event = mPair.mPhone.Next(Deadline::After(milliseconds{1}), mWait);
    ASSERT_FALSE(event.Ok());
    EXPECT_EQ(Describe(event.GetError()), "no answer to the next reading within 0.001 s");
}

TEST_F(LinkedSessionTest, ReadableDescriptorInterruptsTheWait)
{
    EXPECT_EQ(Next(), "linked");
    std::array<int, 2> ends{-1, -1};
    ASSERT_EQ(::pipe(ends.data()), 0);
    const UniqueFd readEnd(ends[0]);
    const UniqueFd writeEnd(ends[1]);
    mWait.mInterruptFd = readEnd.Get();
    ASSERT_EQ(::write(writeEnd.Get(), "x", 1), 1);
    EXPECT_EQ(Next(), "interrupted");
}

TEST_F(LinkedSessionTest, WhatIsAskedForGoesFirstAndTheNextCallReads)
{
    EXPECT_EQ(Next(), "linked");
    mPair.mWatch.Send(ReadingPacket(0x02, 1, 5));
    mPair.mPhone.Get().Stop(Sensor::HeartRate, Now());
    mPair.mPhone.Process();
    EXPECT_FALSE(mPair.mPhone.Get().NextEvent().has_value()) << "the link was read empty before";

    mPair.mPhone.Get().Stop(Sensor::Pedometer, Now());
    mPair.mPhone.Process();
    const auto event = mPair.mPhone.Get().NextEvent();
    ASSERT_TRUE(event.has_value()) << "nothing waits for a third call";
    EXPECT_EQ(TextOf(*event), "activity 5");
    EXPECT_EQ(mPair.mWatch.Receive().at(3), 3);
    EXPECT_EQ(mPair.mWatch.Receive().at(3), 2);
}

TEST_F(LinkedSessionTest, PacketThatIsTooLongIsToldAsNonsense)
{
    EXPECT_EQ(Next(), "linked");
    mPair.mWatch.Send(Bytes(65532, 0));
    EXPECT_THAT(Next(), StartsWith("nonsense: packet size (offset 65532)"));
}

TEST_F(LinkedSessionTest, EveryPacketIsShownToWhoWantsToSeeThem)
{
    std::vector<std::pair<Parvane::Sender, std::size_t>> seen;
    mPair.mPhone.SetOnLink([&seen](Link &link) {
        link.SetOnPacket([&seen](Parvane::Sender sender, std::span<const std::uint8_t> packet) {
            seen.emplace_back(sender, packet.size());
        });
    });
    EXPECT_EQ(Next(), "linked");
    EXPECT_THAT(seen, ElementsAre(std::pair(Parvane::Sender::Phone, 4U),
                                  std::pair(Parvane::Sender::Watch, 4U)));
}

} // namespace
} // namespace ParvaneHost
