#pragma once

#include <functional>

namespace ParvanePlatform {

/**
 * Watches one thing that may run low, memory or the battery. Ends with its life. Main-loop thread
 * only.
 */
class AlertMonitor
{
public:
    using Alert = std::function<void()>;

    virtual ~AlertMonitor() = default;

    /** What it is, for log and status: "glib", "pressure", "upower", "sysfs". */
    virtual const char *Name() const = 0;

    /**
     * Begins to watch. Called once.
     *
     * @param alert  called from the main loop each time that what is watched becomes low
     * @return false when this machine has nothing to watch in this way; another monitor may
     *         have. It alerts all the same if that changes later, where it can notice
     */
    virtual bool Start(Alert alert) = 0;
};

} // namespace ParvanePlatform
