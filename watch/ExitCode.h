#pragma once

namespace ParvaneWatch {

/** What the command ends with; `parvane-watch --help` lists them. */
enum class ExitCode {
    Success = 0,
    Failure = 1,  // the service refused, the protocol was broken, or something could not be written
    BadUsage = 2, // or a configuration file that cannot be read
    Unreachable = 3, // no service, none that serves this user, or no answer
};

} // namespace ParvaneWatch
