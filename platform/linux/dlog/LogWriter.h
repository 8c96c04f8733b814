#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "LogPriority.h"
#include "LogText.h"

namespace ParvanePlatform {

struct LogPlace;

/**
 * Takes log lines to where a file descriptor leads.
 *
 * To the journal, when the service manager connected the descriptor to it: natively, as an entry
 * with fields (JournalEntry.h). Otherwise, and when the journal cannot be had or is behind, each with a
 * single write:
 *
 *     2026-01-31T12:34:56.789Z W Parvane: message
 *
 * The time is UTC. The letter is V, D, I, W, E or F, and '?' for a priority that has none. Colour
 * sequences ("\033[", digits and semicolons, "m") are kept when the descriptor is a terminal and
 * left out otherwise. Line ends at the end of the message are dropped; every other control
 * character is written as \n, \r, \t or \xHH, so that one message is always one line.
 *
 * What the journal takes in neither way is lost: it never holds the service up. Lines up to about
 * 2000 bytes need no memory from the heap. What the descriptor leads to is found out with the first
 * line. Borrows the descriptor.
 */
class LogWriter
{
public:
    constexpr explicit LogWriter(int fd) : mFd(fd) {}

    /** Says which lines are written from now on. */
    void SetFilter(const LogFilter &filter);
    LogFilter Filter() const { return mFilter != nullptr ? *mFilter : LogFilter(); }

    /**
     * Writes one line if it is one that is written; keeps errno.
     *
     * @param place  where it was logged; null when the message itself may begin with that
     * @return the number of bytes written, 0 for a line that is left out, or a negated errno value
     */
    int Write(LogPriority priority, const char *tag, const LogPlace *place, const char *format,
              va_list arguments) __attribute__((format(printf, 5, 0)));

private:
    enum class Target { Unknown, Journal, Terminal, Other };

    Target FindTarget() const;
    bool IsWritten(LogPriority priority, std::string_view tag) const;
    int WriteLine(LogPriority priority, std::string_view tag, std::string_view message,
                  bool isStream) const;

    int mFd;
    Target mTarget = Target::Unknown;
    std::unique_ptr<const LogFilter> mFilter; // null: the default
};

/** The writer of standard error; works at any time of the process. */
LogWriter &StandardErrorLog();

/**
 * Builds one line with its end into `line`, which has room for `size` bytes; what does not fit is
 * cut off.
 *
 * @return the bytes that the whole line needs; when that is not above `size`, nothing was cut off
 */
std::size_t FormatLogLine(char *line, std::size_t size, std::int64_t wallMs, LogPriority priority,
                          std::string_view tag, std::string_view message, LogColours colours);

} // namespace ParvanePlatform
