#include "ControlClient.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <utility>

namespace ParvaneWatch {

namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

/** No message is longer (docs/control.md). */
constexpr std::size_t kLongestMessage = 65536;

std::string ErrnoText(int code)
{
    return std::generic_category().message(code);
}

} // namespace

std::size_t ControlClient::LongestPath()
{
    return sizeof(sockaddr_un{}.sun_path) - 1;
}

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
    if (WaitFor(POLLOUT, mAnswerTime, true) == Wait::TimedOut) {
        throw Unreachable(Timeout());
    }
    const ssize_t sent = ::send(mSocket.Get(), request.data(), request.size(), MSG_NOSIGNAL);
    // A service that takes no more clients says so and hangs up, perhaps before it is asked.
    if (sent < 0 && errno != EPIPE && errno != ECONNRESET) {
        throw Unreachable("the connection " + mPath + " failed: " + ErrnoText(errno));
    }
    if (WaitFor(POLLIN, mAnswerTime, true) == Wait::TimedOut) {
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
    WaitFor(POLLIN, std::nullopt, true);
    return Take();
}

std::optional<json> ControlClient::NextAtOnce()
{
    return WaitFor(POLLIN, milliseconds{0}, false) == Wait::Ready ? Take() : std::nullopt;
}

void ControlClient::Connect()
{
    constexpr milliseconds kRetryAfter{20};
    if (mPath.empty() || mPath.size() > LongestPath()) {
        throw Unreachable("cannot connect to " + mPath + ": " +
                          ErrnoText(mPath.empty() ? EINVAL : ENAMETOOLONG));
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(mPath.begin(), mPath.end(), std::begin(address.sun_path));
    UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket) {
        throw Unreachable("cannot make a socket: " + ErrnoText(errno));
    }
    // A full queue of the listener fails with EAGAIN, and nothing tells when there is room again.
    const Clock::time_point end = Clock::now() + mAnswerTime;
    while (::connect(socket.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) !=
           0) {
        const int code = errno;
        if (code != EAGAIN || Clock::now() >= end) {
            const bool isAway = code == ENOENT || code == ECONNREFUSED;
            throw Unreachable("cannot connect to " + mPath + ": " + ErrnoText(code) +
                              (isAway ? " (is the watch service running?)" : ""));
        }
        WaitFor(0, kRetryAfter, true);
    }
    mSocket = std::move(socket);
}

ControlClient::Wait ControlClient::WaitFor(short events, std::optional<milliseconds> limit,
                                           bool mayInterrupt)
{
    const Clock::time_point end = Clock::now() + limit.value_or(milliseconds{0});
    for (;;) {
        std::array<pollfd, 2> polled{
            {{mSocket.Get(), events, 0}, {mayInterrupt ? mInterruptFd : -1, POLLIN, 0}}};
        const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
        const int waitMs = limit ? static_cast<int>(std::max(left, milliseconds{0}).count()) : -1;
        const int ready = ::poll(polled.data(), polled.size(), waitMs);
        if (ready < 0 && errno != EINTR) {
            throw Unreachable("cannot wait for " + mPath + ": " + ErrnoText(errno));
        }
        if (polled[1].revents != 0) {
            throw Interrupted{};
        }
        if (polled[0].revents != 0) {
            return Wait::Ready;
        }
        if (limit && Clock::now() >= end) {
            return Wait::TimedOut;
        }
    }
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
    return "no answer on " + mPath + " within " + std::to_string(mAnswerTime.count()) + " ms";
}

} // namespace ParvaneWatch
