#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "RecordingFormat.h"
#include "SensorReading.h"

namespace ParvanePlatform {

/**
 * Writes readings down as a recording, which ReplaySource plays back to the same readings in the
 * same order: whoever reads a key from them, as an int or as a double, gets the same answer, to 15 digits.
 *
 * Makes text only, line by line; the header and the rows in their order are the file. Where a
 * counter of the pedometer goes down, which the format takes for a mistake otherwise, or a value is
 * no longer told, which it takes for the one before, the row says so (RestartMark). The locale of
 * the process has no part in it. One object writes one recording.
 */
class RecordingWriter
{
public:
    /** A row, or why there is none: one of the two is empty. */
    struct Row
    {
        /** One line with its end. */
        std::string mText;
        /** One line without an end, which names the value that the format cannot hold. */
        std::string mError;
    };

    /**
     * The lines before the first row, each with its end.
     *
     * @param wallMs  the start of the recording, in milliseconds since the epoch
     */
    static std::string Header(std::int64_t wallMs);

    /**
     * The row of a reading.
     *
     * @param timeMs  since the start of the recording, 0 to kMaxRecordingMs, not less than before
     *
     * Refused are another time, a reading without a value, a key that its item does not have in a
     * recording, and a value that its column does not allow (InfoOf()); a refused reading leaves no
     * trace in the rows that follow. Of a key that is there twice the first value counts, as it does
     * for whoever reads it.
     */
    Row MakeRow(std::int64_t timeMs, ContextItem item, const SensorReading &reading);

private:
    using Cells = std::array<std::optional<double>, kRecordingColumns>;

    std::string CheckTime(std::int64_t timeMs) const;
    /** Marks a reading of the pedometer where it has to be, and remembers it. */
    void TakePedometer(Cells &cells);
    /** The mark without which the reading cannot come after those before. */
    std::optional<RestartMark> MarkOf(const Cells &cells) const;

    std::int64_t mLastMs = 0;
    /** Which of its values the pedometer's last reading has told. */
    std::array<bool, kPedometerFields> mIsTold = {};
    /** The last value of each of its counters since it began anew, told in that reading or before. */
    std::array<double, kPedometerCounters> mCounts = {};
};

} // namespace ParvanePlatform
