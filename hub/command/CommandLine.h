#pragma once

#include <string>
#include <variant>
#include <vector>

#include "RuntimeDirectory.h"
#include "Usage.h"

namespace ParvaneHub {

/** What the command ends with: the same numbers for the same things as in parvane-host. */
enum class ExitCode {
    Success = 0,
    Failure = 1,
    BadUsage = 2,
    NoAnswer = 3 // no hub that serves this user
};

/** One run of the command, as it was asked for. */
struct Invocation
{
    enum class Action { Serve, Status, CheckConfig };

    Action mAction = Action::Serve;
    /** The configuration file, and whether it was named: then it must be there. */
    std::string mConfig;
    bool mIsConfigNamed = false;
    bool mJson = false;
};

/** @param arguments  without the program's name */
std::variant<Invocation, Parvane::EarlyEnd>
ParseCommandLine(const std::vector<std::string> &arguments,
                 const Parvane::Environment &environment);

} // namespace ParvaneHub
