#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "context_manager/SensorReading.h"

namespace ParvanePlatform {

/** Makes the text of one recording, reading by reading (docs/storage.md). */
class RecordingText
{
public:
    /** A row, or why there is none: one of the two is empty. */
    struct Row
    {
        /** One line with its end. */
        std::string mText;
        /** One line without an end, which names what the form of a recording cannot hold. */
        std::string mError;
    };

    virtual ~RecordingText() = default;

    /** The lines before the first row, each with its end. @param wallMs  the start, since the epoch */
    virtual std::string Header(std::int64_t wallMs) = 0;

    /** The row of a reading. @param timeMs  since the start, not less than before */
    virtual Row MakeRow(std::int64_t timeMs, ContextItem item, const SensorReading &reading) = 0;
};

/** Makes the text of a recording that begins. */
using RecordingTextFactory = std::function<std::unique_ptr<RecordingText>()>;

/** A recording with one row for each reading, as it came. */
std::unique_ptr<RecordingText> MakeRecordingText();

} // namespace ParvanePlatform
