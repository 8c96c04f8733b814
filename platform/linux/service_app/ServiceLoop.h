#pragma once

#include <csignal>
#include <memory>

#include <glib.h>

#include <platform/service_app.h>

#include "Clock.h"
#include "LifecycleEvents.h"
#include "LoopSource.h"
#include "ServiceManager.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

/**
 * Holds SIGTERM and SIGINT back and tells the main loop of them; ignores SIGPIPE and SIGXFSZ: what
 * cannot be written is told by the write. The end of the object restores what was before, and forgets
 * the signals that came meanwhile.
 *
 * The signals arrive through a descriptor, because that needs no thread.
 */
class SignalGuard
{
public:
    /** @throws std::system_error when the system has no descriptor left */
    SignalGuard();
    ~SignalGuard();

    SignalGuard(const SignalGuard &) = delete;
    SignalGuard &operator=(const SignalGuard &) = delete;

    /** Calls `handler` on the main loop for each signal that arrives, also for earlier ones. */
    void Watch(std::function<void()> handler);

private:
    /** Takes the signals that wait; returns the last one's number, 0 when there is none. */
    int Take() const;

    sigset_t mOldMask = {};
    struct sigaction mOldPipeAction = {};
    struct sigaction mOldFileSizeAction = {};
    UniqueFd mFd;
    LoopSource mSource;
};

/** The life of the service between create and terminate. One at a time; main thread only. */
class ServiceLoop : public LifecycleEvents
{
public:
    /** `callbacks` is borrowed until Run() returns; `userData` goes to every callback. */
    ServiceLoop(const service_app_callbacks &callbacks, void *userData);

    /**
     * Calls create, runs the loop unless that returned false or asked for the end, and calls
     * terminate. One launch request is delivered from the loop. The service manager is told when the
     * loop turns, and when terminate is about to be called.
     */
    void Run();

    /** Ends Run(): at once when the loop runs, else before it would start. Needs no memory. */
    void Quit();

    void OnLowMemory() override;
    void OnLowBattery() override;
    void OnQuit() override { Quit(); }

private:
    struct LoopUnref
    {
        void operator()(GMainLoop *loop) const noexcept { g_main_loop_unref(loop); }
    };

    void DeliverLaunchRequest();

    const service_app_callbacks &mCallbacks;
    void *mUserData;
    std::unique_ptr<GMainLoop, LoopUnref> mLoop;
    SignalGuard mSignals;
    LoopSource mLaunch;
    SystemClock mClock;
    LoopTimer mWatchdogTimer;
    ServiceManager mManager = {mClock, mWatchdogTimer};
    bool mQuit = false;
    /** Create has been called and terminate has not. */
    bool mIsRunning = false;
};

} // namespace ParvanePlatform
