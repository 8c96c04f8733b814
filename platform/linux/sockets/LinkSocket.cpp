#include "LinkSocket.h"

#include <cerrno>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "Files.h"
#include "StartupError.h"
#include "UnixSocket.h"

namespace ParvanePlatform {

namespace {

constexpr int kBacklog = 8;

/** Sets the umask for the length of its life. */
class UmaskGuard
{
public:
    explicit UmaskGuard(mode_t mask) : mOld(::umask(mask)) {}
    ~UmaskGuard() { ::umask(mOld); }

    UmaskGuard(const UmaskGuard &) = delete;
    UmaskGuard &operator=(const UmaskGuard &) = delete;

private:
    mode_t mOld;
};

[[noreturn]] void Refuse(const std::string &path, int error)
{
    throw StartupError("cannot make the socket " + path + ": " + ErrorText(error));
}

void Bind(int fd, const sockaddr_un &address)
{
    const UmaskGuard onlyOwner(0177);
    if (::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        Refuse(address.sun_path, errno);
    }
}

} // namespace

ListeningSocket::ListeningSocket(std::string path)
{
    sockaddr_un address = {};
    if (Parvane::MakeSocketAddress(path, address) != 0) {
        throw StartupError("cannot make the socket " + path + ": its path has " +
                           std::to_string(path.size()) + " bytes, the system allows " +
                           std::to_string(Parvane::LongestSocketPath()));
    }

    mFd.Reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!mFd) {
        Refuse(path, errno);
    }
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        Refuse(path, errno);
    }
    Bind(mFd.Get(), address);
    mPath = std::move(path);
    if (::listen(mFd.Get(), kBacklog) != 0) {
        const int error = errno;
        ::unlink(mPath.c_str());
        Refuse(mPath, error);
    }
}

ListeningSocket::~ListeningSocket()
{
    ::unlink(mPath.c_str());
}

int ListeningSocket::Accept(Parvane::UniqueFd &connection) const
{
    connection.Reset(::accept4(mFd.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    return connection ? 0 : errno;
}

int HostSocket::Prepare() const
{
    const int bytes = kSendBufferBytes;
    return ::setsockopt(mFd.Get(), SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes) == 0 ? 0 : errno;
}

bool HostSocket::Peer::IsTrusted() const
{
    return mUid == 0 || mUid == ::geteuid();
}

HostSocket::Peer HostSocket::GetPeer() const
{
    ucred peer = {};
    socklen_t size = sizeof peer;
    if (::getsockopt(mFd.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return {};
    }
    return {peer.pid, peer.uid};
}

bool HostSocket::HasHungUp() const
{
    pollfd state = {mFd.Get(), POLLRDHUP, 0};
    return ::poll(&state, 1, 0) > 0 && (state.revents & (POLLHUP | POLLRDHUP | POLLERR)) != 0;
}

bool HostSocket::HasEnded() const
{
    int bytesLeft = 0;
    return HasHungUp() && (::ioctl(mFd.Get(), FIONREAD, &bytesLeft) != 0 || bytesLeft == 0);
}

HostSocket::Received HostSocket::Receive(std::span<unsigned char> buffer, std::size_t &size) const
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

int HostSocket::Send(const void *data, std::size_t size) const
{
    ssize_t count = 0;
    do {
        count = ::send(mFd.Get(), data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (count < 0 && errno == EINTR);
    return count < 0 ? errno : 0;
}

} // namespace ParvanePlatform
