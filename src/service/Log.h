#pragma once

#include <array>
#include <cstddef>

#include <platform/dlog.h>

/**
 * @file
 * The one way to the platform log.
 *
 * A line reads "file: function(line) > message", the file without directory and extension, the
 * message between a colour and its reset. Log filters in the field match on these lines, so a
 * message that has always been printed with a certain line number keeps that number wherever the
 * call stands today: the _AT forms take it. All other messages print the line of their call.
 *
 * The text must be a string literal, and the call must not stand in a lambda, where __func__ is
 * "operator()".
 */

namespace Parvane {

/** Log priorities of the platform. */
enum LogPriority : int { LogInfo = 4, LogWarning = 5, LogError = 6 };

/** The base name of a source path, without directory and extension, as a C string. */
template <std::size_t N>
constexpr std::array<char, N> LogFileName(const char (&path)[N])
{
    std::size_t begin = 0;
    for (std::size_t i = 0; i + 1 < N; ++i) {
        if (path[i] == '/') {
            begin = i + 1;
        }
    }
    std::array<char, N> name{};
    for (std::size_t i = begin; i + 1 < N && path[i] != '.'; ++i) {
        name[i - begin] = path[i];
    }
    return name;
}

} // namespace Parvane

#define PARVANE_LOG_LINE(priority, colour, line, text, ...)                                        \
    do {                                                                                           \
        static constexpr auto parvaneLogFile = ::Parvane::LogFileName(__FILE__);                   \
        __dlog_print(0, (priority), "Parvane", "%s: %s(%d) > " colour text "\033[0;m",             \
                     parvaneLogFile.data(), __func__, (line)__VA_OPT__(, ) __VA_ARGS__);           \
    } while (false)

/** A lifecycle trace: a line that says only that the function was called. */
#define PARVANE_TRACE_AT(line) PARVANE_LOG_LINE(::Parvane::LogInfo, "\033[1;35m", line, " ###")

#define PARVANE_WARN_AT(line, ...) PARVANE_LOG_WARN_LINE(line, __VA_ARGS__)
#define PARVANE_WARN(...) PARVANE_LOG_WARN_LINE(__LINE__, __VA_ARGS__)
#define PARVANE_ERROR_AT(line, ...) PARVANE_LOG_ERROR_LINE(line, __VA_ARGS__)
#define PARVANE_ERROR(...) PARVANE_LOG_ERROR_LINE(__LINE__, __VA_ARGS__)

#define PARVANE_LOG_WARN_LINE(line, text, ...)                                                     \
    PARVANE_LOG_LINE(::Parvane::LogWarning, "\033[1;40;33m", line, text __VA_OPT__(, ) __VA_ARGS__)
#define PARVANE_LOG_ERROR_LINE(line, text, ...)                                                    \
    PARVANE_LOG_LINE(::Parvane::LogError, "\033[0;40;31m", line, text __VA_OPT__(, ) __VA_ARGS__)
