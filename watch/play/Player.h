#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "Timeline.h"

namespace ParvaneWatch {

/** The time of a player, since some instant of the past. */
class PlayClock
{
public:
    virtual ~PlayClock() = default;

    virtual std::chrono::microseconds Now() = 0;

    /** Waits for an instant of Now(). @return false when the playing is to end before that */
    virtual bool WaitUntil(std::chrono::microseconds instant) = 0;
};

/** Plays a timeline: hands each event over when its time has come, and late ones at once. Use once. */
class Player
{
public:
    /** How a playing went, or goes. */
    struct Progress
    {
        std::size_t mPlayed = 0;
        std::int64_t mMs = 0; // of the scenario
        bool mIsWhole = false;
    };

    /** How often mOnProgress is called at least. */
    static constexpr std::chrono::milliseconds kPeriod{250};

    /**
     * @param endMs  of the scenario, which is waited for
     * @param speed  how many times faster, above 0
     * @param clock  borrowed
     */
    Player(std::vector<PlayEvent> events, std::int64_t endMs, double speed, PlayClock &clock);

    /** Hands an event over; what it throws ends the playing. */
    std::function<void(const PlayEvent &)> mOnEvent;
    /** May be empty. */
    std::function<void(const Progress &)> mOnProgress;

    Progress Play();

    /** How far it is; for when something has been thrown. */
    [[nodiscard]] const Progress &Reached() const { return mProgress; }

private:
    /** Waits for an instant of the scenario. @return false when the playing is to end */
    bool WaitFor(std::int64_t ms);

    std::vector<PlayEvent> mEvents;
    std::int64_t mEndMs;
    double mSpeed;
    PlayClock &mClock;
    std::chrono::microseconds mStart{0};
    Progress mProgress;
};

} // namespace ParvaneWatch
