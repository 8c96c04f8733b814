#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <parvane/host.h>
#include <poll.h>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ScriptedWatch.h"
#include "Vectors.h"

namespace {

using nlohmann::json;
using Parvane::Vectors::Bytes;
using Parvane::Vectors::FromHex;
using Parvane::Vectors::SentBy;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

const std::map<std::string, int> kKinds{{"list", PARVANE_PACKET_LIST},
                                        {"measure", PARVANE_PACKET_MEASURE},
                                        {"start", PARVANE_PACKET_START},
                                        {"stop", PARVANE_PACKET_STOP},
                                        {"list-header", PARVANE_PACKET_LIST_HEADER},
                                        {"entry", PARVANE_PACKET_ENTRY},
                                        {"reading", PARVANE_PACKET_READING},
                                        {"stop-ack", PARVANE_PACKET_STOP_ACK},
                                        {"option", PARVANE_PACKET_OPTION}};

/** The packet of a vector. */
parvane_packet PacketOf(const json &vector)
{
    const json &from = vector.at("packet");
    parvane_packet packet{};
    packet.kind = kKinds.at(from.at("kind"));
    packet.command = from.value("command", 0);
    packet.flags = from.at("flags");
    packet.code = from.value("code", false) ? 1 : 0;
    packet.sensor = from.value("sensor", 0);
    const json format = from.value("format", json(0));
    packet.format = format.is_null() ? 255 : format.get<int>();
    if (from.value("address", json()).is_string()) {
        const Bytes address = FromHex(from.at("address"));
        std::copy(address.begin(), address.end(), packet.address);
        packet.has_address = 1;
    }
    packet.count = from.value("count", std::uint8_t{0});
    packet.position = from.value("position", std::uint8_t{0});
    packet.available = from.value("available", std::uint8_t{0});
    packet.reserved = from.value("reserved", std::int16_t{0});
    packet.delay_ms = from.value("delay_ms", 0);
    packet.largest = from.value("largest", 0.0F);
    packet.resolution = from.value("resolution", 0.0F);
    packet.smallest = from.value("smallest", 0.0F);
    packet.time_ms = from.value("time_ms", 0U);
    packet.value = from.value("value", 0.0F);
    return packet;
}

bool IsSame(const parvane_packet &one, const parvane_packet &other)
{
    return std::memcmp(&one, &other, sizeof one) == 0;
}

TEST(HostApiVectorsTest, RequestsAreEncodedAsTheyStand)
{
    int encoded = 0;
    for (const json &vector : SentBy("phone")) {
        if (vector.value("tolerated", false) || vector.at("packet").is_null()) {
            continue;
        }
        const parvane_packet packet = PacketOf(vector);
        std::array<std::uint8_t, PARVANE_MAX_REQUEST> bytes{};
        const int size = parvane_encode(&packet, bytes.data(), bytes.size());
        ASSERT_GT(size, 0) << vector.at("name");
        EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + size), FromHex(vector.at("bytes")))
            << vector.at("name");
        EXPECT_EQ(parvane_encode(&packet, bytes.data(), 3), PARVANE_EROOM);
        ++encoded;
    }
    EXPECT_GT(encoded, 60);
}

TEST(HostApiVectorsTest, RepliesAreDecodedAsTheyStand)
{
    int decoded = 0;
    for (const json &vector : SentBy("watch")) {
        const Bytes bytes = FromHex(vector.at("bytes"));
        parvane_packet packet{};
        ASSERT_EQ(parvane_decode(bytes.data(), bytes.size(), &packet, sizeof packet, nullptr, 0), 0)
            << vector.at("name");
        EXPECT_TRUE(IsSame(packet, PacketOf(vector))) << vector.at("name");
        ++decoded;
    }
    EXPECT_GT(decoded, 60);
}

TEST(HostApiVectorsTest, MalformedPacketsAreRefusedWithTheirError)
{
    const json malformed = Parvane::Vectors::Read("malformed.json");
    for (const json &vector : malformed.at("vectors")) {
        const Bytes bytes = FromHex(vector.at("bytes"));
        parvane_packet packet{};
        std::array<char, 300> why{};
        EXPECT_EQ(parvane_decode(bytes.data(), bytes.size(), &packet, sizeof packet, why.data(),
                                 why.size()),
                  PARVANE_EMALFORMED)
            << vector.at("name");
        EXPECT_THAT(why.data(), HasSubstr(vector.at("error").at("field").get<std::string>()));
        EXPECT_TRUE(IsSame(packet, parvane_packet{})) << "untouched";
    }
}

