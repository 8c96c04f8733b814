#include "ServiceManager.h"

#include <algorithm>
#include <cstdlib>

#include "RuntimeLog.h"
#include "SystemdLibrary.h"

namespace ParvanePlatform {

namespace {

constexpr std::uint64_t kMinPeriodUs = 1000;
/** A year, far from where sums of times would overflow. */
constexpr std::uint64_t kMaxPeriodUs = 365ULL * 24 * 3600 * 1000 * 1000;

} // namespace

ServiceManager::ServiceManager(const Clock &clock, Timer &timer) : mClock(clock), mTimer(timer)
{
    const char *socket = std::getenv("NOTIFY_SOCKET");
    if (socket == nullptr || *socket == '\0') {
        return;
    }
    mLibrary = SystemdLibrary::Get();
    if (mLibrary == nullptr) {
        LogWarning("NOTIFY_SOCKET is set, but libsystemd cannot be loaded: the service manager is "
                   "told nothing");
    }
}

void ServiceManager::OnReady()
{
    Tell("READY=1\nSTATUS=Serving");
    std::uint64_t intervalUs = 0;
    if (mLibrary != nullptr && mLibrary->mWatchdogEnabled(0, &intervalUs) > 0) {
        mPeriodUs =
            static_cast<std::int64_t>(std::clamp(intervalUs / 2, kMinPeriodUs, kMaxPeriodUs));
        ArmWatchdog();
    }
}

void ServiceManager::OnStopping()
{
    mTimer.Disarm();
    Tell("STOPPING=1\nSTATUS=Ending");
}

void ServiceManager::Tell(const char *state) const
{
    if (mLibrary == nullptr) {
        return;
    }
    if (const int result = mLibrary->mNotify(0, state); result < 0) {
        // Just the number: this is said without memory, too.
        LogWarning("cannot tell the service manager: error %d", -result);
    }
}

void ServiceManager::ArmWatchdog()
{
    mTimer.Arm(mClock.MonotonicUs() + mPeriodUs, [this] {
        // No line in the log when it fails: there would be one each time.
        mLibrary->mNotify(0, "WATCHDOG=1");
        ArmWatchdog();
    });
}

} // namespace ParvanePlatform
