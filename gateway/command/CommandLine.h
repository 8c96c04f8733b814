#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "RuntimeDirectory.h"
#include "Token.h"
#include "Usage.h"

namespace ParvaneGateway {

/** What the command ends with: the same numbers for the same things as in parvane-host. */
enum class ExitCode {
    Success = 0,
    Failure = 1,
    BadUsage = 2,
    NoAnswer = 3 // no gateway that serves this user
};

/** One run of the command, as it was asked for. */
struct Invocation
{
    enum class Action { Serve, Status, TokenAdd, TokenList, TokenRemove, Pair, CheckConfig };

    Action mAction = Action::Serve;
    /** The configuration file, and whether it was named: then it must be there. */
    std::string mConfig;
    bool mIsConfigNamed = false;
    bool mJson = false;
    std::string mName;           // of a token
    Scope mScope = Scope::Phone; // TokenAdd
    std::int64_t mForS = 0;      // TokenAdd: its life, 0 for no end; Pair: how long
    bool mNoQr = false;          // TokenAdd
    bool mYes = false;           // Pair: without a question
};

/** @param arguments  without the program's name */
std::variant<Invocation, Parvane::EarlyEnd>
ParseCommandLine(const std::vector<std::string> &arguments,
                 const Parvane::Environment &environment);

} // namespace ParvaneGateway
