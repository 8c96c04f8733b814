#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>
#include <optional>
#include <parvane/host.h>
#include <string>
#include <utility>
#include <variant>

#include "Guard.h"
#include "RegularFile.h"
#include "SessionHandle.h"
#include "TimeZone.h"

using namespace ParvaneHost;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr int kInvalid = PARVANE_EINVAL;

bool IsSensor(int sensor)
{
    return sensor >= PARVANE_ACTIVITY && sensor <= PARVANE_WORN;
}

/** The options as far as the caller knows of them, the first version at least; the others are as usual. */
bool ReadOptions(const parvane_options *options, parvane_options &known)
{
    constexpr int kDay = 86400;
    if (options != nullptr) {
        constexpr std::size_t kFirstVersion =
            offsetof(parvane_options, zone) + sizeof options->zone;
        if (options->size < kFirstVersion) {
            return false;
        }
        std::memcpy(&known, options, std::min(options->size, sizeof known));
    }
    return known.first_flags >= 0 && known.first_flags <= WireFormat::kFlagsMask &&
           known.timeout_ms >= 0 && known.zone_offset_s >= -kDay && known.zone_offset_s <= kDay;
}

seconds SystemZone(std::chrono::sys_seconds instant)
{
    const auto time = static_cast<std::time_t>(instant.time_since_epoch().count());
    std::tm local{};
    return localtime_r(&time, &local) == nullptr ? seconds{0} : seconds{local.tm_gmtoff};
}

/** A path below the data base, and no way out of it. */
bool IsZoneName(const std::string &name)
{
    return !name.empty() && !name.starts_with('/') &&
           ("/" + name + "/").find("/../") == std::string::npos;
}

/** @return 0 or a PARVANE_E number */
int ReadNamedZone(const std::string &name, ZoneOffset &zone)
{
    constexpr std::size_t kMostBytes = 65536;
    const char *given = std::getenv("TZDIR");
    const std::string folder = given == nullptr ? "/usr/share/zoneinfo" : given;
    std::string content;
    if (!IsZoneName(name) ||
        Parvane::ReadWholeFile(folder + "/" + name, kMostBytes, content) != 0) {
        return kInvalid;
    }
    auto parsed = TimeZone::Parse(content);
    if (!parsed) {
        return PARVANE_EMALFORMED;
    }
    zone = [known = std::move(parsed).Value()](auto instant) { return known.OffsetAt(instant); };
    return 0;
}

/** @return 0 or a PARVANE_E number */
int ReadZone(const parvane_options &options, ZoneOffset &zone)
{
    zone = SystemZone;
    if (options.zone != nullptr) {
        return options.has_zone == 0 ? ReadNamedZone(options.zone, zone) : kInvalid;
    }
    if (options.has_zone != 0) {
        zone = [offset = seconds(options.zone_offset_s)](std::chrono::sys_seconds) {
            return offset;
        };
    }
    return 0;
}

SessionOptions OptionsOf(const parvane_options &options)
{
    SessionOptions session;
    session.mFirstFlags = static_cast<std::uint8_t>(std::max(options.first_flags, 1));
    if (options.timeout_ms > 0) {
        session.mTimeout = milliseconds(options.timeout_ms);
    }
    session.mProvesLink = options.trusts_link == 0;
    session.mCountsSteps = options.counts_no_steps == 0;
    return session;
}

std::optional<milliseconds> TimeoutOf(int timeoutMs)
{
    return timeoutMs > 0 ? std::optional(milliseconds(timeoutMs)) : std::nullopt;
}

int Worth(Worn worn)
{
    switch (worn) {
    case Worn::Yes:
        return PARVANE_WORN_YES;
    case Worn::No:
        return PARVANE_WORN_NO;
    case Worn::Unknown:
        break;
    }
    return PARVANE_WORN_UNKNOWN;
}

parvane_reading ReadingOf(const Observation &observation)
{
    parvane_reading reading{};
    reading.sensor = static_cast<int>(observation.mSensor);
    reading.value = observation.mValue;
    reading.at_ms = observation.mAt.time_since_epoch().count();
    reading.has_value = observation.IsMeasurement() ? 1 : 0;
    reading.worn = Worth(observation.mWorn);
    reading.is_unbroken = observation.mIsUnbroken ? 1 : 0;
    return reading;
}

