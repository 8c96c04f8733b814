#include <cstdint>
#include <memory>
#include <parvane/host.h>
#include <poll.h>
#include <stdexcept>
#include <string>

#include "Peers.h"

namespace ParvaneBench {

namespace {

/** The service, asked through the library's C interface as a program in a poll loop does. */
class LibraryPeer : public Peer
{
public:
    explicit LibraryPeer(const Setting &setting) : mService(setting, {})
    {
        parvane_watch *watch = nullptr;
        if (parvane_watch_new(mService.LinkPath().c_str(), nullptr, &watch) < 0) {
            throw std::runtime_error("the library makes no watch");
        }
        mWatch.reset(watch);
    }

    void AskForReading() override
    {
        std::uint64_t request = 0;
        parvane_session_measure(Session(), PARVANE_ACTIVITY, 0, nullptr, &request);
        Await(request);
    }

    void AskForList() override
    {
        std::uint64_t request = 0;
        parvane_session_list(Session(), 0, nullptr, &request);
        Await(request);
    }

private:
    struct Free
    {
        void operator()(parvane_watch *watch) const { parvane_watch_free(watch); }
    };

    [[nodiscard]] parvane_session *Session() const { return parvane_watch_session(mWatch.get()); }

    void Await(std::uint64_t request)
    {
        parvane_event event{};
        for (;;) {
            parvane_watch_process(mWatch.get());
            while (parvane_session_next_event(Session(), &event, sizeof event) > 0) {
                if (event.request != request) {
                    continue;
                }
                if (event.kind == PARVANE_EVENT_FAILED) {
                    throw std::runtime_error(event.text);
                }
                return;
            }
            pollfd link{parvane_watch_fd(mWatch.get()), parvane_watch_poll_events(mWatch.get()), 0};
            poll(&link, 1, parvane_watch_timeout_ms(mWatch.get()));
        }
    }

    Service mService;
    std::unique_ptr<parvane_watch, Free> mWatch;
};

} // namespace

std::unique_ptr<Peer> MakeLibraryPeer(const Setting &setting)
{
    return std::make_unique<LibraryPeer>(setting);
}

} // namespace ParvaneBench
