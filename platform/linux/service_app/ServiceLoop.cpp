#include "ServiceLoop.h"

#include <cerrno>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "RuntimeLog.h"

/** A launch request; there is nothing in it. */
struct app_control
{};

namespace ParvanePlatform {

SignalGuard::SignalGuard()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    mFd.Reset(::signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC));
    if (!mFd) {
        throw std::system_error(errno, std::generic_category(), "signalfd");
    }
    pthread_sigmask(SIG_BLOCK, &signals, &mOldMask);
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &mOldPipeAction);
    sigaction(SIGXFSZ, &ignore, &mOldFileSizeAction);
}

SignalGuard::~SignalGuard()
{
    mSource.Remove();
    Take();
    sigaction(SIGXFSZ, &mOldFileSizeAction, nullptr);
    sigaction(SIGPIPE, &mOldPipeAction, nullptr);
    pthread_sigmask(SIG_SETMASK, &mOldMask, nullptr);
}

void SignalGuard::Watch(std::function<void()> handler)
{
    mSource = LoopSource::WatchSeldom(mFd.Get(), G_IO_IN, [this, handler = std::move(handler)] {
        if (const int signal = Take(); signal != 0) {
            LogInfo("signal %d: ending", signal);
            handler();
        }
    });
}

int SignalGuard::Take() const
{
    int taken = 0;
    signalfd_siginfo info = {};
    while (::read(mFd.Get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        taken = static_cast<int>(info.ssi_signo);
    }
    return taken;
}

ServiceLoop::ServiceLoop(const service_app_callbacks &callbacks, void *userData)
    : mCallbacks(callbacks), mUserData(userData), mLoop(g_main_loop_new(nullptr, FALSE))
{
    mSignals.Watch([this] { Quit(); });
}

void ServiceLoop::Run()
{
    mIsRunning = true;
    const bool created = mCallbacks.create(mUserData);
    if (created && !mQuit) {
        mLaunch = LoopSource::Post([this] { DeliverLaunchRequest(); });
        g_main_loop_run(mLoop.get());
        mLaunch.Remove();
    }
    mQuit = true;
    mIsRunning = false;
    mManager.OnStopping();
    mCallbacks.terminate(mUserData);
}

void ServiceLoop::Quit()
{
    mQuit = true;
    g_main_loop_quit(mLoop.get());
}

void ServiceLoop::OnLowMemory()
{
    if (mIsRunning && mCallbacks.low_memory != nullptr) {
        mCallbacks.low_memory(mUserData);
    }
}

void ServiceLoop::OnLowBattery()
{
    if (mIsRunning && mCallbacks.low_battery != nullptr) {
        mCallbacks.low_battery(mUserData);
    }
}

void ServiceLoop::DeliverLaunchRequest()
{
    mManager.OnReady();
    app_control request;
    mCallbacks.app_control(&request, mUserData);
}

} // namespace ParvanePlatform