parvane_day DayOf(std::chrono::local_days date, const DaySteps &steps)
{
    parvane_day day{};
    day.date = static_cast<int>(date.time_since_epoch().count());
    day.is_exact = steps.mIsExact ? 1 : 0;
    day.steps = steps.mSteps;
    day.since_ms = steps.mSince.time_since_epoch().count();
    day.until_ms = steps.mUntil.time_since_epoch().count();
    day.is_from_midnight = steps.mFromMidnight ? 1 : 0;
    day.has_lost = steps.mHasLost ? 1 : 0;
    return day;
}

int FailureOf(Failure::Reason reason)
{
    switch (reason) {
    case Failure::Reason::NoAnswer:
        return PARVANE_NO_ANSWER;
    case Failure::Reason::NotLinked:
        return PARVANE_NOT_LINKED;
    case Failure::Reason::LinkLost:
        return PARVANE_LINK_LOST;
    case Failure::Reason::Malformed:
        return PARVANE_MALFORMED;
    case Failure::Reason::Unsupported:
        return PARVANE_UNSUPPORTED;
    }
    return 0;
}

/** Tells an event; what it points to lies in the session. */
class EventTeller
{
public:
    EventTeller(parvane_session &session, parvane_event &event) : mSession(&session), mEvent(&event)
    {}

    void operator()(const Told::Linked & /*linked*/) const { mEvent->kind = PARVANE_EVENT_LINKED; }

    void operator()(const Told::Lost &lost) const
    {
        mEvent->kind = PARVANE_EVENT_LOST;
        Tell(lost.mWhy);
    }

    void operator()(const Told::AttemptFailed &failed) const
    {
        mEvent->kind = PARVANE_EVENT_ATTEMPT_FAILED;
        mEvent->pause_ms = static_cast<int>(failed.mPause.count());
        Tell(failed.mWhy);
    }

    void operator()(const Told::NewReading &told) const
    {
        mEvent->kind = PARVANE_EVENT_READING;
        mEvent->request = told.mRequest;
        mEvent->reading = ReadingOf(told.mObservation);
        mEvent->sensor = mEvent->reading.sensor;
        mEvent->reading.is_settled = told.mIsSettled ? 1 : 0;
        if (told.mWatchTime) {
            mEvent->reading.watch_ms = told.mWatchTime->time_since_epoch().count();
        }
        if (told.mSteps && told.mSteps->mSteps) {
            mEvent->reading.has_day = 1;
            mEvent->reading.day = DayOf(told.mSteps->mDate, *told.mSteps->mSteps);
        }
    }

    void operator()(const Told::NewList &told) const
    {
        mEvent->kind = PARVANE_EVENT_LIST;
        mEvent->request = told.mRequest;
        mSession->mPackets.push_back(PacketOf(told.mList.mHeader));
        for (const SensorEntry &entry : told.mList.mEntries) {
            mSession->mPackets.push_back(PacketOf(entry));
        }
        mEvent->packets = mSession->mPackets.data();
        mEvent->packet_count = mSession->mPackets.size();
    }

    void operator()(const Told::Stopped &stopped) const
    {
        mEvent->kind = PARVANE_EVENT_STOPPED;
        mEvent->request = stopped.mRequest;
        mEvent->sensor = static_cast<int>(stopped.mSensor);
    }

    void operator()(const Told::Failed &failed) const
    {
        mEvent->kind = PARVANE_EVENT_FAILED;
        mEvent->request = failed.mRequest;
        mEvent->sensor = failed.mSensor ? static_cast<int>(*failed.mSensor) : 0;
        Tell(failed.mWhy);
    }

    void operator()(const Told::Nonsense &nonsense) const
    {
        mEvent->kind = PARVANE_EVENT_NONSENSE;
        mSession->mText = nonsense.mText;
    }

private:
    void Tell(const Failure &why) const
    {
        mEvent->failure = FailureOf(why.mReason);
        mSession->mText = why.mText;
    }

    parvane_session *mSession;
    parvane_event *mEvent;
};

