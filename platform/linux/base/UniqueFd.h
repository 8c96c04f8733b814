#pragma once

#include <unistd.h>
#include <utility>

namespace ParvanePlatform {

/** Owner of one file descriptor; closes it at the end of its life. -1 means none. */
class UniqueFd
{
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : mFd(fd) {}
    ~UniqueFd() { Reset(); }

    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    UniqueFd(UniqueFd &&other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        if (this != &other) {
            Reset(std::exchange(other.mFd, -1));
        }
        return *this;
    }

    int Get() const { return mFd; }
    explicit operator bool() const { return mFd >= 0; }

    /** Closes the descriptor that is held and takes over `fd`. */
    void Reset(int fd = -1)
    {
        if (mFd >= 0) {
            ::close(mFd);
        }
        mFd = fd;
    }

private:
    int mFd = -1;
};

} // namespace ParvanePlatform
