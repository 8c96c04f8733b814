#include "Output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <poll.h>
#include <stdexcept>
#include <unistd.h>

#include "ErrnoText.h"

namespace Parvane {

namespace {

int Poll(std::array<pollfd, 2> &polled, int limitMs)
{
    int ready = 0;
    do {
        ready = ::poll(polled.data(), polled.size(), limitMs);
    } while (ready < 0 && errno == EINTR);
    return ready;
}

/** Waits for room. @return 0 or an errno value */
int WaitForRoom(int fd, const Patience &patience)
{
    std::array<pollfd, 2> polled{{{fd, POLLOUT, 0}, {patience.mInterruptFd, POLLIN, 0}}};
    int ready = Poll(polled, patience.mLimitMs);
    const bool isInterrupted = ready > 0 && polled[0].revents == 0;
    if (isInterrupted) {
        polled[1].fd = -1;
        ready = Poll(polled, patience.mGraceMs);
    }
    if (ready < 0) {
        return errno;
    }
    if (polled[0].revents != 0) {
        return 0;
    }
    return isInterrupted ? EINTR : ETIMEDOUT;
}

} // namespace

int WriteAll(int fd, std::string_view text, const Patience &patience)
{
    std::string_view rest = text;
    while (!rest.empty()) {
        if (const int error = WaitForRoom(fd, patience); error != 0) {
            return error;
        }
        // A pipe that has room takes that much without blocking.
        const ssize_t written =
            ::write(fd, rest.data(), std::min<std::size_t>(rest.size(), PIPE_BUF));
        if (written >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno != EINTR && errno != EAGAIN) {
            return errno;
        }
    }
    return 0;
}

void Print(std::string_view text)
{
    if (const int error = WriteAll(STDOUT_FILENO, text); error != 0 && error != EPIPE) {
        throw std::runtime_error("cannot write to standard output: " + ErrnoText(error));
    }
}

} // namespace Parvane
