#include <array>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <parvane/host.h>
#include <string>

#include "Input.h"
#include "Require.h"

// The C interface of libparvane-host: a session is told anything, by anybody, in any order, with arguments
// that are not allowed among them. What comes back is what the header says.

using ParvaneFuzz::Input;
using ParvaneFuzz::Require;

namespace {

constexpr int kWorst = PARVANE_EFAILED;

/** A result that is 0 or says that an argument is not allowed. */
void RequireDoneOrInvalid(int result, bool isAllowed)
{
    Require(result == (isAllowed ? 0 : PARVANE_EINVAL),
            "what is allowed is done, and nothing else");
}

int SensorFrom(Input &input)
{
    constexpr std::array<int, 8> kSensors{1, 2, 3, 4, 0, 5, -1, std::numeric_limits<int>::max()};
    return kSensors.at(input.Byte() % kSensors.size());
}

bool IsSensor(int sensor)
{
    return sensor >= 1 && sensor <= 4;
}

void TakeEvents(parvane_session *session, Input &input)
{
    parvane_event event;
    std::memset(&event, 0x5A, sizeof event);
    const std::size_t size = input.Byte() % 2 == 0 ? sizeof event : input.Byte() % sizeof event;
    int told = 0;
    while ((told = parvane_session_next_event(session, &event, size)) > 0) {
        if (size < sizeof event) {
            continue;
        }
        Require(event.kind >= PARVANE_EVENT_LINKED && event.kind <= PARVANE_EVENT_NONSENSE,
                "a known event");
        Require(event.text != nullptr && std::strlen(event.text) < 10000, "a text");
        for (std::size_t i = 0; i < event.packet_count; ++i) {
            Require(event.packets[i].kind ==
                        (i == 0 ? PARVANE_PACKET_LIST_HEADER : PARVANE_PACKET_ENTRY),
                    "a list");
        }
        Require(event.reading.has_day == 0 || event.reading.day.steps >= 0,
                "steps are not negative");
    }
    Require(told == 0, "events end");
}

void TakePackets(parvane_session *session)
{
    std::array<std::uint8_t, PARVANE_MAX_REQUEST> bytes{};
    int size = 0;
    while ((size = parvane_session_next_packet(session, bytes.data(), bytes.size())) > 0) {
        Require(size == 4 || size == 5, "a request");
    }
    Require(size == 0, "packets end");
}

/** What is known of the steps is kept, and another session goes on with it. */
void Restore(parvane_session *session)
{
    const std::unique_ptr<char, void (*)(char *)> kept(parvane_session_save_steps(session),
                                                       parvane_free);
    Require(kept != nullptr, "the steps can be saved");
    parvane_options options{};
    options.size = sizeof options;
    options.has_zone = 1;
    options.steps = kept.get();
    parvane_session *again = nullptr;
    Require(parvane_session_new(&options, &again) == 0, "what was saved is restored");
    parvane_day one{};
    parvane_day other{};
    Require(parvane_session_days(session, &one, 1) == parvane_session_days(again, &other, 1) &&
                one.steps == other.steps,
            "with all its steps");
    parvane_session_free(again);
}

void DecodeAndEncode(Input &input)
{
    const auto bytes = input.Bytes();
    parvane_packet packet{};
    std::array<char, 40> why{};
    const int result = parvane_decode(bytes.data(), bytes.size(), &packet, sizeof packet,
                                      why.data(), input.Byte() % why.size());
    Require(result == 0 || result == PARVANE_EMALFORMED, "a packet or none");
    Require(why.back() == '\0', "the text ends where it may");
    std::array<std::uint8_t, PARVANE_MAX_REQUEST> encoded{};
    packet.kind = input.Byte() % 12;
    packet.flags = static_cast<std::int8_t>(input.Byte());
    packet.sensor = input.Int();
    packet.format = input.Int();
    const int size = parvane_encode(&packet, encoded.data(), input.Byte() % 7);
    Require(size == 4 || size == 5 || size == PARVANE_EINVAL || size == PARVANE_EROOM,
            "bytes or a reason");
}

void Act(parvane_session *session, Input &input, parvane_moment &now)
{
    const int sensor = SensorFrom(input);
    const auto number = static_cast<std::int16_t>(input.Number(2));
    switch (input.Byte() % 12) {
    case 0: {
        const auto run = input.Bytes();
        const std::string text(run.begin(), run.end());
        RequireDoneOrInvalid(parvane_session_connected(session, text.c_str(), &now), true);
        break;
    }
    case 1:
        RequireDoneOrInvalid(
            parvane_session_lost(session, number % 2 == 0 ? nullptr : "gone", &now), true);
        break;
    case 2: {
        const auto packet = input.Bytes();
        RequireDoneOrInvalid(parvane_session_take(session, packet.data(), packet.size(), &now),
                             true);
        break;
    }
    case 3:
        now.steady_us += std::int64_t{number & 0x7FFF} * 1000;
        now.wall_ms += std::int64_t{number} * 60000;
        RequireDoneOrInvalid(parvane_session_advance(session, &now), true);
        break;
    case 4:
        RequireDoneOrInvalid(parvane_session_measure(session, sensor, number, &now, nullptr),
                             IsSensor(sensor) && number >= 0);
        break;
    case 5:
        RequireDoneOrInvalid(parvane_session_list(session, number, &now, nullptr), number >= 0);
        break;
    case 6:
        RequireDoneOrInvalid(parvane_session_stop(session, sensor, number, &now, nullptr),
                             IsSensor(sensor) && number >= 0);
        break;
    case 7:
        RequireDoneOrInvalid(parvane_session_follow(session, sensor, number, &now),
                             IsSensor(sensor) && number >= 0);
        break;
    case 8:
        TakeEvents(session, input);
        break;
    case 9:
        TakePackets(session);
        break;
    case 10:
        Restore(session);
        break;
    default:
        parvane_free(parvane_session_latest_text(session, sensor, &now));
        DecodeAndEncode(input);
        break;
    }
    Require(parvane_session_timeout_ms(session, &now) >= -1, "a time-out");
    Require(parvane_session_wants_link(session) >= 0 && parvane_session_is_linked(session) >= 0,
            "yes or no");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Input input(data, size);
    parvane_options options{};
    options.size = input.Byte() % 4 == 0 ? input.Byte() : sizeof options;
    options.has_zone = 1;
    options.zone_offset_s = static_cast<std::int16_t>(input.Number(2)) * 4;
    options.trusts_link = input.Byte() % 2;
    options.counts_no_steps = input.Byte() % 2;
    options.first_flags = input.Byte() % 5;
    const auto stored = input.Bytes();
    const std::string steps(stored.begin(), stored.end());
    options.steps = steps.empty() ? nullptr : steps.c_str();
    parvane_session *session = nullptr;
    const int made = parvane_session_new(&options, &session);
    Require(options.size >= sizeof options || made == PARVANE_EINVAL,
            "a size of no version is refused");
    Require(made <= 0 && made >= kWorst && (made == 0) == (session != nullptr),
            "a session or a reason");
    parvane_moment now{0, 1769862896789};
    while (session != nullptr && !input.IsAtEnd()) {
        Act(session, input, now);
    }
    parvane_session_free(session);
    return 0;
}
