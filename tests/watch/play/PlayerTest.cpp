#include "Player.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneWatch {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using testing::ElementsAre;

/** A clock that goes on only where it is waited for. */
class ScriptedClock : public PlayClock
{
public:
    microseconds Now() override { return mNow; }

    bool WaitUntil(microseconds instant) override
    {
        const bool isInterrupted = std::max(mNow, instant) >= mInterruptAt;
        mNow = std::max(mNow, std::min(instant, mInterruptAt));
        return !isInterrupted;
    }

    microseconds mNow{1000000};
    microseconds mInterruptAt = microseconds::max();
};

class PlayerTest : public testing::Test
{
protected:
    Player::Progress Play(std::vector<PlayEvent> events, std::int64_t endMs, double speed = 1)
    {
        const microseconds start = mClock.mNow;
        const auto ms = [this, start] {
            return std::chrono::duration_cast<milliseconds>(mClock.mNow - start).count();
        };
        Player player(std::move(events), endMs, speed, mClock);
        player.mOnEvent = [this, ms](const PlayEvent &event) {
            mPlayed.push_back(std::to_string(event.mValue) + " at " + std::to_string(ms()));
            mClock.mNow += mCost;
        };
        player.mOnProgress = [this](const Player::Progress &progress) {
            mProgress.push_back(progress.mMs);
        };
        const Player::Progress progress = player.Play();
        mTookMs = ms();
        return progress;
    }

    ScriptedClock mClock;
    microseconds mCost{0};
    std::vector<std::string> mPlayed;
    std::vector<std::int64_t> mProgress;
    std::int64_t mTookMs = 0;
};

const std::vector<PlayEvent> kThree = {
    {0, PlayItem::HeartRate, 1}, {1000, PlayItem::HeartRate, 2}, {1500, PlayItem::HeartRate, 3}};

TEST_F(PlayerTest, EachEventHasItsInstantAndTheEndIsWaitedFor)
{
    const Player::Progress progress = Play(kThree, 2000);
    EXPECT_THAT(mPlayed, ElementsAre("1 at 0", "2 at 1000", "3 at 1500"));
    EXPECT_TRUE(progress.mIsWhole);
    EXPECT_EQ(progress.mPlayed, 3U);
    EXPECT_EQ(progress.mMs, 2000);
    EXPECT_EQ(mTookMs, 2000);
}

TEST_F(PlayerTest, SpeedShortensTheTime)
{
    Play(kThree, 2000, 10);
    EXPECT_THAT(mPlayed, ElementsAre("1 at 0", "2 at 100", "3 at 150"));
    EXPECT_EQ(mTookMs, 200);
    mPlayed.clear();
    Play(kThree, 2000, 0.5);
    EXPECT_THAT(mPlayed, ElementsAre("1 at 0", "2 at 2000", "3 at 3000"));
}

TEST_F(PlayerTest, LateEventsComeAtOnceAndTheTimeDoesNotDrift)
{
    mCost = milliseconds(1200);
    Play(kThree, 4000);
    EXPECT_THAT(mPlayed, ElementsAre("1 at 0", "2 at 1200", "3 at 2400"));
    EXPECT_EQ(mTookMs, 4000);
}

TEST_F(PlayerTest, AnInterruptionEndsItBeforeTheNextEvent)
{
    mClock.mInterruptAt = mClock.mNow + milliseconds(1200);
    const Player::Progress progress = Play(kThree, 2000);
    EXPECT_THAT(mPlayed, ElementsAre("1 at 0", "2 at 1000"));
    EXPECT_FALSE(progress.mIsWhole);
    EXPECT_EQ(progress.mPlayed, 2U);
}

TEST_F(PlayerTest, AnInterruptionEndsWhatIsLateToo)
{
    mClock.mInterruptAt = mClock.mNow;
    EXPECT_EQ(Play(kThree, 2000).mPlayed, 0U);
}

TEST_F(PlayerTest, ProgressIsToldWhileNothingComes)
{
    Play({}, 1000, 2);
    EXPECT_THAT(mProgress, ElementsAre(0, 500));
}

TEST_F(PlayerTest, WhatAnEventThrowsEndsIt)
{
    Player player(kThree, 2000, 1, mClock);
    int events = 0;
    player.mOnEvent = [&events](const PlayEvent & /*event*/) {
        ++events;
        throw std::runtime_error("refused");
    };
    EXPECT_THROW(player.Play(), std::runtime_error);
    EXPECT_EQ(events, 1);
}

} // namespace
} // namespace ParvaneWatch
