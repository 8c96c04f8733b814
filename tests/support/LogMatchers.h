#pragma once

#include <string>

#include <gmock/gmock.h>

#include "ScriptedPlatform.h"

namespace Parvane {

/**
 * Whether `text` is the whole line `expected`, whose "(*)" stands for any line number.
 *
 * Messages with a line number of their own are compared with that number; the others print the line
 * of the call, which no test depends on.
 */
bool IsLineOf(const std::string &text, const std::string &expected);

MATCHER_P2(IsLogLine, priority, expected,
           "is the line of priority " + std::to_string(priority) + ": " +
               testing::PrintToString(std::string(expected)))
{
    return arg.mPriority == priority && arg.mTag == "Parvane" && IsLineOf(arg.mText, expected);
}

/** A lifecycle trace; `place` is "File: Function(12)" or "File: Function(*)". */
inline auto TraceLine(const std::string &place)
{
    return IsLogLine(4, place + " > \033[1;35m ###\033[0;m");
}

/** A warning, whole; `place` is "File: Function(12)" or "File: Function(*)". */
inline auto WarningLine(const std::string &place, const std::string &message)
{
    return IsLogLine(5, place + " > \033[1;40;33m" + message + "\033[0;m");
}

/** An error, whole; `place` is "File: Function(12)" or "File: Function(*)". */
inline auto ErrorLine(const std::string &place, const std::string &message)
{
    return IsLogLine(6, place + " > \033[0;40;31m" + message + "\033[0;m");
}

} // namespace Parvane
