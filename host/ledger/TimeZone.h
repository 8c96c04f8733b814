#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Result.h"

namespace ParvaneHost {

/**
 * A time zone of the IANA data base, from its compiled file (RFC 8536), whatever the zone of the process
 * is. A value; many threads may read one.
 */
class TimeZone
{
public:
    /**
     * Reads the content of a file, of version 2 or later and without leap seconds.
     *
     * @return the zone, or what is wrong with it, in a line
     */
    static Result<TimeZone, std::string> Parse(std::string_view content);

    /** How far local time is ahead of UTC at `instant`. */
    [[nodiscard]] std::chrono::seconds OffsetAt(std::chrono::sys_seconds instant) const;

private:
    /** A day of each year, and a time of it: when summer time begins or ends. */
    struct Rule
    {
        enum class Kind {
            Month,     // "M3.5.0": the last Sunday of March
            Julian,    // "J60": the 1st of March, as 29th of February has no number
            DayOfYear, // "59": the 60th day of the year
        };
        Kind mKind = Kind::Month;
        unsigned mMonth = 1;
        unsigned mWeek = 1; // 5: the last one
        unsigned mDay = 0;  // of the week, 0 is Sunday; or of the year
        std::chrono::seconds mTime{0};

        [[nodiscard]] std::chrono::sys_seconds In(std::chrono::year inYear) const;
    };

    /** What holds after the last change. */
    struct Footer
    {
        std::chrono::seconds mStandard{0};
        std::chrono::seconds mSummer{0};
        std::optional<Rule> mBegin; // of summer time, by standard time; nothing: there is none
        Rule mEnd;                  // by summer time

        [[nodiscard]] std::chrono::seconds OffsetAt(std::chrono::sys_seconds instant) const;
    };

    struct Change
    {
        std::chrono::sys_seconds mAt;
        std::chrono::seconds mOffset;
    };

    class FooterReader;
    class FileReader;

    std::chrono::seconds mFirst{0}; // before the first change
    std::vector<Change> mChanges;
    std::optional<Footer> mFooter;
};

} // namespace ParvaneHost
