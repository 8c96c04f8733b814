#pragma once

#include <cstdint>

struct iovec;

namespace ParvanePlatform {

/**
 * The functions of libsystemd that the runtime uses.
 *
 * The library is not linked: a service that neither logs to the journal nor answers to a service
 * manager does without it, also on a machine that does not have it. Once loaded it stays.
 */
class SystemdLibrary
{
public:
    /** Sends one entry to the journal; 0 or a negated errno value. 0 also where no journal is. */
    using JournalSendFunction = int(const iovec *fields, int count);
    /** Sends lines to the service manager; above 0 when they were sent, else 0 or negated errno. */
    using NotifyFunction = int(int unsetEnvironment, const char *state);
    /** Above 0 when the service manager asks this process for signs of life, with its interval. */
    using WatchdogFunction = int(int unsetEnvironment, std::uint64_t *intervalUs);

    /**
     * The library, loaded by the first call; null when it cannot be loaded, which is not tried again.
     * At any time of the process; keeps nothing that would have to be released.
     */
    static const SystemdLibrary *Get() noexcept;

    /** Loads the functions from the library of this file name; false when one is missing. */
    bool Load(const char *fileName) noexcept;

    JournalSendFunction *mJournalSend = nullptr;
    NotifyFunction *mNotify = nullptr;
    WatchdogFunction *mWatchdogEnabled = nullptr;
};

} // namespace ParvanePlatform
