#include "WakeLockBackend.h"

#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>
#include <utility>

#include "Files.h"
#include "RuntimeLog.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

namespace {

/** How much later than its owner the kernel ends a lock. */
constexpr std::int64_t kMarginMs = 1000;
constexpr std::int64_t kNanosecondsPerMs = 1'000'000;

/**
 * Writes to an attribute of the kernel in one call, as it wants it. Returns 0 or an errno value.
 */
int WriteAttribute(const std::string &path, std::string_view text)
{
    const Parvane::UniqueFd file(::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    if (!file) {
        return errno;
    }
    ssize_t written = 0;
    do {
        written = ::write(file.Get(), text.data(), text.size());
    } while (written < 0 && errno == EINTR);
    if (written < 0) {
        return errno;
    }
    return static_cast<std::size_t>(written) == text.size() ? 0 : EIO;
}

class WakeLock : public PowerHold
{
public:
    WakeLock(const std::string &root, std::string name)
        : mUnlockPath(root + "/wake_unlock"), mName(std::move(name))
    {}

    ~WakeLock() override
    {
        const int error = mIsTaken ? WriteAttribute(mUnlockPath, mName) : 0;
        if (error != 0) {
            LogWarning("power: wake lock %s is left to its end: %s: %s", mName.c_str(),
                       mUnlockPath.c_str(), ErrorText(error).c_str());
        }
    }

    WakeLock(const WakeLock &) = delete;
    WakeLock &operator=(const WakeLock &) = delete;

    /** Returns 0 or an errno value. */
    int Take(const std::string &lockPath, std::int64_t limitNs)
    {
        const int error = WriteAttribute(lockPath, mName + ' ' + std::to_string(limitNs));
        mIsTaken = error == 0;
        return error;
    }

private:
    std::string mUnlockPath;
    std::string mName;
    bool mIsTaken = false;
};

} // namespace

WakeLockBackend::WakeLockBackend(std::string root) : mRoot(std::move(root)) {}

std::unique_ptr<PowerHold> WakeLockBackend::Hold(int timeoutMs)
{
    const std::string path = mRoot + "/wake_lock";
    // Before the kernel's lock, which would have no owner when there is no memory for this.
    auto lock = std::make_unique<WakeLock>(mRoot, "parvane-" + std::to_string(::getpid()) + '-' +
                                                      std::to_string(++mCount));
    const int error = lock->Take(path, (timeoutMs + kMarginMs) * kNanosecondsPerMs);
    const int before = std::exchange(mError, error);
    if (error != 0) {
        if (error != before) {
            LogWarning("power: no wake lock: %s: %s", path.c_str(), ErrorText(error).c_str());
        }
        return nullptr;
    }
    if (before != 0) {
        LogInfo("power: %s works again", path.c_str());
    }
    return lock;
}

} // namespace ParvanePlatform
