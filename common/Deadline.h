#pragma once

#include <chrono>

namespace Parvane {

/** A point on the monotonic clock at which an operation gives up. A plain value. */
class Deadline
{
public:
    /** `length` from now; a negative length counts as 0, one above a year as a year. */
    static Deadline After(std::chrono::milliseconds length);

    /** One that never passes. */
    static Deadline Never();

    [[nodiscard]] bool HasPassed() const;

    /** What is left, rounded up to the next millisecond; 0 once it has passed. */
    [[nodiscard]] std::chrono::milliseconds Remaining() const;

    /** The whole length that After() was given: for messages. */
    [[nodiscard]] std::chrono::milliseconds Length() const { return mLength; }

    /** Whichever of the two passes first. */
    [[nodiscard]] const Deadline &Earlier(const Deadline &other) const;

private:
    using Clock = std::chrono::steady_clock;

    Deadline(Clock::time_point point, std::chrono::milliseconds length)
        : mPoint(point), mLength(length)
    {}

    Clock::time_point mPoint;
    std::chrono::milliseconds mLength;
};

} // namespace Parvane
