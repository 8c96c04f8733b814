#include "Link.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

#include "UnixSocket.h"

namespace ParvaneHost {

namespace {

using Parvane::WaitFor;
using Parvane::WaitResult;

bool WouldBlock(int code)
{
    return code == EAGAIN || code == EINTR;
}

Error WaitError(WaitResult result, const std::string &path, const Deadline &deadline,
                const std::string &what)
{
    if (result == WaitResult::Interrupted) {
        return Interrupted{};
    }
    if (result == WaitResult::TimedOut) {
        return NoAnswer(what, deadline.Length());
    }
    return LinkError{LinkError::Reason::Failed, errno, path};
}

} // namespace

Link::Link(UniqueFd socket, std::string path, WhyLost whyLost)
    : mSocket(std::move(socket)),
      mPath(std::move(path)),
      mWhyLost(std::move(whyLost)),
      mConnectedAt(std::chrono::steady_clock::now())
{}

Result<Link, Error> Link::Connect(const std::string &path, const Deadline &deadline,
                                  const WaitOptions &options)
{
    UniqueFd socket;
    const int error = Parvane::ConnectToSocket(path, deadline, options, socket);
    if (error == EINTR) {
        return Error{Interrupted{}};
    }
    if (error != 0) {
        return Error{LinkError{LinkError::Reason::CannotConnect, error, path}};
    }
    return Link(std::move(socket), path);
}

std::optional<Error> Link::Send(std::span<const std::uint8_t> packet, const Deadline &deadline,
                                const WaitOptions &options)
{
    for (;;) {
        const WaitResult waited = WaitFor(mSocket.Get(), POLLOUT, deadline, options);
        if (waited != WaitResult::Ready) {
            return WaitError(waited, mPath, deadline, "an outgoing packet");
        }
        const auto sent = TrySend(packet);
        if (!sent) {
            return Error{sent.GetError()};
        }
        if (sent.Value()) {
            return std::nullopt;
        }
        if (deadline.HasPassed()) {
            return NoAnswer("an outgoing packet", deadline.Length());
        }
    }
}

Result<Bytes, Error> Link::Receive(const Deadline &deadline, const WaitOptions &options)
{
    for (;;) {
        const WaitResult waited = WaitFor(mSocket.Get(), POLLIN, deadline, options);
        if (waited != WaitResult::Ready) {
            return WaitError(waited, mPath, deadline, "an incoming packet");
        }
        if (auto packet = TryReceive()) {
            return *std::move(packet);
        }
    }
}

Result<bool, LinkError> Link::TrySend(std::span<const std::uint8_t> packet)
{
    const ssize_t sent =
        ::send(mSocket.Get(), packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
        return WouldBlock(errno) ? Result<bool, LinkError>(false) : Lost(errno);
    }
    if (mOnPacket) { // packets are sent whole or not at all
        mOnPacket(Parvane::Sender::Phone, packet);
    }
    return true;
}

std::optional<Result<Bytes, Error>> Link::TryReceive()
{
    // Neither cleared nor the link's own: a program with many links has it once.
    std::array<std::uint8_t, WireFormat::kMaxMessageBytes> buffer; // NOLINT(*-member-init)
    const ssize_t received =
        ::recv(mSocket.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (received < 0) {
        if (WouldBlock(errno)) {
            return std::nullopt;
        }
        return Result<Bytes, Error>(Lost(errno));
    }
    // The end of the link and an empty packet both read as 0 bytes.
    if (received == 0 && PeerHasClosed()) {
        return Result<Bytes, Error>(Lost(0));
    }
    mHasReceived = true;
    const auto size = static_cast<std::size_t>(received);
    if (size > buffer.size()) {
        return Error{Failure{Failure::Reason::Malformed,
                             "a packet of " + std::to_string(size) + " bytes, at most " +
                                 std::to_string(buffer.size()) + " are allowed"}};
    }
    Bytes packet(buffer.begin(), buffer.begin() + received);
    if (mOnPacket) {
        mOnPacket(Parvane::Sender::Watch, packet);
    }
    return packet;
}

std::string Link::PeerRun() const
{
    constexpr int kStartTime = 20; // the words of stat up to it, from the one behind the name on
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (::getsockopt(mSocket.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0 || peer.pid <= 1 ||
        peer.pid == ::getpid()) {
        return {}; // of another name space, or a socket that the service has not made itself
    }
    std::ifstream stat("/proc/" + std::to_string(peer.pid) + "/stat");
    std::ifstream boot("/proc/sys/kernel/random/boot_id");
    std::string words;
    std::string start;
    std::string bootId;
    std::getline(stat, words);
    std::istringstream rest(words.substr(std::min(words.rfind(')') + 1, words.size())));
    for (int word = 0; word < kStartTime && rest >> start; ++word) {
    }
    if (!rest || !(boot >> bootId)) {
        return {};
    }
    constexpr std::size_t kEnoughOfTheId = 32;
    return std::to_string(peer.pid) + ":" + start + ":" + bootId.substr(0, kEnoughOfTheId);
}

LinkError Link::Lost(int code) const
{
    constexpr std::chrono::seconds kAtOnce{2};
    if (auto error = mWhyLost ? mWhyLost() : std::nullopt) {
        return *std::move(error);
    }
    if (code != 0 && code != ECONNRESET && code != EPIPE) {
        return {LinkError::Reason::Failed, code, mPath};
    }
    const bool atOnce = std::chrono::steady_clock::now() - mConnectedAt < kAtOnce;
    return {!mHasReceived && atOnce ? LinkError::Reason::AnotherHost : LinkError::Reason::Closed,
            code, mPath};
}

bool Link::PeerHasClosed() const
{
    pollfd polled{mSocket.Get(), POLLRDHUP, 0};
    return poll(&polled, 1, 0) != 0;
}

} // namespace ParvaneHost
