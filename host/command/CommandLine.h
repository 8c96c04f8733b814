#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "ExitCode.h"
#include "Messages.h"
#include "RuntimeDirectory.h"
#include "TextPrinter.h"
#include "WebTarget.h"

namespace ParvaneHost {

/** The forms of an export. */
enum class ExportFormat { Csv, JsonLines, Tcx, Recording };

/** One run of the command, as it was asked for. */
struct Invocation
{
    enum class Action {
        List,
        Measure,
        Watch,
        Today,
        Stop,
        Raw,
        Export, // which needs no watch
    };

    Action mAction = Action::List;
    std::string mSocketPath;                 // empty with mWeb
    std::optional<WebTarget> mWeb;           // a gateway on the network in its place
    std::optional<std::string> mCapturePath; // nothing: no capture
    bool mForce = false;                     // a file that exists may be overwritten
    bool mJson = false;
    TimeStyle mTimeStyle = TimeStyle::Short;
    std::optional<std::chrono::milliseconds> mTimeout; // nothing: the default of the action
    std::chrono::milliseconds mWait{0};                // for a service that is just starting
    std::vector<Sensor> mSensors;                      // Measure and Stop: one; Watch: some
    std::optional<std::chrono::milliseconds> mEvery;   // Measure; nothing: once
    std::optional<unsigned> mCount;                    // Measure; nothing: until a signal
    std::optional<std::chrono::milliseconds> mFor;     // Watch; nothing: until a signal
    bool mRaw = false;                                 // Measure and Watch: steps as on the wire
    /** The file of the true steps of this watch; empty: they are not kept from run to run. */
    std::string mStepsPath;
    std::vector<Bytes> mPackets;                        // Raw; at least one
    std::optional<std::chrono::milliseconds> mQuietFor; // Raw; nothing: the default
    std::vector<std::string> mCaptures;                 // Export; at least one
    ExportFormat mFormat = ExportFormat::Csv;           // Export
    std::optional<std::string> mOutputPath;             // Export; nothing: standard output
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
 * @param arguments    without the program's name
 * @param environment  for the default of the socket's path, and of what opens a gateway
 */
std::variant<Invocation, Ending> ParseCommandLine(const std::vector<std::string> &arguments,
                                                  const Parvane::Environment &environment);

} // namespace ParvaneHost
