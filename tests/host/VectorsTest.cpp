#include "Vectors.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "WireCodec.h"

namespace ParvaneHost {
namespace {

using nlohmann::json;
using Parvane::Vectors::FromHex;
using Parvane::Vectors::Read;
using Parvane::Vectors::SentBy;

const std::map<std::string, Command> kRequests{{"list", Command::SensorList},
                                               {"measure", Command::MeasureOnce},
                                               {"start", Command::Start},
                                               {"stop", Command::Stop}};

Request RequestOf(const json &packet)
{
    Request request;
    request.mCommand = kRequests.at(packet.at("kind"));
    request.mFlags = packet.at("flags");
    request.mCodeBit = packet.at("code");
    if (request.mCommand != Command::SensorList) {
        request.mSensor = Sensor{packet.at("sensor").get<std::uint8_t>()};
    }
    if (request.mCommand == Command::Start) {
        request.mFormat = packet.at("format");
    }
    return request;
}

SensorListHeader HeaderOf(const json &packet)
{
    SensorListHeader header{.mFlags = packet.at("flags"), .mCount = packet.at("count")};
    if (!packet.at("address").is_null()) {
        const Bytes address = FromHex(packet.at("address"));
        std::copy(address.begin(), address.end(), header.mAddress.begin());
    }
    return header;
}

SensorEntry EntryOf(const json &packet)
{
    return {.mFlags = packet.at("flags"),
            .mPosition = packet.at("position"),
            .mSensor = Sensor{packet.at("sensor").get<std::uint8_t>()},
            .mAvailable = packet.at("available"),
            .mMaxRange = packet.at("largest"),
            .mResolution = packet.at("resolution"),
            .mMinValue = packet.at("smallest"),
            .mMinDelayMs = packet.at("delay_ms"),
            .mReserved = packet.at("reserved")};
}

Reply ReplyOf(const json &packet)
{
    const std::string kind = packet.at("kind");
    if (kind == "list-header") {
        return HeaderOf(packet);
    }
    if (kind == "entry") {
        return EntryOf(packet);
    }
    const std::uint8_t flags = packet.at("flags");
    const Sensor sensor{packet.at("sensor").get<std::uint8_t>()};
    if (kind == "stop-ack") {
        return StopAck{flags, sensor};
    }
    if (kind == "option") {
        return OptionReply{flags, sensor};
    }
    EXPECT_EQ(kind, "reading");
    return Reading{Command{packet.at("command").get<std::uint8_t>()}, flags, sensor,
                   packet.at("time_ms"), packet.at("value")};
}

TEST(VectorsTest, RequestsAreEncodedAsTheyStand)
{
    int encoded = 0;
    for (const json &vector : SentBy("phone")) {
        if (!vector.value("tolerated", false) && !vector.at("packet").is_null()) {
            EXPECT_EQ(Encode(RequestOf(vector.at("packet"))), FromHex(vector.at("bytes")))
                << vector.at("name");
            ++encoded;
        }
    }
    EXPECT_GT(encoded, 60);
}

TEST(VectorsTest, RepliesAreDecodedAsTheyStand)
{
    for (const json &vector : SentBy("watch")) {
        const auto decoded = Decode(FromHex(vector.at("bytes")));
        ASSERT_TRUE(decoded.Ok()) << vector.at("name") << ": " << decoded.GetError().Text();
        EXPECT_EQ(decoded.Value(), ReplyOf(vector.at("packet"))) << vector.at("name");
    }
}

TEST(VectorsTest, MalformedPacketsAreRefusedWithTheirError)
{
    const json malformed = Read("malformed.json");
    for (const json &vector : malformed.at("vectors")) {
        const auto decoded = Decode(FromHex(vector.at("bytes")));
        ASSERT_FALSE(decoded.Ok()) << vector.at("name");
        const DecodeError &error = decoded.GetError();
        EXPECT_EQ((json{{"offset", error.mOffset},
                        {"field", error.mField},
                        {"expected", error.mExpected},
                        {"found", error.mFound}}),
                  vector.at("error"))
            << vector.at("name");
    }
}

TEST(VectorsTest, TimesAreCompletedByAClockThatIsDaysOff)
{
    constexpr std::int64_t kDays = 24LL * 24 * 3600 * 1000;
    for (const json &vector : SentBy("watch")) {
        if (vector.contains("seconds")) {
            const std::int64_t timeMs = vector.at("seconds").get<std::int64_t>() * 1000;
            const std::uint32_t field = vector.at("packet").at("time_ms");
            EXPECT_EQ(FullTimeMs(field, timeMs + kDays), timeMs) << vector.at("name");
            EXPECT_EQ(FullTimeMs(field, timeMs - kDays), timeMs) << vector.at("name");
        }
    }
}

// --- completeness -------------------------------------------------------------------------------

TEST(VectorsTest, EveryRequestIsThereForEverySensorWithEachFlagAndFormat)
{
    std::set<std::pair<std::string, int>> named;
    std::set<int> flags;
    std::set<json> formats;
    for (const json &vector : SentBy("phone")) {
        const json &packet = vector.at("packet");
        if (packet.is_object()) {
            named.emplace(packet.at("kind"), packet.value("sensor", 0));
            flags.insert(packet.at("flags").get<int>());
            formats.insert(packet.value("format", json(0)));
        }
    }
    EXPECT_TRUE(named.count({"list", 0}));
    for (const std::string kind : {"measure", "start", "stop"}) {
        for (const int sensor : {1, 2, 3, 4}) {
            EXPECT_TRUE(named.count({kind, sensor})) << kind << " " << sensor;
        }
    }
    EXPECT_EQ(flags, (std::set<int>{0, 1, 2, 3}));
    EXPECT_EQ(formats, (std::set<json>{nullptr, 0, 1, 2, 3, 4, 5}));
}

TEST(VectorsTest, EveryReplyIsThereForEverySensor)
{
    std::set<std::pair<std::string, int>> named;
    std::set<int> commands;
    for (const json &vector : SentBy("watch")) {
        const json &packet = vector.at("packet");
        named.emplace(packet.at("kind"), packet.value("sensor", 0));
        commands.insert(FromHex(vector.at("bytes")).at(0) & WireFormat::kCommandMask);
    }
    EXPECT_TRUE(named.count({"list-header", 0}));
    for (const std::string kind : {"entry", "reading", "stop-ack", "option"}) {
        for (const int sensor : {1, 2, 3, 4}) {
            EXPECT_TRUE(named.count({kind, sensor})) << kind << " " << sensor;
        }
    }
    EXPECT_EQ(commands, (std::set<int>{1, 2, 3, 4, 5}));
}

/** What kind of error it is: of a field that has one value, the field; else what is allowed as well. */
std::string KindOf(const std::string &field, const std::string &expected)
{
    return expected.starts_with("0x") ? field : field + ": " + expected;
}

/** Every error that the decoder makes of a packet with one byte changed, cut short, or not finite. */
void AddErrors(const Bytes &packet, std::set<std::string> &kinds)
{
    const auto add = [&kinds](const Bytes &changed) {
        if (const auto decoded = Decode(changed); !decoded) {
            kinds.insert(KindOf(decoded.GetError().mField, decoded.GetError().mExpected));
        }
    };
    for (std::size_t offset = 0; offset < packet.size(); ++offset) {
        add(Bytes(packet.begin(), packet.begin() + static_cast<std::ptrdiff_t>(offset)));
        for (unsigned value = 0; value < 256; ++value) {
            Bytes changed = packet;
            changed[offset] = static_cast<std::uint8_t>(value);
            add(changed);
        }
        Bytes changed = packet;
        changed[offset] = 0x7F;
        changed[std::min(offset + 1, packet.size() - 1)] = 0xC0;
        add(changed);
    }
}

TEST(VectorsTest, EveryErrorOfTheDecoderIsThere)
{
    std::map<std::string, Bytes> packets; // one of each kind
    for (const json &vector : SentBy("watch")) {
        packets[vector.at("packet").at("kind")] = FromHex(vector.at("bytes"));
    }
    std::set<std::string> kinds;
    for (const auto &[kind, packet] : packets) {
        AddErrors(packet, kinds);
    }
    std::set<std::string> there;
    const json malformed = Read("malformed.json");
    for (const json &vector : malformed.at("vectors")) {
        there.insert(KindOf(vector.at("error").at("field"), vector.at("error").at("expected")));
    }

    EXPECT_EQ(there, kinds);
    EXPECT_GE(kinds.size(), 23U);
}

/** Every packet of the vectors, as it is printed. */
std::set<std::string> AllPrinted()
{
    std::set<std::string> printed;
    for (const std::string from : {"phone", "watch"}) {
        for (const json &vector : SentBy(from)) {
            printed.insert(vector.at("bytes"));
        }
    }
    return printed;
}

TEST(VectorsTest, EveryPacketOfThePageIsThere)
{
    std::ifstream page(PARVANE_SOURCE_FOLDER "/docs/wire-format.md");
    const std::set<std::string> printed = AllPrinted();
    const std::regex bytes("\\b[0-9A-F]{2}( [0-9A-F]{2}){3,}\\b");
    bool inBlock = false;
    int found = 0;
    for (std::string line; std::getline(page, line);) {
        inBlock = inBlock != line.starts_with("```");
        for (std::sregex_iterator run(line.begin(), line.end(), bytes), end; run != end; ++run) {
            // In running text it may also be a field of a packet.
            const auto isIt = [&run, inBlock](const std::string &packet) {
                return inBlock ? packet == run->str()
                               : packet.find(run->str()) != std::string::npos;
            };
            EXPECT_TRUE(std::any_of(printed.begin(), printed.end(), isIt)) << run->str();
            ++found;
        }
    }
    EXPECT_GT(found, 30);
}

TEST(VectorsTest, NamesAreUnique)
{
    for (const auto &[file, list] :
         std::map<std::string, std::string>{{"requests.json", "vectors"},
                                            {"replies.json", "vectors"},
                                            {"malformed.json", "vectors"},
                                            {"exchanges.json", "exchanges"}}) {
        std::set<std::string> names;
        const json whole = Read(file);
        for (const json &vector : whole.at(list)) {
            EXPECT_TRUE(names.insert(vector.at("name")).second)
                << file << ": " << vector.at("name");
        }
    }
}

// --- exchanges ----------------------------------------------------------------------------------

void ExpectAnswer(const json &reply, const json &request)
{
    ASSERT_EQ(request.at("from"), "phone");
    EXPECT_LE(request.at("at_ms"), reply.at("at_ms"));
    EXPECT_EQ(request.at("packet").value("sensor", 0),
              reply.at("packet").at("kind") == "entry" ? 0 : reply.at("packet").value("sensor", 0));
    EXPECT_EQ(request.at("packet").at("flags"), reply.at("packet").at("flags"));
}

/** The difference of two totals that follow each other is the count; after midnight the new total is. */
void ExpectCount(std::int64_t before, const json &event)
{
    const auto total = event.at("packet").at("value").get<std::int64_t>();
    EXPECT_EQ(total < before ? total : total - before, event.at("count"));
}

void ExpectSound(const json &events)
{
    std::int64_t now = 0;
    std::int64_t total = 0;
    bool up = false;
    for (const json &event : events) {
        EXPECT_GE(event.at("at_ms"), now) << event;
        now = event.at("at_ms");
        if (event.contains("link")) {
            EXPECT_NE(up, event.at("link") == "up") << event;
            up = event.at("link") == "up";
            continue;
        }
        EXPECT_TRUE(up || event.contains("happens")) << event;
        if (event.contains("answers")) {
            ExpectAnswer(event, events.at(event.at("answers").get<std::size_t>()));
        }
        if (event.contains("count")) {
            ExpectCount(total, event);
        }
        if (event.value("from", "") == "watch" && event.at("packet").value("sensor", 0) == 2 &&
            event.at("packet").at("kind") == "reading") {
            total = event.at("packet").at("value").get<std::int64_t>();
        }
    }
}

TEST(VectorsTest, ExchangesHoldTogether)
{
    const json exchanges = Read("exchanges.json");
    EXPECT_GE(exchanges.at("exchanges").size(), 10U);
    for (const json &exchange : exchanges.at("exchanges")) {
        SCOPED_TRACE(exchange.at("name"));
        ExpectSound(exchange.at("events"));
    }
}

} // namespace
} // namespace ParvaneHost
