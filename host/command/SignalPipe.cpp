#include "SignalPipe.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <signal.h> // NOLINT(modernize-deprecated-headers): sigaction is POSIX
#include <system_error>
#include <unistd.h>

namespace ParvaneHost {

namespace {

struct Disposition
{
    int mSignal = 0;
    struct sigaction mBefore = {};
};

std::atomic<int> writeEnd{-1};
static_assert(std::atomic<int>::is_always_lock_free, "the handler uses it");

std::array<Disposition, 3> dispositions{{{SIGINT, {}}, {SIGTERM, {}}, {SIGPIPE, {}}}};

extern "C" void OnSignal(int signal) noexcept
{
    const int before = errno;
    const auto byte = static_cast<unsigned char>(signal);
    [[maybe_unused]] const auto written = ::write(writeEnd.load(), &byte, 1);
    errno = before;
}

} // namespace

SignalPipe::SignalPipe()
{
    std::array<int, 2> ends{-1, -1};
    if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    mReadEnd = UniqueFd(ends[0]);
    mWriteEnd = UniqueFd(ends[1]);
    writeEnd = mWriteEnd.Get();

    for (Disposition &disposition : dispositions) {
        struct sigaction action = {};
        action.sa_handler = disposition.mSignal == SIGPIPE ? SIG_IGN : &OnSignal;
        sigemptyset(&action.sa_mask);
        if (::sigaction(disposition.mSignal, &action, &disposition.mBefore) != 0) {
            throw std::system_error(errno, std::generic_category(), "sigaction");
        }
    }
}

SignalPipe::~SignalPipe()
{
    for (const Disposition &disposition : dispositions) {
        ::sigaction(disposition.mSignal, &disposition.mBefore, nullptr);
    }
    writeEnd = -1;
}

int SignalPipe::Take() noexcept
{
    unsigned char signal = 0;
    return ::read(mReadEnd.Get(), &signal, 1) == 1 ? signal : 0;
}

void SignalPipe::Die(int signal) noexcept
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    ::sigaction(signal, &action, nullptr);
    ::raise(signal);
    ::_exit(128 + signal); // for a signal that is blocked
}

} // namespace ParvaneHost
