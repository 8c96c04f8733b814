#pragma once

#include <string>
#include <vector>

#include "ReadingLog.h"

namespace ParvaneHost {

// The forms in which a log leaves; docs/export.md describes them. None of them fails.

/** A table: a line of names, then one line for each reading that says something. */
std::string CsvText(const std::vector<LogEntry> &log, const ZoneOffset &zone);

/** A JSON object for each reading, one a line. */
std::string JsonLinesText(const std::vector<LogEntry> &log, const ZoneOffset &zone);

/** A recording, which the service's replay source plays back; empty for a log that has nothing to play. */
std::string RecordingText(const std::vector<LogEntry> &log, const ZoneOffset &zone);

/** "2026-01-31T12:34:56.789Z". */
std::string UtcText(Instant instant);

} // namespace ParvaneHost