TEST(HostApiVectorsTest, TimesAreCompletedByAClockThatIsDaysOff)
{
    constexpr std::int64_t kDays = 24LL * 24 * 3600 * 1000;
    for (const json &vector : SentBy("watch")) {
        if (vector.contains("seconds")) {
            const std::int64_t timeMs = vector.at("seconds").get<std::int64_t>() * 1000;
            EXPECT_EQ(parvane_full_time_ms(vector.at("packet").at("time_ms"), timeMs + kDays),
                      timeMs);
        }
    }
}

struct FreeSession
{
    void operator()(parvane_session *session) const { parvane_session_free(session); }
};
using SessionPtr = std::unique_ptr<parvane_session, FreeSession>;

SessionPtr NewSession(const parvane_options &options)
{
    parvane_session *session = nullptr;
    EXPECT_EQ(parvane_session_new(&options, &session), 0);
    return SessionPtr(session);
}

/** In UTC, and on a link that counts at once. */
parvane_options Trusting()
{
    parvane_options options{};
    options.size = sizeof options;
    options.has_zone = 1;
    options.trusts_link = 1;
    return options;
}

void Name(parvane_options &options, const char *zone)
{
    options.has_zone = 0;
    options.zone = zone;
}

/** An exchange of the vectors; a session is the phone. */
class Exchange
{
public:
    explicit Exchange(const json &exchange)
        : mEvents(exchange.at("events")),
          mBeginsMs(exchange.at("begins").get<std::int64_t>() * 1000),
          mSession(NewSession(Trusting()))
    {}

    void Play()
    {
        for (std::size_t index = 0; index < mEvents.size(); ++index) {
            const json &event = mEvents.at(index);
            SCOPED_TRACE(event.dump());
            const std::int64_t atMs = event.at("at_ms");
            mNow = {atMs * 1000, mBeginsMs + atMs};
            parvane_session_advance(mSession.get(), &mNow);
            if (event.contains("link")) {
                event.at("link") == "up" ? parvane_session_connected(mSession.get(), nullptr, &mNow)
                                         : parvane_session_lost(mSession.get(), "lost", &mNow);
                mIsFirstTotal = true;
            } else if (event.value("from", "") == "phone" && event.at("packet").is_object()) {
                Ask(index, event.at("packet"));
            } else if (event.value("from", "") == "watch") {
                Hear(event);
            }
            See(event);
        }
    }

    int mAnswers = 0;
    int mWalked = 0;

private:
    void Ask(std::size_t index, const json &packet)
    {
        const std::string kind = packet.at("kind");
        const int sensor = packet.value("sensor", 0);
        std::uint64_t request = 0;
        int error = 0;
        if (kind == "list") {
            error = parvane_session_list(mSession.get(), 0, &mNow, &request);
        } else if (kind == "measure") {
            error = parvane_session_measure(mSession.get(), sensor, 0, &mNow, &request);
        } else if (kind == "stop") {
            error = parvane_session_stop(mSession.get(), sensor, 0, &mNow, &request);
        } else {
            return; // a start: a session sends its own, after a stop of its own
        }
        EXPECT_EQ(error, sensor > 4 || (sensor == 0 && kind != "list") ? PARVANE_EINVAL : 0);
        if (error == 0) {
            mRequests[index] = request;
        }
    }

    void Hear(const json &event)
    {
        const json &packet = event.at("packet");
        Bytes bytes = FromHex(event.at("bytes"));
        const bool isList = bytes.at(0) % 16 == 1;
        const auto flags = mFlags.find({bytes.at(0) % 16, isList ? 0 : packet.value("sensor", 0)});
        if (flags != mFlags.end()) {
            bytes.at(0) = static_cast<std::uint8_t>((bytes.at(0) & 0xCFU) | flags->second << 4);
        }
        const bool isTotal = packet.at("kind") == "reading" && packet.at("sensor") == 2;
        if (isTotal && !event.contains("count") && !mIsFirstTotal) {
            Take({}); // what does not tell its count follows something that was missed
        }
        mIsFirstTotal = mIsFirstTotal && !isTotal;
        Take(bytes);
        if (event.contains("walked")) {
            EXPECT_EQ(Steps(), event.at("walked"));
            ++mWalked;
        }
    }

