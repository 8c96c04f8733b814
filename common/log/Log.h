#pragma once

#include <string_view>

namespace Parvane {

/** Where in the sources a line is logged: as a default argument, the place of the call. */
struct LogPlace
{
    static constexpr LogPlace Here(const char *file = __builtin_FILE(),
                                   const char *function = __builtin_FUNCTION(),
                                   int line = __builtin_LINE())
    {
        return {file, function, line};
    }

    const char *mFile;
    const char *mFunction;
    int mLine;
};

/** Whose log it is; to be called once, before the first line. @param name  borrowed, "parvane-gateway" */
void SetLogName(const char *name);

/**
 * One line of a daemon's log: an entry of the journal where standard error is connected to it, with
 * the place in the sources, else a line there. What comes from outside goes through Parvane::Printable()
 * first; a token is never part of it. Main-loop thread only.
 */
void LogInfo(std::string_view text, LogPlace place = LogPlace::Here()) noexcept;
void LogWarning(std::string_view text, LogPlace place = LogPlace::Here()) noexcept;
void LogError(std::string_view text, LogPlace place = LogPlace::Here()) noexcept;

} // namespace Parvane
