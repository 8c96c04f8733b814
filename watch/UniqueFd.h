#pragma once

#include <unistd.h>
#include <utility>

namespace ParvaneWatch {

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
            Reset();
            mFd = std::exchange(other.mFd, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;

    /** The descriptor, still owned here; -1 for none. */
    [[nodiscard]] int Get() const noexcept { return mFd; }
    explicit operator bool() const noexcept { return mFd >= 0; }

    void Reset() noexcept
    {
        if (mFd >= 0) {
            ::close(mFd); // a failing close leaves nothing to do: the descriptor is gone either way
            mFd = -1;
        }
    }

private:
    int mFd = -1;
};

} // namespace ParvaneWatch
