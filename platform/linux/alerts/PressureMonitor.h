#pragma once

#include <functional>

#include "AlertMonitor.h"
#include "LoopSource.h"
#include "Settings.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

/**
 * Low memory, by the kernel's pressure file: tasks wait for memory for longer than they may within
 * a window. The kernel says so by an event on the open file, at most once a window; nothing wakes
 * the process otherwise.
 */
class PressureMonitor : public AlertMonitor
{
public:
    /**
     * Opens what has an exceptional event (POLLPRI) each time that memory is low; empty on
     * failure, with errno.
     */
    using Opener = std::function<Parvane::UniqueFd(const MemorySettings &settings)>;

    /**
     * @param open  the kernel's file with the limit written to it; tests put a socket in its place
     */
    explicit PressureMonitor(const MemorySettings &settings, Opener open = OpenTrigger);

    const char *Name() const override { return "pressure"; }

    /**
     * Returns false when there is no such file, or the kernel refuses the limit: without the
     * capability CAP_SYS_RESOURCE the window has to be a multiple of two seconds.
     */
    bool Start(Alert alert) override;

private:
    static Parvane::UniqueFd OpenTrigger(const MemorySettings &settings);
    void OnEvent();

    MemorySettings mSettings;
    Opener mOpen;
    Alert mAlert;
    Parvane::UniqueFd mFile;
    Parvane::LoopSource mEvents;
};

} // namespace ParvanePlatform