    void Take(const Bytes &bytes)
    {
        EXPECT_EQ(parvane_session_take(mSession.get(), bytes.data(), bytes.size(), &mNow), 0);
    }

    [[nodiscard]] std::int64_t Steps() const
    {
        std::array<parvane_day, 32> days{};
        const int count = parvane_session_days(mSession.get(), days.data(), days.size());
        std::int64_t steps = 0;
        for (int i = 0; i < count; ++i) {
            steps += days.at(static_cast<std::size_t>(i)).steps;
        }
        return steps;
    }

    /** Each request ends once, with its last reply in the exchange. */
    void See(const json &event)
    {
        parvane_event told{};
        while (parvane_session_next_event(mSession.get(), &told, sizeof told) == 1) {
            EXPECT_TRUE(told.request == 0 || mEnded.insert(told.request).second);
        }
        std::array<std::uint8_t, PARVANE_MAX_REQUEST> sent{};
        while (parvane_session_next_packet(mSession.get(), sent.data(), sent.size()) > 0) {
            const int command = sent.at(0) % 16;
            mFlags[{command, command == 1 ? 0 : sent.at(3)}] = sent.at(0) / 16U % 4U;
        }
        const bool isLast = std::count_if(mEvents.begin(), mEvents.end(), [&event](const json &e) {
                                return e.value("answers", -1) == event.value("answers", -1) &&
                                       e.at("at_ms") >= event.at("at_ms");
                            }) == 1;
        const auto request = mRequests.find(event.value("answers", mEvents.size()));
        if (request != mRequests.end() && isLast && event.at("packet").value("sensor", 0) != 2) {
            EXPECT_TRUE(mEnded.count(request->second)) << request->second;
            ++mAnswers;
        }
    }

    const json &mEvents;
    std::int64_t mBeginsMs;
    SessionPtr mSession;
    parvane_moment mNow{};
    std::map<std::size_t, std::uint64_t> mRequests; // by the event of the exchange
    std::map<std::pair<int, int>, unsigned> mFlags; // last sent, by command and sensor
    std::set<std::uint64_t> mEnded;
    bool mIsFirstTotal = true;
};

TEST(HostApiVectorsTest, EachExchangeIsWhatItSays)
{
    int answers = 0;
    int walked = 0;
    const json exchanges = Parvane::Vectors::Read("exchanges.json");
    for (const json &exchange : exchanges.at("exchanges")) {
        SCOPED_TRACE(exchange.at("name"));
        Exchange played(exchange);
        played.Play();
        answers += played.mAnswers;
        walked += played.mWalked;
    }
    EXPECT_GT(answers, 15);
    EXPECT_GT(walked, 15);
}

TEST(HostApiTest, ADayBeginsByTheZoneThatIsNamedInSummerAndInWinter)
{
    constexpr std::int64_t kHour = 3600;
    constexpr std::int64_t kWinter = 20473;         // days until 2026-01-20
    constexpr std::int64_t kSummer = kWinter + 181; // 2026-07-20
    const auto dateAt = [](const char *zone, std::int64_t seconds) {
        parvane_options options = Trusting();
        Name(options, zone);
        const SessionPtr session = NewSession(options);
        const parvane_moment now{0, seconds * 1000};
        parvane_session_connected(session.get(), nullptr, &now);
        const auto time = static_cast<std::uint32_t>(seconds * 1000);
        for (int query = 0; query < 2; ++query) { // a total of 4, twice: a count of 0
            const std::array<std::uint8_t, 18> packet{0x12,
                                                      0,
                                                      0x0E,
                                                      2,
                                                      0x11,
                                                      0,
                                                      0,
                                                      0,
                                                      0,
                                                      static_cast<std::uint8_t>(time >> 24U),
                                                      static_cast<std::uint8_t>(time >> 16U),
                                                      static_cast<std::uint8_t>(time >> 8U),
                                                      static_cast<std::uint8_t>(time),
                                                      0x40,
                                                      0x80,
                                                      0,
                                                      0,
                                                      0};
            EXPECT_EQ(parvane_session_take(session.get(), packet.data(), packet.size(), &now), 0);
        }
        std::array<parvane_day, 3> days{};
        const int count = parvane_session_days(session.get(), days.data(), days.size());
        return count == 1 ? days.front().date : -count;
    };
    for (const auto &[zone, winter, summer] :
         {std::tuple{"Europe/Zurich", 23, 22}, {"America/New_York", 5, 4}, {"UTC", 24, 24}}) {
        for (const auto &[day, hour] : {std::pair{kWinter, winter}, {kSummer, summer}}) {
            const std::int64_t midnight = day * 24 * kHour + hour * kHour;
            const std::int64_t date = hour > 12 ? day : day - 1;
            EXPECT_EQ(dateAt(zone, midnight - 60), date) << zone;
            EXPECT_EQ(dateAt(zone, midnight + 60), date + 1) << zone;
        }
    }
}

