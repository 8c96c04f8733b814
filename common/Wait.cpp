#include "Wait.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>

namespace Parvane {

WaitResult WaitFor(int fd, short events, const Deadline &deadline, const WaitOptions &options)
{
    using std::chrono::milliseconds;
    constexpr milliseconds kLongestPoll = std::chrono::hours{1};
    const milliseconds slice = options.mOnTick
                                   ? std::clamp(options.mTickPeriod, milliseconds{1}, kLongestPoll)
                                   : kLongestPoll;

    for (;;) {
        // An output whose reader has gone shows that without being asked for.
        std::array<pollfd, 3> polled{
            {{fd, events, 0}, {options.mInterruptFd, POLLIN, 0}, {options.mOutputFd, 0, 0}}};
        const milliseconds remaining = deadline.Remaining();
        const auto timeout = static_cast<int>(std::min(remaining, slice).count());
        const int ready = poll(polled.data(), polled.size(), timeout);
        if (ready < 0 && errno != EINTR) {
            return WaitResult::Failed;
        }
        if (ready > 0) {
            const bool isInterrupted = polled[1].revents != 0 || polled[2].revents != 0;
            return isInterrupted ? WaitResult::Interrupted : WaitResult::Ready;
        }
        if (remaining == milliseconds{0}) {
            return WaitResult::TimedOut;
        }
        if (ready == 0 && options.mOnTick) {
            options.mOnTick();
        }
    }
}

} // namespace Parvane