/** Does something with a session that is there, and is told what happens by the caller. */
template <typename Function>
int Happens(parvane_session *session, Function function) noexcept
{
    return Guarded([&] {
        if (session == nullptr || session->IsOfAWatch()) {
            return kInvalid;
        }
        function(*session->mSession);
        return 0;
    });
}

template <typename Function>
int Asks(parvane_session *session, int timeoutMs, uint64_t *request, Function function) noexcept
{
    return Guarded([&] {
        if (session == nullptr || timeoutMs < 0) {
            return kInvalid;
        }
        const RequestId id = function(*session->mSession);
        session->mIsAsked = true;
        if (request != nullptr) {
            *request = id;
        }
        return 0;
    });
}

} // namespace

namespace ParvaneHost {

Moment MomentOf(const parvane_moment *now) noexcept
{
    if (now != nullptr) {
        return {std::chrono::steady_clock::time_point(microseconds(now->steady_us)),
                Instant(milliseconds(now->wall_ms))};
    }
    return Now();
}

int ReadStart(const parvane_options *options, SessionOptions &session,
              std::optional<StepLedger> &ledger)
{
    parvane_options known{};
    if (!ReadOptions(options, known)) {
        return kInvalid;
    }
    session = OptionsOf(known);
    ZoneOffset zone;
    if (const int error = ReadZone(known, zone); error != 0) {
        return error;
    }
    if (known.steps == nullptr) {
        ledger.emplace(zone);
        return 0;
    }
    auto restored = StepLedger::Restore(known.steps, zone);
    if (!restored) {
        return PARVANE_EMALFORMED;
    }
    ledger.emplace(std::move(restored).Value());
    return 0;
}

} // namespace ParvaneHost

int parvane_session_new(const parvane_options *options, parvane_session **session) noexcept
{
    return Guarded([=] {
        SessionOptions known;
        std::optional<StepLedger> ledger;
        const int error = session == nullptr ? kInvalid : ReadStart(options, known, ledger);
        if (error == 0) {
            *session = std::make_unique<parvane_session>(known, *std::move(ledger)).release();
        }
        return error;
    });
}

void parvane_session_free(parvane_session *session) noexcept
{
    if (session != nullptr && !session->IsOfAWatch()) {
        delete session;
    }
}

int parvane_session_connected(parvane_session *session, const char *run,
                              const parvane_moment *now) noexcept
{
    return Happens(session, [=](Session &known) {
        known.Connected(MomentOf(now), run == nullptr ? "" : run);
    });
}

int parvane_session_lost(parvane_session *session, const char *why,
                         const parvane_moment *now) noexcept
{
    return Happens(session, [=](Session &known) {
        known.Lost(why == nullptr ? "the link is gone" : why, MomentOf(now));
    });
}

int parvane_session_take(parvane_session *session, const uint8_t *bytes, size_t size,
                         const parvane_moment *now) noexcept
{
    if (bytes == nullptr && size > 0) {
        return kInvalid;
    }
    return Happens(session, [=](Session &known) { known.Take({bytes, size}, MomentOf(now)); });
}

int parvane_session_advance(parvane_session *session, const parvane_moment *now) noexcept
{
    return Happens(session, [=](Session &known) { known.Advance(MomentOf(now)); });
}

int parvane_session_wants_link(const parvane_session *session) noexcept
{
    return session == nullptr ? kInvalid : int{session->mSession->WantsLink()};
}

int parvane_session_is_linked(const parvane_session *session) noexcept
{
    return session == nullptr ? kInvalid : int{session->mSession->IsLinked()};
}

int parvane_session_next_packet(parvane_session *session, uint8_t *bytes, size_t size) noexcept
{
    return Guarded([=] {
        if (session == nullptr || session->IsOfAWatch() || bytes == nullptr) {
            return kInvalid;
        }
        if (size < PARVANE_MAX_REQUEST) {
            return static_cast<int>(PARVANE_EROOM);
        }
        const auto packet = session->mSession->NextPacket();
        if (packet) {
            std::copy(packet->begin(), packet->end(), bytes);
        }
        return packet ? static_cast<int>(packet->size()) : 0;
    });
}

