#pragma once

#include <chrono>
#include <string>
#include <variant>

namespace ParvaneHost {

/** The link to the watch could not be made or is gone. */
struct LinkError
{
    enum class Reason {
        CannotConnect,
        AnotherHost, // the watch closed a fresh link at once: it serves one host at a time, and one user
        Closed,      // the watch closed the link
        NotConnected,
        Failed, // a system call on the link failed
    };

    Reason mReason = Reason::Failed;
    int mErrno = 0; // 0 where the system gave none
    std::string mPath;
};

/** The watch did not answer in time. The link is still there. */
struct Timeout
{
    std::string mWhat; // what was asked for, as in "no answer to <mWhat>"
    std::chrono::milliseconds mAfter{0};
};

/** The watch sent what docs/wire-format.md does not allow. The link is still there. */
struct ProtocolError
{
    std::string mWhat;
};

/** WaitOptions::mInterruptFd or mOutputFd ended a wait. The link is still there. */
struct Interrupted
{};

/** The watch is known to refuse this without an answer, so it was not sent. */
struct Unsupported
{
    std::string mWhat;
};

using Error = std::variant<LinkError, Timeout, ProtocolError, Interrupted, Unsupported>;

/** One line for people, without a full stop. */
std::string Describe(const Error &error);

} // namespace ParvaneHost
