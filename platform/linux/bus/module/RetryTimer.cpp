#include "RetryTimer.h"

#include <algorithm>
#include <utility>

namespace ParvanePlatform {

RetryTimer::RetryTimer(const Clock &clock, std::unique_ptr<Timer> timer)
    : mClock(clock), mTimer(std::move(timer))
{}

void RetryTimer::Schedule(std::function<void()> handler)
{
    mIsScheduled = true;
    mTimer->Arm(mClock.MonotonicUs() + mPauseUs, [this, handler = std::move(handler)] {
        mIsScheduled = false;
        handler();
    });
    mPauseUs = std::min(2 * mPauseUs, kLongestPauseUs);
}

void RetryTimer::Cancel()
{
    mIsScheduled = false;
    mTimer->Disarm();
}

} // namespace ParvanePlatform
