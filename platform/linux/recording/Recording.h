#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "RecordingFormat.h"

namespace ParvanePlatform {

/** One row of a recording. */
struct RecordingRow
{
    std::int64_t mTimeMs = 0;
    /**
     * The values, from the column heart_rate on. Those of the pedometer are this row's or the last ones
     * since it began anew; the others count only where the row has them.
     */
    std::array<double, kRestartColumn - kHeartRateColumn> mValues = {};
    /** Bit n: column n has a value in this row itself. */
    std::uint16_t mColumns = 0;
    /** Bit n: field n of the pedometer has had a value. */
    std::uint8_t mToldPedometer = 0;
    /** Bit n: a reading of this row has field n; it has had a value and is not forgotten. */
    std::uint8_t mKnownPedometer = 0;
    /** Bit n: what was known of field n is forgotten, and no value has come since. */
    std::uint8_t mForgottenPedometer = 0;
    /** The pedometer has begun anew in this row or before; what it told before that is forgotten. */
    bool mIsRestarted = false;

    bool Has(std::size_t column) const { return (mColumns >> column & 1U) != 0; }
    double &Value(std::size_t column) { return mValues[column - kHeartRateColumn]; }
    double Value(std::size_t column) const { return mValues[column - kHeartRateColumn]; }
    double &Pedometer(std::size_t field) { return Value(kFirstPedometerColumn + field); }
    double Pedometer(std::size_t field) const { return Value(kFirstPedometerColumn + field); }
};

/** A value of each counter of the pedometer; none for one that has had none. */
using PedometerCounts = std::array<std::optional<double>, kPedometerCounters>;

/** The columns of an item's values, one bit each; a row is a reading of the item when it has one. */
unsigned ColumnsOf(ContextItem item);

/**
 * Lets the pedometer of a row go on from a row that was played before the first one of its
 * recording. A counter goes on by what it has counted since its first value, in `first`, up to the
 * most that its column allows; what the row does not know, and has not forgotten, is as it was.
 */
void GoOnFrom(const RecordingRow &before, const PedometerCounts &first, RecordingRow &row);

/** A recording of the sensors, in order of time; at least one row. docs/storage.md has its form. */
struct Recording
{
    std::vector<RecordingRow> mRows;
    /**
     * From the start of one round to the start of the next: the last row's time and the median
     * distance of two rows of its file, which is 1 ms at least and 1000 ms when it has one row.
     */
    std::int64_t mLoopMs = 0;
    /** The first value of each counter. */
    PedometerCounts mFirst;
};

} // namespace ParvanePlatform
