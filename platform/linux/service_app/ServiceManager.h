#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Clock.h"
#include "Timer.h"

namespace ParvanePlatform {

/**
 * Tells the manager of the system's services how this one is doing, where the manager has asked for
 * it: NOTIFY_SOCKET names its socket. Without that variable nothing is sent or set.
 *
 * A manager that does not read delays the service by a second for each message at most. The variables
 * are left in the environment, since the runtime starts no program. Main-loop thread only.
 */
class ServiceManager
{
public:
    /** Clock and timer are borrowed; the timer is set only when the manager wants signs of life. */
    ServiceManager(const Clock &clock, Timer &timer);

    /**
     * The service serves. From now on the manager gets a sign of life at half the interval that it
     * asks for (WATCHDOG_USEC, WATCHDOG_PID), from the main loop: a loop that hangs gives none.
     */
    void OnReady();

    /** The service is about to end, whether or not it was ready; signs of life end, too. */
    void OnStopping();

private:
    void Tell(std::string_view state) const;
    int Send(std::string_view state) const;
    void ArmWatchdog();

    const Clock &mClock;
    Timer &mTimer;
    /** Of the manager's socket; empty when nobody wants to be told anything. */
    std::string mAddress;
    std::int64_t mPeriodUs = 0;
};

} // namespace ParvanePlatform
