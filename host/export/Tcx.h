#pragma once

#include <string>
#include <vector>

#include "ReadingLog.h"

namespace ParvaneHost {

/** A stretch of one activity. */
struct Lap
{
    bool operator==(const Lap &) const = default;

    Activity mActivity = Activity::StillOrOther;
    Instant mBegin;
    Instant mEnd;
};

/** Walking and running with the short rests between them; at least one lap, each begins where one ends. */
using Training = std::vector<Lap>;

/**
 * The trainings of a log: they begin with walking or running, and end with the last of it before ten
 * minutes of something else, or of silence. A log that says nothing of activities is one, of one lap.
 */
std::vector<Training> FindTrainings(const std::vector<LogEntry> &log);

/** The trainings as a Training Center XML document, version 2; docs/export.md says what it holds. */
std::string TcxText(const std::vector<LogEntry> &log);

} // namespace ParvaneHost
