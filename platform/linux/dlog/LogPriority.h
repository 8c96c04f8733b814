#pragma once

#include <string>

namespace ParvanePlatform {

/** Priorities of the log, by the numbers of the platform. */
enum class LogPriority { Verbose = 2, Debug = 3, Info = 4, Warning = 5, Error = 6, Fatal = 7 };

/** Which lines of the log are written. */
struct LogFilter
{
    /** Every line, but on a terminal only warnings and worse. */
    static constexpr int kAutomatic = -1;

    /** The least priority that is written; 0 for every line, those without a priority included. */
    int mLevel = kAutomatic;
    /** With ',' between them: what is no error must have one of them; empty: any will do. */
    std::string mTags;

    bool operator==(const LogFilter &) const = default;
};

} // namespace ParvanePlatform
