#include <cstdlib>
#include <memory>
#include <optional>
#include <parvane/host.h>
#include <poll.h>
#include <string>
#include <utility>

#include "Guard.h"
#include "RuntimeDirectory.h"
#include "SessionHandle.h"
#include "UnixSocket.h"

using namespace ParvaneHost;

namespace {

std::string DefaultPath()
{
    const auto environment = [](const char *name) -> const char * { return std::getenv(name); };
    const std::string link = Parvane::ValueOf(environment, "PARVANE_LINK");
    return link.empty() ? Parvane::RuntimeDirectory(environment, "parvane") + "/link.sock" : link;
}

/** Whether there is something to do that no descriptor tells of. */
bool HasWork(const parvane_watch &watch)
{
    return watch.mHandle.mIsAsked || watch.mHandle.mSession->WantsLink() != watch.mLinked.HasLink();
}

} // namespace

int parvane_watch_new(const char *path, const parvane_options *options,
                      parvane_watch **watch) noexcept
{
    return Guarded([=] {
        const std::string socket = path == nullptr ? DefaultPath() : path;
        if (watch == nullptr || socket.empty() || socket.size() > Parvane::LongestSocketPath()) {
            return static_cast<int>(PARVANE_EINVAL);
        }
        SessionOptions known;
        std::optional<StepLedger> ledger;
        const int error = ReadStart(options, known, ledger);
        if (error == 0) {
            *watch = std::make_unique<parvane_watch>(socket, known, *std::move(ledger)).release();
        }
        return error;
    });
}

void parvane_watch_free(parvane_watch *watch) noexcept
{
    delete watch;
}

parvane_session *parvane_watch_session(parvane_watch *watch) noexcept
{
    return watch == nullptr ? nullptr : &watch->mHandle;
}

int parvane_watch_fd(const parvane_watch *watch) noexcept
{
    return watch == nullptr ? static_cast<int>(PARVANE_EINVAL) : watch->mLinked.Fd();
}

short parvane_watch_poll_events(const parvane_watch *watch) noexcept
{
    return watch == nullptr ? short{POLLIN} : watch->mLinked.Awaits();
}

int parvane_watch_timeout_ms(const parvane_watch *watch) noexcept
{
    if (watch == nullptr) {
        return PARVANE_EINVAL;
    }
    return HasWork(*watch) ? 0 : parvane_session_timeout_ms(&watch->mHandle, nullptr);
}

int parvane_watch_process(parvane_watch *watch) noexcept
{
    return Guarded([=] {
        if (watch == nullptr) {
            return static_cast<int>(PARVANE_EINVAL);
        }
        watch->mHandle.mIsAsked = false;
        watch->mLinked.Process();
        return 0;
    });
}
