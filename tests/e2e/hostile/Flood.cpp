#include "Flood.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include "Process.h"

namespace {

constexpr std::size_t kBatch = 64;
constexpr std::size_t kLargestAnswer = 32;
constexpr int kQuietMs = 500;

} // namespace

Flood::Flood(const std::filesystem::path &socketPath)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    socketPath.string().copy(address.sun_path, sizeof address.sun_path - 1);
    const bool isConnected = Eventually([&] {
        mFd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        if (connect(mFd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
            return true;
        }
        close(mFd);
        return false;
    });
    if (!isConnected) {
        throw std::runtime_error("no link at " + socketPath.string());
    }
}

Flood::~Flood()
{
    close(mFd);
}

FloodResult Flood::Run(const Bytes &request, int perSecond, std::chrono::milliseconds time,
                       bool reads) const
{
    FloodResult result;
    const auto begin = std::chrono::steady_clock::now();
    while (!result.mWasClosed) {
        result.mTime = std::chrono::steady_clock::now() - begin;
        if (result.mTime >= time) {
            break;
        }
        const auto due = static_cast<std::int64_t>(result.mTime.count() * perSecond);
        const std::int64_t sent = SendSome(request, due - result.mSent);
        result.mWasClosed = sent < 0;
        result.mSent += std::max<std::int64_t>(sent, 0);
        const std::int64_t taken = reads ? TakeAll() : 0;
        result.mReceived += taken;
        if (sent == 0 && taken == 0) {
            Wait(static_cast<short>(due > result.mSent ? POLLIN | POLLOUT : POLLIN));
        }
    }
    if (reads) {
        TakeTheRest(result);
    }
    return result;
}

std::int64_t Flood::SendSome(const Bytes &request, std::int64_t most) const
{
    Bytes bytes = request;
    iovec part = {bytes.data(), bytes.size()};
    std::array<mmsghdr, kBatch> messages = {};
    for (mmsghdr &message : messages) {
        message.msg_hdr.msg_iov = &part;
        message.msg_hdr.msg_iovlen = 1;
    }
    const auto count = std::clamp<std::int64_t>(most, 0, kBatch);
    if (count == 0) {
        return 0;
    }
    const int sent =
        sendmmsg(mFd, messages.data(), static_cast<unsigned>(count), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent < 0) {
        return errno == EAGAIN ? 0 : -1;
    }
    return sent;
}

std::int64_t Flood::TakeAll() const
{
    std::array<std::array<char, kLargestAnswer>, kBatch> answers = {};
    std::array<iovec, kBatch> parts = {};
    std::array<mmsghdr, kBatch> messages = {};
    for (std::size_t i = 0; i < kBatch; ++i) {
        parts.at(i) = {answers.at(i).data(), kLargestAnswer};
        messages.at(i).msg_hdr.msg_iov = &parts.at(i);
        messages.at(i).msg_hdr.msg_iovlen = 1;
    }
    std::int64_t taken = 0;
    int count = 0;
    do {
        count = recvmmsg(mFd, messages.data(), kBatch, MSG_DONTWAIT, nullptr);
        taken += std::max(count, 0);
    } while (count == static_cast<int>(kBatch));
    return taken;
}

void Flood::TakeTheRest(FloodResult &result) const
{
    pollfd state = {mFd, POLLIN, 0};
    while (poll(&state, 1, kQuietMs) > 0) {
        const std::int64_t taken = TakeAll();
        if (taken == 0) {
            return;
        }
        result.mReceived += taken;
    }
}

void Flood::Wait(short events) const
{
    constexpr int kMost = 1;
    pollfd state = {mFd, events, 0};
    poll(&state, 1, kMost);
}
