#pragma once

#include <chrono>
#include <functional>

#include "Deadline.h"

namespace Parvane {

/** What may happen while an operation waits, besides what it waits for. */
struct WaitOptions
{
    /** Borrowed; -1 for none. While it is readable, every wait ends as interrupted. Nobody reads it here. */
    int mInterruptFd = -1;
    /**
     * Borrowed; -1 for none. When nobody reads any more what is written there, every wait ends as
     * interrupted.
     */
    int mOutputFd = -1;
    /** Called about every mTickPeriod while waiting, and never elsewhere; must not use the client. */
    std::function<void()> mOnTick = nullptr;
    std::chrono::milliseconds mTickPeriod{100};
};

enum class WaitResult {
    Ready,
    TimedOut,
    Interrupted,
    Failed, // errno tells why
};

/**
 * Waits until `fd` shows one of the poll(2) `events` or an error, or `deadline` passes.
 *
 * @param fd  -1 waits for the time alone
 *
 * The interruption is looked at first, then the descriptor, then the time: with a deadline that has
 * passed already, a ready descriptor is still ready.
 */
WaitResult WaitFor(int fd, short events, const Deadline &deadline, const WaitOptions &options);

} // namespace Parvane
