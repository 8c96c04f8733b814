#pragma once

#include <chrono>
#include <string>

#include "LoopSource.h"

namespace Parvane {

/**
 * Tells the manager of the system's services how the daemon is doing, where the manager has asked for it
 * (NOTIFY_SOCKET): ready, a sign of life at half the interval that it asks for (WATCHDOG_USEC), and the end.
 */
class ServiceManager
{
public:
    ServiceManager();

    void OnReady();
    void OnStopping();

private:
    void Tell(const char *state) const;
    void WatchOver();

    std::string mAddress;
    std::chrono::milliseconds mPeriod{0}; // 0: no signs of life
    LoopSource mTimer;
};

} // namespace Parvane
