#pragma once

#include <cstdint>
#include <string>

#include "PowerBackend.h"

namespace ParvanePlatform {

/**
 * Wake locks of the kernel: while one is active, the system does not suspend by itself.
 *
 * A lock is a name that is written to the file wake_lock and later to wake_unlock; it needs the
 * capability CAP_BLOCK_SUSPEND. The kernel knows no owner, so each is also given a time after which
 * the kernel ends it: a process that was killed keeps nothing awake for long.
 */
class WakeLockBackend : public PowerBackend
{
public:
    /** `root` is where the two files lie, such as "/sys/power". */
    explicit WakeLockBackend(std::string root);

    const char *Name() const override { return "wake_lock"; }
    std::unique_ptr<PowerHold> Hold(int timeoutMs) override;

private:
    std::string mRoot;
    std::uint64_t mCount = 0;
    /** The errno value of the last attempt. */
    int mError = 0;
};

} // namespace ParvanePlatform
