#include "Signals.h"

#include <cerrno>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

namespace Parvane {

Signals::Signals(bool alsoHangup)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    if (alsoHangup) {
        sigaddset(&signals, SIGHUP);
    }
    mFd = UniqueFd(::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
    if (!mFd) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    pthread_sigmask(SIG_BLOCK, &signals, &mOldMask);
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &mOldPipeAction);
    sigaction(SIGXFSZ, &ignore, &mOldFileSizeAction);
}

Signals::~Signals()
{
    while (Take() != 0) {
    }
    sigaction(SIGXFSZ, &mOldFileSizeAction, nullptr);
    sigaction(SIGPIPE, &mOldPipeAction, nullptr);
    pthread_sigmask(SIG_SETMASK, &mOldMask, nullptr);
}

int Signals::Take() const noexcept
{
    signalfd_siginfo info = {};
    const bool isWhole = ::read(mFd.Get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info);
    return isWhole ? static_cast<int>(info.ssi_signo) : 0;
}

void Signals::Die(int signal) noexcept
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigaction(signal, &action, nullptr);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, signal);
    ::raise(signal);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    ::_exit(128 + signal); // for a signal that does not end a process
}

} // namespace Parvane
