#pragma once

#include <memory>
#include <string>

#include "PowerBackend.h"
#include "SystemBus.h"

namespace ParvanePlatform {

/**
 * Inhibitors of logind, which block suspension and what logind does when the device is idle.
 *
 * logind keeps an inhibitor until its descriptor is closed, which the end of the process does, too;
 * it outlives a restart of logind and of the bus.
 */
class LogindBackend : public PowerBackend
{
public:
    explicit LogindBackend(std::shared_ptr<SystemBus> bus);

    const char *Name() const override { return "logind"; }

    /**
     * Waits for logind, for half a second at most, and as long for a connection that has to be
     * made.
     */
    std::unique_ptr<PowerHold> Hold(int timeoutMs) override;

private:
    std::shared_ptr<SystemBus> mBus;
    /** Why the last attempt failed; empty when it did not. */
    std::string mProblem;
};

} // namespace ParvanePlatform
