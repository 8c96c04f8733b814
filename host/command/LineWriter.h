#pragma once

#include <string_view>

namespace ParvaneHost {

/**
 * Writes whole lines to a descriptor at once, so that a reader at the other end of a pipe sees each.
 *
 * Borrows the descriptor. The process must ignore SIGPIPE. After a failure nothing more is written.
 */
class LineWriter
{
public:
    explicit LineWriter(int fd) noexcept : mFd(fd) {}

    /** Writes `line` and a line feed. False after a failure, also of an earlier call. */
    bool Write(std::string_view line);

    /** 0, or the errno of the failure; EPIPE when the reader has gone. */
    [[nodiscard]] int FailureCode() const noexcept { return mErrno; }

private:
    int mFd;
    int mErrno = 0;
};

} // namespace ParvaneHost
