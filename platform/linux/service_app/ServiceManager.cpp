#include "ServiceManager.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <unistd.h>

#include "Datagram.h"
#include "Numbers.h"
#include "RuntimeLog.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

using Parvane::OpenDatagramSocket;
using Parvane::SendDatagram;

namespace {

constexpr std::uint64_t kMinPeriodUs = 1000;
/** A year, far from where sums of times would overflow. */
constexpr std::uint64_t kMaxPeriodUs = 365ULL * 24 * 3600 * 1000 * 1000;
constexpr int kMaxWaitMs = 1000;

std::string_view Variable(const char *name)
{
    const char *value = std::getenv(name);
    return value != nullptr ? value : "";
}

/** The interval of signs of life; none unless the manager asks this very process for them. */
std::optional<std::uint64_t> WatchdogIntervalUs()
{
    const auto intervalUs = ParseInteger<std::uint64_t>(Variable("WATCHDOG_USEC"));
    if (!intervalUs || *intervalUs == 0 || *intervalUs == UINT64_MAX) {
        return std::nullopt;
    }
    if (std::getenv("WATCHDOG_PID") != nullptr &&
        ParseInteger<pid_t>(Variable("WATCHDOG_PID")) != ::getpid()) {
        return std::nullopt;
    }
    return intervalUs;
}

} // namespace

ServiceManager::ServiceManager(const Clock &clock, Timer &timer)
    : mClock(clock), mTimer(timer), mAddress(Variable("NOTIFY_SOCKET"))
{}

void ServiceManager::OnReady()
{
    Tell("READY=1\nSTATUS=Serving");
    const auto intervalUs = WatchdogIntervalUs();
    if (!mAddress.empty() && intervalUs) {
        mPeriodUs =
            static_cast<std::int64_t>(std::clamp(*intervalUs / 2, kMinPeriodUs, kMaxPeriodUs));
        ArmWatchdog();
    }
}

void ServiceManager::OnStopping()
{
    mTimer.Disarm();
    Tell("STOPPING=1\nSTATUS=Ending");
}

void ServiceManager::Tell(std::string_view state) const
{
    if (mAddress.empty()) {
        return;
    }
    if (const int result = Send(state); result < 0) {
        // Just the number: this is said without memory, too.
        LogWarning("cannot tell the service manager: error %d", -result);
    }
}

int ServiceManager::Send(std::string_view state) const
{
    const int fd = OpenDatagramSocket(kMaxWaitMs);
    if (fd < 0) {
        return fd;
    }
    const Parvane::UniqueFd socket(fd);
    return SendDatagram(fd, mAddress, state, 0);
}

void ServiceManager::ArmWatchdog()
{
    mTimer.Arm(mClock.MonotonicUs() + mPeriodUs, [this] {
        // No line in the log when it fails: there would be one each time.
        Send("WATCHDOG=1");
        ArmWatchdog();
    });
}

} // namespace ParvanePlatform