// --- arguments ----------------------------------------------------------------------------------

TEST(HostApiTest, NullHandlesAreRefusedAndNullIsFreed)
{
    parvane_event event{};
    parvane_reading reading{};
    std::array<std::uint8_t, PARVANE_MAX_REQUEST> bytes{};
    EXPECT_EQ(parvane_session_new(nullptr, nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_connected(nullptr, nullptr, nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_lost(nullptr, nullptr, nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_take(nullptr, bytes.data(), 1, nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_advance(nullptr, nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_wants_link(nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_is_linked(nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_next_packet(nullptr, bytes.data(), 5), PARVANE_EINVAL);
    EXPECT_LT(parvane_session_timeout_ms(nullptr, nullptr), 0);
    EXPECT_EQ(parvane_session_measure(nullptr, 1, 0, nullptr, nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_list(nullptr, 0, nullptr, nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_stop(nullptr, 1, 0, nullptr, nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_follow(nullptr, 1, 0, nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_next_event(nullptr, &event, sizeof event), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_latest(nullptr, 1, &reading, sizeof reading), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_latest_text(nullptr, 1, nullptr), nullptr);
    EXPECT_EQ(parvane_session_days(nullptr, nullptr, 0), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_save_steps(nullptr), nullptr);
    EXPECT_EQ(parvane_watch_new("/x", nullptr, nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_watch_session(nullptr), nullptr);
    EXPECT_LT(parvane_watch_fd(nullptr), 0);
    EXPECT_EQ(parvane_watch_poll_events(nullptr), POLLIN);
    EXPECT_LT(parvane_watch_timeout_ms(nullptr), 0);
    EXPECT_EQ(parvane_watch_process(nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_encode(nullptr, bytes.data(), 5), PARVANE_EINVAL);
    EXPECT_EQ(parvane_decode(nullptr, 1, nullptr, 0, nullptr, 0), PARVANE_EINVAL);
    parvane_session_free(nullptr);
    parvane_watch_free(nullptr);
    parvane_free(nullptr);
}

TEST(HostApiTest, ArgumentsThatAreNotAllowedChangeNothing)
{
    const SessionPtr session = NewSession(Trusting());
    std::uint64_t request = 77;
    for (const int sensor : {-1, 0, 5, 256, std::numeric_limits<int>::max()}) {
        EXPECT_EQ(parvane_session_measure(session.get(), sensor, 0, nullptr, &request),
                  PARVANE_EINVAL);
        EXPECT_EQ(parvane_session_stop(session.get(), sensor, 0, nullptr, &request),
                  PARVANE_EINVAL);
        EXPECT_EQ(parvane_session_follow(session.get(), sensor, 0, nullptr), PARVANE_EINVAL);
    }
    EXPECT_EQ(parvane_session_measure(session.get(), 3, -1, nullptr, &request), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_follow(session.get(), 3, -1, nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_take(session.get(), nullptr, 1, nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_days(session.get(), nullptr, 1), PARVANE_EINVAL);
    EXPECT_EQ(request, 77U);
    parvane_session_connected(session.get(), nullptr, nullptr);
    std::array<std::uint8_t, PARVANE_MAX_REQUEST> bytes{};
    EXPECT_EQ(parvane_session_next_packet(session.get(), bytes.data(), bytes.size()), 0);

    parvane_session *made = nullptr;
    for (const auto change :
         {+[](parvane_options &options) { options.size = 1; },
          // Half a pointer is none.
          +[](parvane_options &options) { options.size = offsetof(parvane_options, steps) + 2; },
          +[](parvane_options &options) { options.size = offsetof(parvane_options, zone) + 3; },
          +[](parvane_options &options) { options.first_flags = 4; },
          +[](parvane_options &options) { options.timeout_ms = -1; },
          +[](parvane_options &options) { options.zone = "Europe/Zurich"; }, // and has_zone
          +[](parvane_options &options) { Name(options, ""); },
          +[](parvane_options &options) { Name(options, "Europe"); },
          +[](parvane_options &options) { Name(options, "Europe/Nowhere"); },
          +[](parvane_options &options) { Name(options, "/usr/share/zoneinfo/UTC"); },
          +[](parvane_options &options) { Name(options, "Europe/../UTC"); },
          +[](parvane_options &options) { options.zone_offset_s = 86401; }}) {
        parvane_options options = Trusting();
        change(options);
        EXPECT_EQ(parvane_session_new(&options, &made), PARVANE_EINVAL);
    }
    parvane_options damaged = Trusting();
    damaged.steps = "damaged";
    EXPECT_EQ(parvane_session_new(&damaged, &made), PARVANE_EMALFORMED);
    parvane_options noZone = Trusting();
    Name(noZone, "zone.tab"); // which lies there, too
    EXPECT_EQ(parvane_session_new(&noZone, &made), PARVANE_EMALFORMED);
    EXPECT_EQ(made, nullptr);
    parvane_watch *watch = nullptr;
    EXPECT_EQ(parvane_watch_new("", nullptr, &watch), PARVANE_EINVAL);
    EXPECT_EQ(parvane_watch_new(std::string(108, 'x').c_str(), nullptr, &watch), PARVANE_EINVAL);
    EXPECT_EQ(watch, nullptr);
}

TEST(HostApiTest, APacketThatNoPhoneSendsIsNotEncoded)
{
    std::array<std::uint8_t, PARVANE_MAX_REQUEST> bytes{};
    parvane_packet packet{};
    packet.kind = PARVANE_PACKET_MEASURE;
    packet.sensor = 3;
    ASSERT_EQ(parvane_encode(&packet, bytes.data(), bytes.size()), 4);
    for (const auto change : {+[](parvane_packet &wrong) { wrong.kind = PARVANE_PACKET_READING; },
                              +[](parvane_packet &wrong) { wrong.kind = 0; },
                              +[](parvane_packet &wrong) { wrong.flags = 4; },
                              +[](parvane_packet &wrong) { wrong.code = 2; },
                              +[](parvane_packet &wrong) { wrong.sensor = -1; },
                              +[](parvane_packet &wrong) { wrong.format = 256; }}) {
        parvane_packet wrong = packet;
        change(wrong);
        EXPECT_EQ(parvane_encode(&wrong, bytes.data(), bytes.size()), PARVANE_EINVAL);
    }
}

TEST(HostApiTest, ACallerOfAnEarlierVersionGetsWhatItKnows)
{
    const SessionPtr session = NewSession(Trusting());
    parvane_session_connected(session.get(), nullptr, nullptr);
    parvane_event event;
    std::memset(&event, 0x5A, sizeof event);
    EXPECT_EQ(parvane_session_next_event(session.get(), &event, offsetof(parvane_event, text)), 1);
    EXPECT_EQ(event.kind, PARVANE_EVENT_LINKED);
    std::array<char, sizeof(event.text)> untouched{};
    std::memcpy(untouched.data(), &event.text, untouched.size());
    EXPECT_THAT(untouched, testing::Each(0x5A));
}

TEST(HostApiTest, ErrorsAndSensorsHaveTexts)
{
    EXPECT_STREQ(parvane_error_text(PARVANE_EINVAL), "an argument is not allowed");
    EXPECT_STREQ(parvane_error_text(0), "no error");
    EXPECT_STREQ(parvane_error_text(-99), "an unknown error");
    EXPECT_STREQ(parvane_sensor_name(PARVANE_HEART_RATE), "hr");
    EXPECT_STREQ(parvane_sensor_name(-7), "unknown");
    EXPECT_STREQ(parvane_host_version(), PARVANE_VERSION);
}

TEST(HostApiTest, StepsGoOnInALaterSession)
{
    const auto take = [](parvane_session *session, const char *hex, std::int64_t seconds) {
        const parvane_moment now{seconds * 1000000, 1000000 + seconds * 1000};
        const Bytes bytes = FromHex(hex);
        EXPECT_EQ(parvane_session_take(session, bytes.data(), bytes.size(), &now), 0);
    };
    parvane_options options = Trusting();
    const SessionPtr first = NewSession(options);
    parvane_session_connected(first.get(), "run-1", nullptr);
    take(first.get(), "12 00 0E 02 11 00 00 00 00 00 0F 42 40 00 00 00 00 00", 0); // 0
    take(first.get(), "12 00 0E 02 11 00 00 00 00 00 0F 46 28 41 20 00 00 00", 1); // 10
    take(first.get(), "12 00 0E 02 11 00 00 00 00 00 0F 4A 10 42 0C 00 00 00", 2); // 35
    const std::unique_ptr<char, void (*)(char *)> kept(parvane_session_save_steps(first.get()),
                                                       parvane_free);
    ASSERT_NE(kept, nullptr);

    options.steps = kept.get();
    const SessionPtr second = NewSession(options);
    parvane_day day{};
    EXPECT_EQ(parvane_session_days(second.get(), &day, 1), 1);
    EXPECT_EQ(day.steps, 15); // 10 of 25: the first count that is known is 10
    parvane_session_connected(second.get(), "run-1", nullptr);
    take(second.get(), "12 00 0E 02 11 00 00 00 00 00 0F 4A 10 42 70 00 00 00", 3); // 60
    take(second.get(), "12 00 0E 02 11 00 00 00 00 00 0F 4A 10 42 AC 00 00 00", 4); // 86: 26
    EXPECT_EQ(parvane_session_days(second.get(), &day, 1), 1);
    EXPECT_EQ(day.steps, 16);
}

// --- a watch ------------------------------------------------------------------------------------

/** A watch of the library, and the service that a test dictates. */
class HostApiWatchTest : public testing::Test
{
protected:
    HostApiWatchTest()
    {
        parvane_options options = Trusting();
        EXPECT_EQ(parvane_watch_new(mService.Path().c_str(), &options, &mWatch), 0);
        mSession = parvane_watch_session(mWatch);
    }
    ~HostApiWatchTest() override { parvane_watch_free(mWatch); }

    /** Carries on until there is an event; its kind, 0 for none in two seconds. */
    int Next()
    {
        for (int i = 0; i < 200; ++i) {
            EXPECT_EQ(parvane_watch_process(mWatch), 0);
            if (parvane_session_next_event(mSession, &mEvent, sizeof mEvent) == 1) {
                return mEvent.kind;
            }
            pollfd link{parvane_watch_fd(mWatch), parvane_watch_poll_events(mWatch), 0};
            const int timeout = parvane_watch_timeout_ms(mWatch);
            poll(&link, 1, timeout < 0 ? 10 : std::min(timeout, 10));
        }
        return 0;
    }

    ParvaneHost::ScriptedWatch mService;
    parvane_watch *mWatch = nullptr;
    parvane_session *mSession = nullptr;
    parvane_event mEvent{};
};

TEST_F(HostApiWatchTest, ARequestIsSentAndAnsweredInAPollLoop)
{
    EXPECT_EQ(parvane_watch_fd(mWatch), -1);
    EXPECT_EQ(parvane_watch_timeout_ms(mWatch), 0) << "a link is to be made";
    EXPECT_EQ(Next(), PARVANE_EVENT_LINKED);
    EXPECT_GE(parvane_watch_fd(mWatch), 0);
    EXPECT_EQ(parvane_watch_timeout_ms(mWatch), -1);
    mService.Accept();

    std::uint64_t request = 0;
    EXPECT_EQ(parvane_session_measure(mSession, PARVANE_ACTIVITY, 0, nullptr, &request), 0);
    EXPECT_EQ(parvane_watch_timeout_ms(mWatch), 0) << "it is to be sent";
    EXPECT_EQ(parvane_watch_process(mWatch), 0);
    EXPECT_GT(parvane_watch_timeout_ms(mWatch), 4000);
    EXPECT_EQ(mService.Receive(), (Bytes{0x12, 0x00, 0x00, 0x01}));
    mService.Send(FromHex("12 00 0E 01 11 00 00 00 00 00 0F 42 40 40 00 00 00 00"));
    EXPECT_EQ(Next(), PARVANE_EVENT_READING);
    EXPECT_EQ(mEvent.request, request);
    EXPECT_EQ(mEvent.sensor, PARVANE_ACTIVITY);
    EXPECT_EQ(mEvent.reading.value, 2.0F);
    const std::unique_ptr<char, void (*)(char *)> text(
        parvane_session_latest_text(mSession, PARVANE_ACTIVITY, nullptr), parvane_free);
    EXPECT_THAT(text.get(), StartsWith("running, "));
}

TEST_F(HostApiWatchTest, ALinkThatIsLostIsToldAndMadeAgain)
{
    EXPECT_EQ(Next(), PARVANE_EVENT_LINKED);
    mService.Accept();
    EXPECT_EQ(parvane_session_measure(mSession, PARVANE_HEART_RATE, 0, nullptr, nullptr), 0);
    EXPECT_EQ(parvane_watch_process(mWatch), 0);
    mService.Receive();
    mService.HangUp();

    EXPECT_EQ(Next(), PARVANE_EVENT_LOST);
    EXPECT_STRNE(mEvent.text, "");
    EXPECT_EQ(parvane_watch_fd(mWatch), -1);
    EXPECT_EQ(Next(), PARVANE_EVENT_FAILED);
    EXPECT_EQ(mEvent.failure, PARVANE_LINK_LOST);
    EXPECT_THAT(mEvent.text, HasSubstr("the link was lost before the answer to"));
    EXPECT_EQ(Next(), PARVANE_EVENT_LINKED);
}

TEST_F(HostApiWatchTest, AWatchThatIsNotThereIsAnAttemptThatFailed)
{
    parvane_watch *away = nullptr;
    ASSERT_EQ(parvane_watch_new("/nowhere/link.sock", nullptr, &away), 0);
    EXPECT_EQ(parvane_watch_process(away), 0);
    parvane_session *session = parvane_watch_session(away);
    EXPECT_EQ(parvane_session_next_event(session, &mEvent, sizeof mEvent), 1);
    EXPECT_EQ(mEvent.kind, PARVANE_EVENT_ATTEMPT_FAILED);
    EXPECT_THAT(mEvent.text, HasSubstr("cannot connect to /nowhere/link.sock"));
    EXPECT_EQ(mEvent.pause_ms, 100);
    EXPECT_GT(parvane_watch_timeout_ms(away), 0);
    EXPECT_EQ(parvane_session_is_linked(session), 0);
    parvane_watch_free(away);
}

TEST_F(HostApiWatchTest, TheSessionOfAWatchIsCarriedOnByTheWatchAlone)
{
    std::array<std::uint8_t, PARVANE_MAX_REQUEST> bytes{};
    EXPECT_EQ(parvane_session_connected(mSession, nullptr, nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_lost(mSession, nullptr, nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_take(mSession, bytes.data(), 1, nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_advance(mSession, nullptr), PARVANE_EINVAL);
    EXPECT_EQ(parvane_session_next_packet(mSession, bytes.data(), bytes.size()), PARVANE_EINVAL);
    parvane_session_free(mSession); // is the watch's to free
    EXPECT_EQ(Next(), PARVANE_EVENT_LINKED);
}

TEST_F(HostApiWatchTest, RequestsWaitForRoomAndAreSentInTheEnd)
{
    EXPECT_EQ(Next(), PARVANE_EVENT_LINKED);
    mService.Accept();
    // A session asks each question once at a time, so each is given up before the next one.
    int sent = 0;
    while (parvane_watch_poll_events(mWatch) == POLLIN && sent < 10000) {
        parvane_session_measure(mSession, PARVANE_HEART_RATE, 1, nullptr, nullptr);
        parvane_watch_process(mWatch);
        ++sent;
        while (parvane_session_next_event(mSession, &mEvent, sizeof mEvent) == 1) {
        }
        std::this_thread::sleep_for(std::chrono::microseconds(1100));
        parvane_watch_process(mWatch); // which gives it up
    }
    ASSERT_EQ(parvane_watch_poll_events(mWatch), POLLIN | POLLOUT) << sent;
    for (int i = 0; i < sent / 2; ++i) {
        mService.Receive();
    }
    parvane_watch_process(mWatch);
    EXPECT_EQ(parvane_watch_poll_events(mWatch), POLLIN);
}

} // namespace