int parvane_session_timeout_ms(const parvane_session *session, const parvane_moment *now) noexcept
{
    if (session == nullptr) {
        return kInvalid;
    }
    const auto deadline = session->mSession->Deadline();
    if (!deadline) {
        return -1;
    }
    const auto present = now != nullptr ? MomentOf(now).mSteady : std::chrono::steady_clock::now();
    const auto left = std::chrono::ceil<milliseconds>(*deadline - present).count();
    return static_cast<int>(std::clamp<milliseconds::rep>(left, 0, INT_MAX));
}

int parvane_session_measure(parvane_session *session, int sensor, int timeout_ms,
                            const parvane_moment *now, uint64_t *request) noexcept
{
    if (!IsSensor(sensor)) {
        return kInvalid;
    }
    return Asks(session, timeout_ms, request, [=](Session &known) {
        return known.Measure(static_cast<Sensor>(sensor), MomentOf(now), TimeoutOf(timeout_ms));
    });
}

int parvane_session_list(parvane_session *session, int timeout_ms, const parvane_moment *now,
                         uint64_t *request) noexcept
{
    return Asks(session, timeout_ms, request,
                [=](Session &known) { return known.List(MomentOf(now), TimeoutOf(timeout_ms)); });
}

int parvane_session_stop(parvane_session *session, int sensor, int timeout_ms,
                         const parvane_moment *now, uint64_t *request) noexcept
{
    if (!IsSensor(sensor)) {
        return kInvalid;
    }
    return Asks(session, timeout_ms, request, [=](Session &known) {
        return known.Stop(static_cast<Sensor>(sensor), MomentOf(now), TimeoutOf(timeout_ms));
    });
}

int parvane_session_follow(parvane_session *session, int sensor, int every_ms,
                           const parvane_moment *now) noexcept
{
    return Guarded([=] {
        if (session == nullptr || !IsSensor(sensor) || every_ms < 0) {
            return kInvalid;
        }
        session->mSession->Follow(static_cast<Sensor>(sensor), MomentOf(now),
                                  milliseconds(every_ms));
        session->mIsAsked = true;
        return 0;
    });
}

int parvane_session_next_event(parvane_session *session, parvane_event *event, size_t size) noexcept
{
    return Guarded([=] {
        if (session == nullptr || event == nullptr) {
            return kInvalid;
        }
        const auto next = session->mSession->NextEvent();
        if (!next) {
            return 0;
        }
        parvane_event told{};
        session->mText.clear();
        session->mPackets.clear();
        std::visit(EventTeller(*session, told), *next);
        told.text = session->mText.c_str();
        CopyOut(told, event, size);
        return 1;
    });
}

int parvane_session_latest(const parvane_session *session, int sensor, parvane_reading *reading,
                           size_t size) noexcept
{
    return Guarded([=] {
        if (session == nullptr || reading == nullptr || !IsSensor(sensor)) {
            return kInvalid;
        }
        const auto latest = session->mSession->Latest(static_cast<Sensor>(sensor));
        if (!latest) {
            return 0;
        }
        CopyOut(ReadingOf(*latest), reading, size);
        return 1;
    });
}

char *parvane_session_latest_text(const parvane_session *session, int sensor,
                                  const parvane_moment *now) noexcept
{
    char *text = nullptr;
    Guarded([&] {
        const auto latest = session == nullptr || !IsSensor(sensor)
                                ? std::nullopt
                                : session->mSession->Latest(static_cast<Sensor>(sensor));
        text = latest ? NewText(latest->Text(MomentOf(now).mWall)) : nullptr;
        return 0;
    });
    return text;
}

int parvane_session_days(const parvane_session *session, parvane_day *days, size_t count) noexcept
{
    if (session == nullptr || (days == nullptr && count > 0)) {
        return kInvalid;
    }
    const auto &known = session->mSession->Steps().Days();
    const std::size_t left = known.size() > count ? known.size() - count : 0;
    auto from = std::next(known.begin(), static_cast<std::ptrdiff_t>(left));
    for (; days != nullptr && from != known.end(); ++from, ++days) {
        *days = DayOf(from->first, from->second);
    }
    return static_cast<int>(known.size());
}

char *parvane_session_save_steps(const parvane_session *session) noexcept
{
    char *text = nullptr;
    Guarded([&] {
        text = session == nullptr ? nullptr : NewText(session->mSession->Steps().Save());
        return 0;
    });
    return text;
}
