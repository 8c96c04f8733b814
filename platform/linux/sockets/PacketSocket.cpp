#include "PacketSocket.h"

#include <cerrno>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace ParvanePlatform {

int PacketSocket::Prepare() const
{
    const int bytes = kSendBufferBytes;
    return ::setsockopt(mFd.Get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes) == 0 ? 0 : errno;
}

bool PacketSocket::Peer::IsTrusted() const
{
    return mUid == 0 || mUid == ::geteuid();
}

PacketSocket::Peer PacketSocket::GetPeer() const
{
    ucred peer = {};
    socklen_t size = sizeof peer;
    if (::getsockopt(mFd.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return {};
    }
    return {peer.pid, peer.uid};
}

bool PacketSocket::HasHungUp() const
{
    pollfd state = {mFd.Get(), POLLRDHUP, 0};
    return ::poll(&state, 1, 0) > 0 && (state.revents & (POLLHUP | POLLRDHUP | POLLERR)) != 0;
}

bool PacketSocket::HasEnded() const
{
    int bytesLeft = 0;
    return HasHungUp() && (::ioctl(mFd.Get(), FIONREAD, &bytesLeft) != 0 || bytesLeft == 0);
}

PacketSocket::Received PacketSocket::Receive(std::span<unsigned char> buffer,
                                             std::size_t &size) const
{
    ssize_t count = 0;
    do {
        // Told the length of the whole message, which shows when it is longer than the buffer.
        count = ::recv(mFd.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        switch (errno) {
        case EAGAIN:
        case ENOMEM:
        case ENOBUFS:
            return Received::Nothing;
        case ECONNRESET:
            return Received::Error;
        default:
            return Received::End;
        }
    }
    if (count == 0) {
        return HasEnded() ? Received::End : Received::Empty;
    }
    if (static_cast<std::size_t>(count) > buffer.size()) {
        return Received::TooLong;
    }
    size = static_cast<std::size_t>(count);
    return Received::Message;
}

int PacketSocket::Send(const void *data, std::size_t size) const
{
    ssize_t count = 0;
    do {
        count = ::send(mFd.Get(), data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (count < 0 && errno == EINTR);
    return count < 0 ? errno : 0;
}

} // namespace ParvanePlatform
