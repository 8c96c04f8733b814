#include "SystemdLibrary.h"

#include <dlfcn.h>
#include <type_traits>

// The plain function, not the macro that adds the place of this call.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-daemon.h>
#include <systemd/sd-journal.h>

namespace ParvanePlatform {

namespace {

static_assert(std::is_same_v<SystemdLibrary::JournalSendFunction, decltype(sd_journal_sendv)>);
static_assert(std::is_same_v<SystemdLibrary::NotifyFunction, decltype(sd_notify)>);
static_assert(std::is_same_v<SystemdLibrary::WatchdogFunction, decltype(sd_watchdog_enabled)>);

enum class State { NotTried, Loaded, Missing };

// Constant-initialized and never destroyed: lines are logged before and after everything else.
constinit State gState = State::NotTried;
constinit SystemdLibrary gLibrary;

template <typename Function>
bool Find(void *library, const char *name, Function *&function) noexcept
{
    function = reinterpret_cast<Function *>(::dlsym(library, name));
    return function != nullptr;
}

} // namespace

const SystemdLibrary *SystemdLibrary::Get() noexcept
{
    if (gState == State::NotTried) {
        // Before the attempt: a line that is logged during it goes to standard error.
        gState = State::Missing;
        if (gLibrary.Load("libsystemd.so.0")) {
            gState = State::Loaded;
        }
    }
    return gState == State::Loaded ? &gLibrary : nullptr;
}

bool SystemdLibrary::Load(const char *fileName) noexcept
{
    void *library = ::dlopen(fileName, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    return library != nullptr && Find(library, "sd_journal_sendv", mJournalSend) &&
           Find(library, "sd_notify", mNotify) &&
           Find(library, "sd_watchdog_enabled", mWatchdogEnabled);
}

} // namespace ParvanePlatform
