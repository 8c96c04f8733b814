#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ParvanePlatform {

/** Priorities of the log, by the numbers of the platform. */
enum class LogPriority { Verbose = 2, Debug = 3, Info = 4, Warning = 5, Error = 6, Fatal = 7 };

/** Whether colour sequences are kept. */
enum class LogColours { Keep, Strip };

/**
 * Formats log lines and writes them to a file descriptor, each with a single write():
 *
 *     2026-01-31T12:34:56.789Z W Parvane: message
 *
 * The time is UTC. The letter is V, D, I, W, E or F, and '?' for a priority that has none. Colour
 * sequences ("\033[", digits and semicolons, "m") are kept when the descriptor is a terminal and
 * left out otherwise. Line ends at the end of the message are dropped; every other control
 * character is written as \n, \r, \t or \xHH, so that one message is always one line.
 *
 * Lines up to about 2000 bytes need no memory from the heap. Borrows the descriptor.
 */
class LogWriter
{
public:
    explicit LogWriter(int fd) : mFd(fd) {}

    /**
     * Writes one line; keeps errno.
     *
     * @return the number of bytes written, or a negated errno value
     */
    int Write(LogPriority priority, const char *tag, const char *format, va_list arguments) const
        __attribute__((format(printf, 4, 0)));

private:
    int mFd;
};

/**
 * Builds one line with its end into `line`, which has room for `size` bytes; what does not fit is
 * cut off.
 *
 * @return the bytes that the whole line needs; when that is not above `size`, nothing was cut off
 */
std::size_t FormatLogLine(char *line, std::size_t size, std::int64_t wallMs, LogPriority priority,
                          std::string_view tag, std::string_view message, LogColours colours);

} // namespace ParvanePlatform
