#pragma once

#include <memory>

#include <glib.h>

#include <platform/service_app.h>

#include "Clock.h"
#include "LifecycleEvents.h"
#include "LoopSource.h"
#include "Released.h"
#include "ServiceManager.h"
#include "Signals.h"
#include "Timer.h"

namespace ParvanePlatform {

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
    void DeliverLaunchRequest();
    void TakeSignals();

    const service_app_callbacks &mCallbacks;
    void *mUserData;
    std::unique_ptr<GMainLoop, Parvane::Released<g_main_loop_unref>> mLoop;
    /** A signal asks for the end; one that comes before the loop runs waits until it does. */
    Parvane::Signals mSignals;
    Parvane::LoopSource mSignalSource;
    Parvane::LoopSource mLaunch;
    SystemClock mClock;
    LoopTimer mWatchdogTimer;
    ServiceManager mManager = {mClock, mWatchdogTimer};
    bool mQuit = false;
    /** Create has been called and terminate has not. */
    bool mIsRunning = false;
};

} // namespace ParvanePlatform
