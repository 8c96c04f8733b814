#include "Error.h"

#include <cerrno>

#include "ErrnoText.h"
#include "Failure.h"

namespace ParvaneHost {

namespace {

using Parvane::ErrnoText;

std::string DescribeLink(const LinkError &error)
{
    switch (error.mReason) {
    case LinkError::Reason::CannotConnect: {
        std::string text = "cannot connect to " + error.mPath + ": " + ErrnoText(error.mErrno);
        if (error.mErrno == ENOENT || error.mErrno == ECONNREFUSED) {
            text += " (is the watch service running?)";
        }
        return text;
    }
    case LinkError::Reason::AnotherHost:
        return "the watch closed the link " + error.mPath +
               " at once: another host is connected, or it does not serve this user";
    case LinkError::Reason::Closed:
        return "the watch closed the link " + error.mPath;
    case LinkError::Reason::NotConnected:
        return "not connected to " + error.mPath;
    case LinkError::Reason::Failed:
        break;
    }
    return "the link " + error.mPath + " failed: " + ErrnoText(error.mErrno);
}

} // namespace

std::string Describe(const Error &error)
{
    if (const auto *link = std::get_if<LinkError>(&error)) {
        return DescribeLink(*link);
    }
    if (const auto *timeout = std::get_if<Timeout>(&error)) {
        return "no answer to " + timeout->mWhat + " within " + SecondsText(timeout->mAfter);
    }
    if (const auto *protocol = std::get_if<ProtocolError>(&error)) {
        return "the watch broke the protocol: " + protocol->mWhat;
    }
    if (const auto *unsupported = std::get_if<Unsupported>(&error)) {
        return unsupported->mWhat;
    }
    return "interrupted";
}

} // namespace ParvaneHost
