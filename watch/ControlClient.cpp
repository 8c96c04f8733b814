#include "ControlClient.h"

#include <cerrno>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

#include "ErrnoText.h"
#include "UnixSocket.h"
#include "Wait.h"

namespace ParvaneWatch {

namespace {

using nlohmann::json;
using Parvane::Deadline;
using Parvane::ErrnoText;
using Parvane::WaitResult;
using std::chrono::milliseconds;

/** No message is longer (docs/control.md). */
constexpr std::size_t kLongestMessage = 65536;

} // namespace

ControlClient::ControlClient(std::string path, int interruptFd, milliseconds answerTime)
    : mPath(std::move(path)),
      mInterruptFd(interruptFd),
      mAnswerTime(answerTime),
      mBuffer(kLongestMessage)
{
    Connect();
}

json ControlClient::Ask(const std::string &request)
{
    if (!WaitUntil(Deadline::After(mAnswerTime), POLLOUT, mInterruptFd)) {
        throw Unreachable(Timeout());
    }
    const ssize_t sent = ::send(mSocket.Get(), request.data(), request.size(), MSG_NOSIGNAL);
    // A service that takes no more clients says so and hangs up, perhaps before it is asked.
    if (sent < 0 && errno != EPIPE && errno != ECONNRESET) {
        throw Unreachable("the connection " + mPath + " failed: " + ErrnoText(errno));
    }
    if (!WaitUntil(Deadline::After(mAnswerTime), POLLIN, mInterruptFd)) {
        throw Unreachable(Timeout());
    }
    const auto reply = Take();
    if (!reply) {
        throw Unreachable("the service closed the connection " + mPath +
                          ": it ends, or does not serve this user");
    }
    const auto ok = reply->find("ok");
    if (ok == reply->end() || !ok->is_boolean()) {
        throw ProtocolError("the service broke the protocol: a reply without \"ok\"");
    }
    if (reply->value("version", json()) != kVersion) {
        throw ProtocolError("the service speaks version " + reply->value("version", json()).dump() +
                            " of the protocol, this program version " + std::to_string(kVersion));
    }
    return *reply;
}

std::optional<json> ControlClient::Next()
{
    WaitUntil(Deadline::Never(), POLLIN, mInterruptFd);
    return Take();
}

std::optional<json> ControlClient::NextAtOnce()
{
    return WaitUntil(Deadline::After(milliseconds{0}), POLLIN, -1) ? Take() : std::nullopt;
}

void ControlClient::Connect()
{
    const int error = Parvane::ConnectToSocket(mPath, Deadline::After(mAnswerTime),
                                               {.mInterruptFd = mInterruptFd}, mSocket);
    if (error == EINTR) {
        throw Interrupted{};
    }
    if (error != 0) {
        throw Unreachable("cannot connect to " + mPath + ": " + ErrnoText(error) +
                          Parvane::ConnectHint(error, "watch service"));
    }
}

bool ControlClient::WaitUntil(const Deadline &deadline, short events, int interruptFd) const
{
    switch (Parvane::WaitFor(mSocket.Get(), events, deadline, {.mInterruptFd = interruptFd})) {
    case WaitResult::Ready:
        return true;
    case WaitResult::TimedOut:
        return false;
    case WaitResult::Interrupted:
        throw Interrupted{};
    case WaitResult::Failed:
        break;
    }
    throw Unreachable("cannot wait for " + mPath + ": " + ErrnoText(errno));
}

std::optional<json> ControlClient::Take()
{
    for (;;) {
        const ssize_t size =
            ::recv(mSocket.Get(), mBuffer.data(), mBuffer.size(), MSG_DONTWAIT | MSG_TRUNC);
        // A service that hung up without reading everything: what it has sent is still to come.
        if (size < 0 && (errno == EINTR || errno == ECONNRESET)) {
            continue;
        }
        if (size <= 0) {
            return std::nullopt;
        }
        if (static_cast<std::size_t>(size) > mBuffer.size()) {
            throw ProtocolError("the service broke the protocol: a message of " +
                                std::to_string(size) + " bytes");
        }
        return Parse({mBuffer.data(), static_cast<std::size_t>(size)});
    }
}

json ControlClient::Parse(const std::string &text) const
{
    json message = json::parse(text, nullptr, false);
    if (!message.is_object()) {
        throw ProtocolError("the service broke the protocol: a message that is no JSON object");
    }
    return message;
}

std::string ControlClient::Timeout() const
{
    const auto ms = mAnswerTime.count();
    return "no answer on " + mPath + " within " +
           (ms % 1000 == 0 ? std::to_string(ms / 1000) + " s" : std::to_string(ms) + " ms");
}

} // namespace ParvaneWatch
