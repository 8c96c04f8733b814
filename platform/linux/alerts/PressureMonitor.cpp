#include "PressureMonitor.h"

#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <utility>

#include "Files.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

PressureMonitor::PressureMonitor(const MemorySettings &settings, Opener open)
    : mSettings(settings), mOpen(std::move(open))
{}

Parvane::UniqueFd PressureMonitor::OpenTrigger(const MemorySettings &settings)
{
    Parvane::UniqueFd file(::open(settings.mPressureFile.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!file) {
        return file;
    }
    constexpr std::int64_t kUsPerMs = 1000;
    const std::string limit = "some " + std::to_string(settings.mStallMs * kUsPerMs) + ' ' +
                              std::to_string(settings.mWindowMs * kUsPerMs);
    // With its end: the kernel takes the last byte for that.
    if (::write(file.Get(), limit.c_str(), limit.size() + 1) < 0) {
        const int error = errno;
        file.Reset();
        errno = error;
    }
    return file;
}

bool PressureMonitor::Start(Alert alert)
{
    mFile = mOpen(mSettings);
    if (!mFile) {
        LogWarning("memory: no events from %s: %s", mSettings.mPressureFile.c_str(),
                   ErrorText(errno).c_str());
        return false;
    }
    mAlert = std::move(alert);
    mEvents = Parvane::LoopSource::WatchFd(mFile.Get(), G_IO_PRI, [this] { OnEvent(); });
    return true;
}

void PressureMonitor::OnEvent()
{
    // The kernel tells an event to one poll only, that of the loop: what is left here is a failure.
    pollfd file = {mFile.Get(), 0, 0};
    if (::poll(&file, 1, 0) > 0) {
        LogWarning("memory: no events from %s any more", mSettings.mPressureFile.c_str());
        mEvents.Remove();
        return;
    }
    LogWarning("memory: low, says %s", mSettings.mPressureFile.c_str());
    mAlert(); // last use of this: the service may end in it
}

} // namespace ParvanePlatform
