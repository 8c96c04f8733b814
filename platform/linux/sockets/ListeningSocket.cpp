#include "ListeningSocket.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "Files.h"
#include "RuntimeLog.h"
#include "StartupError.h"
#include "UnixSocket.h"

namespace ParvanePlatform {

namespace {

constexpr int kBacklog = 8;

[[noreturn]] void Refuse(const std::string &path, int error)
{
    throw StartupError("cannot make the socket " + path + ": " + ErrorText(error));
}

void Bind(int fd, const sockaddr_un &address, mode_t mask)
{
    const mode_t old = ::umask(mask);
    const int result = ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    const int error = errno;
    ::umask(old);
    if (result != 0) {
        Refuse(address.sun_path, error);
    }
}

} // namespace

ListeningSocket::ListeningSocket(std::string path, const char *owner, const Clock &clock,
                                 std::function<void()> onReady, std::optional<uid_t> allowed)
    : mOwner(owner), mClock(clock), mOnReady(std::move(onReady)), mAllowed(allowed)
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
    struct stat status = {};
    if (::lstat(path.c_str(), &status) == 0 && !S_ISSOCK(status.st_mode)) {
        throw StartupError("cannot make the socket " + path +
                           ": something else has its place; move it away");
    }
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        Refuse(path, errno);
    }
    Bind(mFd.Get(), address, mAllowed ? 0111 : 0177);
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

void ListeningSocket::Watch()
{
    if (!mSource.IsActive()) {
        mSource = Parvane::LoopSource::WatchSeldom(mFd.Get(), G_IO_IN, mOnReady);
    }
}

void ListeningSocket::Unwatch()
{
    mSource.Remove();
    mPause.Disarm();
}

PacketSocket ListeningSocket::Accept()
{
    PacketSocket connection(
        Parvane::UniqueFd(::accept4(mFd.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)));
    if (!connection) {
        OnAcceptFailed(errno);
    } else if (const int error = connection.Prepare(); error != 0) {
        LogError("%s: cannot prepare a connection: %s", mOwner, ErrorText(error).c_str());
        connection.Close();
    }
    return connection;
}

void ListeningSocket::LogRefusal(const std::string &what)
{
    if (mClock.MonotonicUs() >= mQuietUntilUs) {
        LogWarning("%s: %s", mOwner, what.c_str());
        mQuietUntilUs = mClock.MonotonicUs() + kQuietMs * 1000;
    } else if (++mRefused == 1) {
        mRefusedTimer.Arm(mQuietUntilUs, [this] { LogRefusalCount(); });
    }
}

void ListeningSocket::LogRefusalCount()
{
    LogWarning("%s: %llu more connections were refused in the last minute", mOwner,
               static_cast<unsigned long long>(std::exchange(mRefused, 0)));
    mQuietUntilUs = mClock.MonotonicUs() + kQuietMs * 1000;
}

void ListeningSocket::OnAcceptFailed(int error)
{
    if (error == EAGAIN || error == EINTR || error == ECONNABORTED) {
        return;
    }
    // The connection stays in the queue and the socket readable: without a pause the loop would spin.
    LogError("%s: cannot take a connection: %s", mOwner, ErrorText(error).c_str());
    mSource.Remove();
    mPause.Arm(mClock.MonotonicUs() + kAcceptPauseMs * 1000, [this] { Watch(); });
}

} // namespace ParvanePlatform
