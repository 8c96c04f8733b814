#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace ParvaneBench {

using Clock = std::chrono::steady_clock;

/** Ends the measuring. @throws std::runtime_error */
[[noreturn]] void Fail(const std::string &what);

/** The same, with the text of errno. */
[[noreturn]] void FailErrno(const std::string &what);

/** Microseconds since `begin`. */
double MicrosSince(Clock::time_point begin);

/** Waits in steps of `stepUs` until `condition` holds. @throws std::runtime_error after 10 seconds */
template <typename Condition>
void WaitUntil(const std::string &what, unsigned stepUs, Condition condition);

/** Owner of a file descriptor. */
class Fd
{
public:
    explicit Fd(int fd = -1) : mFd(fd) {}
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    Fd(Fd &&other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    Fd &operator=(Fd &&other) noexcept
    {
        std::swap(mFd, other.mFd);
        return *this;
    }
    ~Fd();

    int Get() const { return mFd; }

private:
    int mFd;
};

/** A folder that goes with its owner, with all that is in it. */
class TemporaryFolder
{
public:
    /** Makes it below `parent`. */
    explicit TemporaryFolder(const std::filesystem::path &parent);
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;
    ~TemporaryFolder();

    const std::filesystem::path &Path() const { return mPath; }

private:
    std::filesystem::path mPath;
};

/** A child process; it is ended and waited for with its owner. */
class Child
{
public:
    struct Start
    {
        /** The program's path or name, and its arguments. */
        std::vector<std::string> mArguments;
        /** All of its environment: NAME=value. */
        std::vector<std::string> mEnvironment;
        /** Where its standard error goes; empty: where this process's goes. */
        std::filesystem::path mLog;
        /** Become its standard output and standard error, when they are not below 0. */
        int mOutput = -1;
        int mError = -1;
        /** The processor that it is bound to. */
        int mCpu = 0;
    };

    explicit Child(const Start &start);
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child();

    pid_t Pid() const { return mPid; }

private:
    pid_t mPid;
};

/** The processors that this process may use. */
std::vector<int> AllowedCpus();

/** Binds this process to one processor. */
void BindTo(int cpu);

/** Connects a SOCK_SEQPACKET socket, as soon as somebody listens at `path`. */
Fd ConnectTo(const std::filesystem::path &path);

/** Waits until somebody listens for streams at `path`. */
void WaitForListener(const std::filesystem::path &path);

/** Sends one message whole. */
void SendMessage(const Fd &peer, const void *data, std::size_t size);

/** Receives one message, which must have `size` bytes. */
void ReceiveMessage(const Fd &peer, std::size_t size);

/** A memory file system, so that the disk does not set the pace, where there is one. */
std::filesystem::path FastFolder();

/** The number behind `key` in a file of lines "key value" such as those below /proc. */
std::int64_t NumberIn(const std::filesystem::path &file, const std::string &key);

template <typename Condition>
void WaitUntil(const std::string &what, unsigned stepUs, Condition condition)
{
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (Clock::now() > deadline) {
            Fail("waited for 10 seconds: " + what);
        }
        const timespec step = {0, static_cast<long>(stepUs) * 1000};
        clock_nanosleep(CLOCK_MONOTONIC, 0, &step, nullptr);
    }
}

} // namespace ParvaneBench
