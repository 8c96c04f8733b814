#include "Player.h"

#include <algorithm>
#include <utility>

namespace ParvaneWatch {

using std::chrono::microseconds;

namespace {

constexpr double kUsPerMs = 1000.0;

} // namespace

Player::Player(std::vector<PlayEvent> events, std::int64_t endMs, double speed, PlayClock &clock)
    : mEvents(std::move(events)), mEndMs(endMs), mSpeed(speed), mClock(clock)
{}

Player::Progress Player::Play()
{
    mStart = mClock.Now();
    for (const PlayEvent &event : mEvents) {
        if (!WaitFor(event.mMs)) {
            return mProgress;
        }
        mOnEvent(event);
        ++mProgress.mPlayed;
    }
    mProgress.mIsWhole = WaitFor(mEndMs);
    return mProgress;
}

bool Player::WaitFor(std::int64_t ms)
{
    const auto us = static_cast<std::int64_t>(static_cast<double>(ms) * kUsPerMs / mSpeed);
    const microseconds due = mStart + microseconds(us);
    for (;;) {
        const microseconds now = mClock.Now();
        const double played = static_cast<double>((now - mStart).count()) * mSpeed / kUsPerMs;
        mProgress.mMs = std::min(ms, static_cast<std::int64_t>(played));
        if (mOnProgress) {
            mOnProgress(mProgress);
        }
        // Late events too ask whether the playing is to end.
        if (!mClock.WaitUntil(std::min(due, now + kPeriod))) {
            return false;
        }
        if (mClock.Now() >= due) {
            mProgress.mMs = ms;
            return true;
        }
    }
}

} // namespace ParvaneWatch
