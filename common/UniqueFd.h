#pragma once

#include <unistd.h>
#include <utility>

namespace Parvane {

/** The one owner of a file descriptor; closes it at the end. */
class UniqueFd
{
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) noexcept : mFd(fd) {}
    ~UniqueFd() { Reset(); }

    UniqueFd(UniqueFd &&other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        if (this != &other) {
            Reset(std::exchange(other.mFd, -1));
        }
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;

    /** The descriptor, still owned here; -1 for none. */
    [[nodiscard]] int Get() const noexcept { return mFd; }
    explicit operator bool() const noexcept { return mFd >= 0; }

    /** The descriptor, which the caller owns from now on. */
    [[nodiscard]] int Release() noexcept { return std::exchange(mFd, -1); }

    /** Closes the descriptor that is held and takes over `fd`; -1 for none. */
    void Reset(int fd = -1) noexcept
    {
        if (mFd >= 0) {
            ::close(mFd); // a failing close leaves nothing to do: the descriptor is gone either way
        }
        mFd = fd;
    }

private:
    int mFd = -1;
};

} // namespace Parvane
