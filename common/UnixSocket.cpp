#include "UnixSocket.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <iterator>
#include <sys/socket.h>
#include <sys/stat.h>
#include <utility>

namespace Parvane {

namespace {

bool IsSocket(const std::string &path)
{
    struct stat status
    {};
    return ::stat(path.c_str(), &status) != 0 || S_ISSOCK(status.st_mode);
}

} // namespace

std::size_t LongestSocketPath()
{
    return sizeof(sockaddr_un{}.sun_path) - 1;
}

int MakeSocketAddress(const std::string &path, sockaddr_un &address)
{
    if (path.empty() || path.size() > LongestSocketPath()) {
        return path.empty() ? EINVAL : ENAMETOOLONG;
    }
    address = {};
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), std::begin(address.sun_path));
    return 0;
}

int ConnectToSocket(const std::string &path, const Deadline &deadline, const WaitOptions &options,
                    UniqueFd &socket)
{
    constexpr std::chrono::milliseconds kRetryAfter{20};
    sockaddr_un address{};
    if (const int error = MakeSocketAddress(path, address); error != 0) {
        return error;
    }
    UniqueFd made(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!made) {
        return errno;
    }
    // A full queue of the listener fails with EAGAIN, and nothing tells when there is room again.
    while (::connect(made.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) !=
           0) {
        const int error = errno;
        if (error == ECONNREFUSED && !IsSocket(path)) {
            return ENOTSOCK; // the system says the same of a socket that nobody listens on
        }
        if ((error != EAGAIN && error != EINTR) || deadline.HasPassed()) {
            return error;
        }
        const Deadline retry = Deadline::After(kRetryAfter).Earlier(deadline);
        if (WaitFor(-1, 0, retry, options) == WaitResult::Interrupted) {
            return EINTR;
        }
    }
    socket = std::move(made);
    return 0;
}

std::string ConnectHint(int error, const std::string &service)
{
    if (error == EACCES || error == EPERM) {
        return " (the " + service + " serves its own user, and root)";
    }
    return error == ENOENT || error == ECONNREFUSED ? " (is the " + service + " running?)" : "";
}

} // namespace Parvane
