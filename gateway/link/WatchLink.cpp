#include "WatchLink.h"

#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <utility>

#include "Log.h"
#include "UnixSocket.h"

namespace ParvaneGateway {

WatchLink::WatchLink(std::string path, WatchLinkEvents &events)
    : mPath(std::move(path)), mEvents(events), mBuffer(kMaxPacketBytes + 1)
{}

int WatchLink::Connect()
{
    Close();
    sockaddr_un address{};
    if (const int error = Parvane::MakeSocketAddress(mPath, address); error != 0) {
        return error;
    }
    mSocket.Reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!mSocket || ::connect(mSocket.Get(), reinterpret_cast<const sockaddr *>(&address),
                              sizeof address) != 0) {
        const int error = errno;
        mSocket.Reset();
        return error;
    }
    ++mConnection;
    WatchInput();
    return 0;
}

void WatchLink::Close()
{
    mInput.Remove();
    mOutput.Remove();
    mHolds = false;
    mSocket.Reset();
}

WatchLink::Sent WatchLink::Send(PacketBytes packet)
{
    ssize_t count = 0;
    do {
        count = ::send(mSocket.Get(), packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (count < 0 && errno == EINTR);
    if (count >= 0) {
        return Sent::Yes;
    }
    if (errno != EAGAIN && errno != ENOBUFS && errno != ENOMEM) {
        return Sent::Gone;
    }
    mOutput = Parvane::LoopSource::WatchFd(mSocket.Get(), G_IO_OUT, [this] {
        mOutput.Remove();
        mEvents.OnWatchRoom();
    });
    return Sent::NoRoom;
}

void WatchLink::Resume()
{
    if (!IsOpen() || mInput.IsActive()) {
        return;
    }
    if (mHolds) {
        const std::uint64_t connection = mConnection;
        const bool isTaken = mEvents.OnWatchPacket({mBuffer.data(), mHeldBytes});
        if (connection != mConnection || !IsOpen()) {
            return;
        }
        mHolds = !isTaken;
    }
    if (!mHolds) {
        WatchInput();
    }
}

void WatchLink::StopReading()
{
    mInput.Remove();
    mHolds = false;
}

void WatchLink::WatchInput()
{
    mInput = Parvane::LoopSource::WatchFd(
        mSocket.Get(), static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), [this] { OnReadable(); });
}

void WatchLink::OnReadable()
{
    for (int i = 0; i < kPacketsPerTurn && ReadPacket(); ++i) {
    }
}

bool WatchLink::ReadPacket()
{
    ssize_t count = 0;
    do {
        count = ::recv(mSocket.Get(), mBuffer.data(), mBuffer.size(), MSG_DONTWAIT | MSG_TRUNC);
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        if (errno == EAGAIN || errno == ENOMEM || errno == ENOBUFS) {
            return false;
        }
        if (errno == ECONNRESET) {
            return true; // the watch has left packets unread; its own may follow
        }
    }
    // The end of the link and an empty packet both read as 0 bytes.
    if (count < 0 || (count == 0 && HasHungUp())) {
        End();
        return false;
    }
    const auto size = static_cast<std::size_t>(count);
    if (size > kMaxPacketBytes) {
        Parvane::LogWarning("the watch has sent a packet of " + std::to_string(size) +
                            " bytes: dropped");
        return true;
    }
    const std::uint64_t connection = mConnection;
    const bool isTaken = mEvents.OnWatchPacket({mBuffer.data(), size});
    if (connection != mConnection || !IsOpen()) {
        return false;
    }
    if (!isTaken) {
        mHolds = true;
        mHeldBytes = size;
        mInput.Remove();
    }
    return isTaken && mInput.IsActive();
}

bool WatchLink::HasHungUp() const
{
    pollfd state{mSocket.Get(), POLLRDHUP, 0};
    return ::poll(&state, 1, 0) > 0;
}

void WatchLink::End()
{
    Close();
    mEvents.OnWatchEnd();
}

} // namespace ParvaneGateway
