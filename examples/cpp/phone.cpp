// A phone in C++: phone list | measure | follow SECONDS. Its watch is that of this machine.
//
// find_package(ParvaneHost REQUIRED)
// target_link_libraries(phone PRIVATE Parvane::Host)
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iostream>
#include <memory>
#include <parvane/host.h>
#include <poll.h>
#include <stdexcept>
#include <string>

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

/** The watch of this machine, with the loop around it. */
class Watch
{
public:
    Watch()
    {
        parvane_watch *watch = nullptr;
        if (const int error = parvane_watch_new(nullptr, nullptr, &watch); error < 0) {
            throw std::runtime_error(parvane_error_text(error));
        }
        mWatch.reset(watch);
    }

    parvane_session *Session() const { return parvane_watch_session(mWatch.get()); }

    /** Hands over each event until `take` returns false, or the time is over. */
    void Run(Clock::duration length, const std::function<bool(const parvane_event &)> &take)
    {
        const auto end = Clock::now() + length;
        while (Clock::now() < end) {
            parvane_watch_process(mWatch.get());
            parvane_event event;
            while (parvane_session_next_event(Session(), &event, sizeof event) > 0) {
                if (!take(event)) {
                    return;
                }
            }
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
            const int timeout = parvane_watch_timeout_ms(mWatch.get());
            pollfd link{parvane_watch_fd(mWatch.get()), parvane_watch_poll_events(mWatch.get()), 0};
            poll(&link, 1,
                 timeout < 0 || timeout > left ? static_cast<int>(std::max<std::int64_t>(left, 0))
                                               : timeout);
        }
    }

private:
    struct Free
    {
        void operator()(parvane_watch *watch) const { parvane_watch_free(watch); }
    };
    std::unique_ptr<parvane_watch, Free> mWatch;
};

/** The latest reading of a sensor, in words. */
std::string Words(parvane_session *session, int sensor)
{
    const std::unique_ptr<char, void (*)(char *)> text(
        parvane_session_latest_text(session, sensor, nullptr), parvane_free);
    return text ? text.get() : "?";
}

void Print(parvane_session *session, const parvane_event &event)
{
    if (event.kind == PARVANE_EVENT_LIST) {
        for (std::size_t i = 1; i < event.packet_count; ++i) { // the first one is the header
            std::cout << parvane_sensor_name(event.packets[i].sensor) << ": up to "
                      << event.packets[i].largest << std::endl;
        }
    } else if (event.kind == PARVANE_EVENT_READING && event.sensor != PARVANE_STEPS) {
        std::cout << parvane_sensor_name(event.sensor) << ": " << Words(session, event.sensor)
                  << std::endl;
    } else if (event.kind == PARVANE_EVENT_READING && event.reading.is_settled &&
               event.reading.has_day) {
        const parvane_day &day = event.reading.day;
        std::cout << "steps: " << (day.is_exact ? "" : "at least ") << day.steps << " today"
                  << std::endl;
    } else if (*event.text != '\0') {
        std::cerr << "phone: " << event.text << std::endl;
    }
}

/** Prints what ends a request. */
bool Await(Watch &watch, std::uint64_t request)
{
    bool isAnswered = false;
    watch.Run(60s, [&](const parvane_event &event) {
        const bool isIt = event.request == request;
        if (isIt) {
            Print(watch.Session(), event);
            isAnswered = event.kind != PARVANE_EVENT_FAILED;
        }
        return !isIt;
    });
    return isAnswered;
}

} // namespace

int main(int argc, char **argv)
try {
    const std::string command = argc > 1 ? argv[1] : "";
    Watch watch;
    std::uint64_t request = 0;
    if (command == "list") {
        parvane_session_list(watch.Session(), 0, nullptr, &request);
        return Await(watch, request) ? 0 : 1;
    }
    if (command == "measure") {
        parvane_session_measure(watch.Session(), PARVANE_HEART_RATE, 0, nullptr, &request);
        return Await(watch, request) ? 0 : 1;
    }
    if (command == "follow" && argc > 2) {
        for (int sensor = PARVANE_ACTIVITY; sensor <= PARVANE_WORN; ++sensor) {
            parvane_session_follow(watch.Session(), sensor, 0, nullptr);
        }
        watch.Run(std::chrono::seconds(std::stoi(argv[2])), [&](const parvane_event &event) {
            Print(watch.Session(), event);
            return true;
        });
        return 0;
    }
    std::cerr << "usage: phone list | measure | follow SECONDS\n";
    return 1;
} catch (const std::exception &failure) {
    std::cerr << "phone: " << failure.what() << '\n';
    return 1;
}
