#include "ServiceLoop.h"

#include <utility>

#include "RunHandler.h"
#include "RuntimeLog.h"

/** A launch request; there is nothing in it. */
struct app_control
{};

namespace ParvanePlatform {

namespace {

void LogFailure(const char *line) noexcept
{
    LogError("%s", line);
}

} // namespace

ServiceLoop::ServiceLoop(const service_app_callbacks &callbacks, void *userData)
    : mCallbacks(callbacks), mUserData(userData), mLoop(g_main_loop_new(nullptr, FALSE))
{
    Parvane::SetHandlerLog(LogFailure);
    mSignalSource =
        Parvane::LoopSource::WatchSeldom(mSignals.Fd(), G_IO_IN, [this] { TakeSignals(); });
}

void ServiceLoop::TakeSignals()
{
    int last = 0;
    for (int signal = mSignals.Take(); signal != 0; signal = mSignals.Take()) {
        last = signal;
    }
    if (last != 0) {
        LogInfo("signal %d: ending", last);
        Quit();
    }
}

void ServiceLoop::Run()
{
    mIsRunning = true;
    const bool created = mCallbacks.create(mUserData);
    if (created && !mQuit) {
        mLaunch = Parvane::LoopSource::Post([this] { DeliverLaunchRequest(); });
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
