#pragma once

#include <string>
#include <variant>

#include "Failure.h"

namespace ParvaneHost {

/** The link to the watch could not be made or is gone. */
struct LinkError
{
    enum class Reason {
        CannotConnect,
        AnotherHost, // the watch closed a fresh link at once: it serves one host at a time, and one user
        Closed,      // the watch closed the link
        Failed,      // a system call on the link failed
    };

    Reason mReason = Reason::Failed;
    int mErrno = 0; // 0 where the system gave none
    std::string mPath;
    std::string mText = {}; // all there is to say, by a road that has more to say than these
    bool mIsFinal = false;  // until somebody has done something, another attempt comes to the same
};

/** WaitOptions::mInterruptFd or mOutputFd ended a wait. The link is still there. */
struct Interrupted
{};

/** With a Failure the link is still there, unless it says so. */
using Error = std::variant<LinkError, Interrupted, Failure>;

/** Whether something did not come in time. */
bool IsTimeout(const Error &error);

/** One line for people, without a full stop. */
std::string Describe(const Error &error);

} // namespace ParvaneHost
