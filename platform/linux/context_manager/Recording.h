#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

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

/** One row of a recording. Which of its values are there is told by the flags. */
struct RecordingRow
{
    std::int64_t mTimeMs = 0;
    /** Each field's value of this row, or its last value before. */
    std::array<double, kPedometerFields> mPedometer = {};
    int mHeartRate = 0;
    int mActivity = 0;
    int mGesture = 0;
    /** Bit n: field n of mPedometer has had a value in this row or before. */
    std::uint8_t mKnownPedometer = 0;
    /** Some field of mPedometer has a value in this row itself. */
    bool mHasPedometer = false;
    bool mHasHeartRate = false;
    bool mHasActivity = false;
    bool mHasGesture = false;
};

/** A recording of the sensors, in order of time; at least one row. docs/storage.md has its form. */
struct Recording
{
    std::vector<RecordingRow> mRows;
    /**
     * From the start of one round to the start of the next: the last row's time and the median
     * distance of two rows, which is 1 ms at least and 1000 ms when there is one row.
     */
    std::int64_t mLoopMs = 0;
};

/**
 * Reads a recording from its text.
 *
 * @param name  what the text is called in messages
 * @throws StartupError "NAME: line N, column N (COLUMN): REASON", the parts that there are
 */
Recording ParseRecording(const std::string &name, std::string_view text);

/**
 * Reads recordings that are played one after the other, as one: each begins where the round of the
 * one before would have ended, and its counters go on from there.
 *
 * @throws StartupError as LoadRecording() does
 */
Recording LoadRecordings(const std::vector<std::string> &paths);

/**
 * Reads a recording from a file of at most 256 MiB.
 *
 * @throws StartupError that names the path and the reason, or as ParseRecording() does
 */
Recording LoadRecording(const std::string &path);

} // namespace ParvanePlatform
