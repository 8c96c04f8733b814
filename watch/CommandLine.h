#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "ExitCode.h"
#include "RuntimeDirectory.h"

namespace ParvaneWatch {

/** One run of the command, as it was asked for. */
struct Invocation
{
    enum class Action {
        Status,
        Config,
        Log,
        Replay,
        Request, // whose reply says just whether it was served
        Play,
        Record,
        Capture,
        Monitor,
        CheckConfig, // which needs no service
    };

    Action mAction = Action::Status;
    std::string mSocketPath;
    bool mJson = false;
    std::string mRequest;    // of every action that needs the service, but Play: its JSON
    std::string mFile;       // Record, Capture, Play, CheckConfig
    bool mForce = false;     // Record, Capture: an existing file may be overwritten
    std::uint64_t mSeed = 1; // Play
    double mSpeed = 1.0;     // Play: how many times faster
    bool mLists = false;     // Replay: which recordings there are
    bool mPlain = false;     // Monitor: lines on a terminal, too
    std::optional<std::chrono::milliseconds> mFor; // Monitor, Capture
    /** Capture: it ends when nothing has crossed the link for so long. */
    std::optional<std::chrono::milliseconds> mQuiet;
};

/** A run that is over before it begins: help, version, or wrong usage. */
struct Ending
{
    ExitCode mCode = ExitCode::Success;
    std::string mOutput; // for standard output
    std::string mError;  // for standard error
};

/**
 * Reads the command line.
 *
 * Values are looked at for form and range; what else is wrong with them is the service's to say.
 *
 * @param arguments    without the program's name
 * @param environment  for the default of the socket's path
 */
std::variant<Invocation, Ending> ParseCommandLine(const std::vector<std::string> &arguments,
                                                  const Parvane::Environment &environment);

} // namespace ParvaneWatch
