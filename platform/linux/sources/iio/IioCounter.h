#pragma once

#include <optional>

namespace ParvanePlatform {

/**
 * A count that never goes down, over a device's counter that may: devices start over at 0 when they
 * are reset, and counters of 16 or 32 bits when they are full.
 *
 * What lies between the last value before such a jump and the first one after it is not counted. A
 * lower value alone is no jump yet: a device that has trouble may say 0 for a moment, and a counter
 * that comes back from there to where it was or beyond has never left. It has jumped when it rises
 * below its old value.
 */
class IioCounter
{
public:
    /** @param limit  where the count stops */
    explicit IioCounter(double limit) : mLimit(limit) {}

    /** What the device's counter has done; of several falls in a row only the first is one back. */
    enum class Step { On, Back };

    /** Takes the newest value of the device's counter. */
    Step Take(double value);

    /** The next value belongs to another counter: the count goes on from where it is. */
    void Rebase() { mIsRebased = true; }

    /**
     * Lets a count that has no value yet begin at 0, whatever the device's counter says; for those
     * who have been told without it and would take its first value for progress.
     */
    void BeginAtZero() { mBeginsAtZero = true; }

    /** The count; empty before the first value. */
    std::optional<double> Count() const { return mCount; }

    /** The newest value of the device's counter that was not lower than those before. */
    double Last() const { return mLast; }

private:
    const double mLimit;
    std::optional<double> mCount;
    double mLast = 0.0;
    /** The lowest value since the counter fell below the last one; empty when it has not. */
    std::optional<double> mDip;
    /** The count and the device's value when the two began to run in parallel. */
    double mBaseCount = 0.0;
    double mBaseValue = 0.0;
    bool mIsRebased = false;
    bool mBeginsAtZero = false;
};

} // namespace ParvanePlatform
