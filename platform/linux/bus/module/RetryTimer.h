#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "Clock.h"
#include "Timer.h"

namespace ParvanePlatform {

/**
 * Calls for another attempt after a pause, which doubles from one time to the next: 1 s, 2 s, 4 s and
 * so on, 30 s at most. Main-loop thread only.
 */
class RetryTimer
{
public:
    static constexpr std::int64_t kFirstPauseUs = 1'000'000;
    static constexpr std::int64_t kLongestPauseUs = 30'000'000;

    /** `clock` is borrowed for the life of the timer. */
    RetryTimer(const Clock &clock, std::unique_ptr<Timer> timer);

    /** Calls `handler` once after the next pause, in place of what was to be called. */
    void Schedule(std::function<void()> handler);

    /** There is no call any more; the next pause is as long as it would have been. */
    void Cancel();

    /** True while a call is to come. */
    bool IsScheduled() const { return mIsScheduled; }

    /** Makes the next pause the shortest again. */
    void Reset() { mPauseUs = kFirstPauseUs; }

private:
    const Clock &mClock;
    std::unique_ptr<Timer> mTimer;
    std::int64_t mPauseUs = kFirstPauseUs;
    bool mIsScheduled = false;
};

} // namespace ParvanePlatform
