#include "ServiceManager.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <unistd.h>

#include "Datagram.h"
#include "Log.h"
#include "RuntimeDirectory.h"
#include "UniqueFd.h"

namespace Parvane {

namespace {

std::string Variable(const char *name)
{
    return ValueOf(
        [](const char *variable) { return static_cast<const char *>(std::getenv(variable)); },
        name);
}

std::int64_t NumberOf(const std::string &text)
{
    std::int64_t number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() ? number : 0;
}

} // namespace

ServiceManager::ServiceManager() : mAddress(Variable("NOTIFY_SOCKET"))
{
    const std::string process = Variable("WATCHDOG_PID");
    if (!mAddress.empty() && (process.empty() || NumberOf(process) == ::getpid())) {
        constexpr std::chrono::hours kLongest{24};
        const std::chrono::microseconds interval{
            std::max<std::int64_t>(NumberOf(Variable("WATCHDOG_USEC")), 0)};
        mPeriod = std::min<std::chrono::milliseconds>(
            std::chrono::duration_cast<std::chrono::milliseconds>(interval / 2), kLongest);
    }
}

void ServiceManager::OnReady()
{
    Tell("READY=1\nSTATUS=Serving");
    WatchOver();
}

void ServiceManager::OnStopping()
{
    mTimer.Remove();
    Tell("STOPPING=1\nSTATUS=Ending");
}

void ServiceManager::Tell(const char *state) const
{
    constexpr int kMaxWaitMs = 1000;
    if (mAddress.empty()) {
        return;
    }
    const UniqueFd socket(OpenDatagramSocket(kMaxWaitMs));
    if (!socket || SendDatagram(socket.Get(), mAddress, state, 0) != 0) {
        LogWarning("cannot tell the service manager");
    }
}

void ServiceManager::WatchOver()
{
    if (mPeriod.count() > 0) {
        mTimer = LoopSource::After(mPeriod, [this] {
            Tell("WATCHDOG=1");
            WatchOver();
        });
    }
}

} // namespace Parvane
