#pragma once

namespace ParvaneHost {

/** What the command ends with: the same numbers for the same things as in parvane-watch. */
enum class ExitCode {
    Success = 0,
    Failure = 1, // of the link, of the protocol, or of the output
    BadUsage = 2,
    NoAnswer = 3,  // in time, or nobody there who serves this user
    NoReading = 4, // the watch has answered, and has no usable reading
};

} // namespace ParvaneHost
