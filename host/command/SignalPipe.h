#pragma once

#include "UniqueFd.h"

namespace ParvaneHost {

/**
 * SIGINT and SIGTERM as a descriptor that becomes readable.
 *
 * While an object of this class lives, the two signals no longer end the process, also where it
 * inherited them as ignored, and SIGPIPE is ignored. The former dispositions come back at the end.
 * One object at a time in a process.
 */
class SignalPipe
{
public:
    /** Throws std::system_error when the system has no pipe or handler to give. */
    SignalPipe();
    ~SignalPipe();

    SignalPipe(const SignalPipe &) = delete;
    SignalPipe &operator=(const SignalPipe &) = delete;

    /** Readable once a signal has come; owned here. */
    [[nodiscard]] int Fd() const noexcept { return mReadEnd.Get(); }

    /** Takes the oldest signal that has come; 0 for none. */
    int Take() noexcept;

    /** Ends the process by `signal`, as if it had never been caught. */
    [[noreturn]] static void Die(int signal) noexcept;

private:
    UniqueFd mReadEnd;
    UniqueFd mWriteEnd;
};

} // namespace ParvaneHost
