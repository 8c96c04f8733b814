#pragma once

#include <string_view>

namespace Parvane {

/** When waiting for a reader that takes nothing is given up. */
struct Patience
{
    int mInterruptFd = -1; // borrowed: readable once it is to end; -1 for never
    int mLimitMs = -1;     // for each wait; -1 for none
    int mGraceMs = 0;      // for each wait after the interruption
};

/**
 * Writes `text` to a descriptor, all of it. Nothing but `patience` ends waiting for the other end of a
 * pipe or a terminal.
 *
 * @return 0 or an errno value; EINTR when a wait was interrupted, ETIMEDOUT when it took too long.
 *         Part of the text may have been written then
 */
int WriteAll(int fd, std::string_view text, const Patience &patience = {});

/**
 * Writes to standard output. A reader that has gone wants no more.
 *
 * @throws std::runtime_error that says why it cannot be written
 */
void Print(std::string_view text);

} // namespace Parvane
