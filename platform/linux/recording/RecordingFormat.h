#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "SensorReading.h"

namespace ParvanePlatform {

/** The values of the pedometer, in the order in which a row keeps them. */
enum PedometerField : std::size_t {
    kTotalSteps,
    kWalkSteps,
    kRunSteps,
    kDistanceM,
    kCaloriesKcal,
    kSpeed,
    kPedometerFields
};

/** The fields before kSpeed count from the start of the recording. */
constexpr std::size_t kPedometerCounters = kSpeed;

/** The columns of a recording, in the order in which RecordingWriter writes them. */
enum RecordingColumn : std::size_t {
    kTimeColumn,
    kHeartRateColumn,
    kFirstPedometerColumn,
    kActivityColumn = kFirstPedometerColumn + kPedometerFields,
    kGestureColumn,
    /** The columns before this one are in each recording, the others in those that need them. */
    kRequiredColumns,
    kPeakToPeakColumn = kRequiredColumns,
    kSpo2Column,
    kActivityAccuracyColumn,
    kRestartColumn,
    kRecordingColumns
};

/** The last moment of a recording, in milliseconds since its start. */
constexpr std::int64_t kMaxRecordingMs = 1'000'000'000'000;

/** What the column restart says of the pedometer; a row that says nothing goes on. */
enum class RestartMark {
    /** It begins anew in this row: what it told before is forgotten, its counters may be lower. */
    Anew = 1,
    /** It tells just the values of this row from here on; its counters go on. */
    Forget = 2
};

/** What a cell may hold. */
struct CellRule
{
    bool mIsWhole = true;
    double mMin = 0.0;
    double mMax = 0.0;
    /** Says so in a message: "a whole number of 32 bits". */
    const char *mText = "";

    /** False for NaN. */
    bool Allows(double value) const;
};

/** What a column of a recording is; docs/storage.md describes the form as a whole. */
struct RecordingColumnInfo
{
    std::string_view mName;
    CellRule mRule;
    /** The item and the key of the value; none for t_ms and restart. */
    std::optional<ContextItem> mItem;
    const char *mKey = nullptr;
};

/** @param column  below kRecordingColumns */
const RecordingColumnInfo &InfoOf(std::size_t column);

} // namespace ParvanePlatform
