#include "Error.h"

#include "ErrnoText.h"
#include "UnixSocket.h"

namespace ParvaneHost {

namespace {

using Parvane::ErrnoText;

std::string DescribeLink(const LinkError &error)
{
    if (!error.mText.empty()) {
        return error.mText;
    }
    switch (error.mReason) {
    case LinkError::Reason::CannotConnect:
        return "cannot connect to " + error.mPath + ": " + ErrnoText(error.mErrno) +
               Parvane::ConnectHint(error.mErrno, "watch service");
    case LinkError::Reason::AnotherHost:
        return "the watch closed the link " + error.mPath +
               " at once: another host is connected, or it does not serve this user";
    case LinkError::Reason::Closed:
        return "the watch closed the link " + error.mPath;
    case LinkError::Reason::Failed:
        break;
    }
    return "the link " + error.mPath + " failed: " + ErrnoText(error.mErrno);
}

} // namespace

bool IsTimeout(const Error &error)
{
    const auto *failure = std::get_if<Failure>(&error);
    return failure != nullptr && failure->mReason == Failure::Reason::NoAnswer;
}

std::string Describe(const Error &error)
{
    if (const auto *link = std::get_if<LinkError>(&error)) {
        return DescribeLink(*link);
    }
    if (const auto *failure = std::get_if<Failure>(&error)) {
        return failure->mReason == Failure::Reason::Malformed
                   ? "the watch broke the protocol: " + failure->mText
                   : failure->mText;
    }
    return "interrupted";
}

} // namespace ParvaneHost
