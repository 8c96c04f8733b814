#pragma once

#include <cstdint>

namespace ParvanePlatform {

/** When something was. */
struct Instant
{
    /** Milliseconds since the epoch, UTC. */
    std::int64_t mWallMs = 0;
    /** Microseconds on Clock::BootUs(). */
    std::int64_t mBootUs = 0;
};

/** Tells the time. The runtime has one SystemClock; tests put their own in its place. */
class Clock
{
public:
    virtual ~Clock() = default;

    /** Microseconds on the time scale of the main loop: steady, not counting suspension. */
    virtual std::int64_t MonotonicUs() const = 0;

    /** Milliseconds since the epoch, UTC. */
    virtual std::int64_t WallMs() const = 0;

    /** Microseconds since the epoch, UTC, as exactly as the clock knows it. */
    virtual std::int64_t WallUs() const { return WallMs() * 1000; }

    /** Microseconds on a steady time scale that counts suspension, for how long ago something was. */
    virtual std::int64_t BootUs() const { return MonotonicUs(); }

    Instant Now() const { return {WallMs(), BootUs()}; }
};

/** The clocks of the system. */
class SystemClock : public Clock
{
public:
    std::int64_t MonotonicUs() const override;
    std::int64_t WallMs() const override;
    std::int64_t WallUs() const override;
    std::int64_t BootUs() const override;
};

} // namespace ParvanePlatform
