#pragma once

#include <csignal>

#include "UniqueFd.h"

namespace Parvane {

/**
 * SIGINT and SIGTERM as a descriptor that becomes readable, also where the process inherited them as
 * ignored; SIGPIPE and SIGXFSZ are ignored, so that the write itself fails. What was before comes back at
 * the end, and a signal that nobody has taken by then is dropped. One object at a time in a process.
 */
class Signals
{
public:
    /**
     * @param alsoHangup  takes SIGHUP as well
     * @throws std::system_error when the system has no descriptor left
     */
    explicit Signals(bool alsoHangup = false);
    ~Signals();

    Signals(const Signals &) = delete;
    Signals &operator=(const Signals &) = delete;

    /** Readable once a signal has come; owned here. */
    [[nodiscard]] int Fd() const noexcept { return mFd.Get(); }

    /** Takes the next signal that has come; 0 for none. */
    [[nodiscard]] int Take() const noexcept;

    /** Ends the process by `signal`, as if it had never been held back. */
    [[noreturn]] static void Die(int signal) noexcept;

private:
    sigset_t mOldMask = {};
    struct sigaction mOldPipeAction = {};
    struct sigaction mOldFileSizeAction = {};
    UniqueFd mFd;
};

} // namespace Parvane
