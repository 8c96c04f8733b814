#pragma once

namespace ParvaneHost {

/** What the command ends with; `parvane-host --help` lists them. */
enum class ExitCode {
    Success = 0,
    LinkFailure = 1, // of the link, of the protocol, or of the output
    BadUsage = 2,
    NoAnswer = 3,
};

} // namespace ParvaneHost
