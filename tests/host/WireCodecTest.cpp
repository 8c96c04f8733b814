#include "WireCodec.h"

#include <array>
#include <cstring>
#include <random>
#include <set>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Vectors.h"

namespace ParvaneHost {
namespace {

using Parvane::Vectors::Named;

const Bytes kReading = Named("replies.json", "heart rate 72, flags 1");
const Bytes kStopAck = Named("replies.json", "stop of the heart rate acknowledged, flags 1");
const Bytes kOptionReply = Named("replies.json", "option reply for the activity, flags 2");
const Bytes kListHeader = Named("replies.json", "list header, 4 sensors, flags 2");
const Bytes kEntry = Named("replies.json", "entry of the heart rate, flags 2");

/** Copies to the heap, where a sanitizer sees every read beyond the end. */
Result<Reply, DecodeError> DecodeExact(const Bytes &packet)
{
    const std::unique_ptr<std::uint8_t[]> copy(
        new std::uint8_t[packet.size()]); // NOLINT(modernize-make-unique)
    std::copy(packet.begin(), packet.end(), copy.get());
    return Decode({copy.get(), packet.size()});
}

Bytes With(Bytes packet, std::size_t offset, std::uint8_t value)
{
    packet.at(offset) = value;
    return packet;
}

// --- requests -----------------------------------------------------------------------------------

TEST(WireCodecTest, OnlyTwoBitsOfTheFlagsAreSent)
{
    EXPECT_EQ(Encode(Request::Stop(Sensor::Activity, 0xFF)), (Bytes{0x34, 0x00, 0x00, 0x01}));
}

TEST(WireCodecTest, ASensorListRequestNamesNoSensor)
{
    Request request = Request::SensorList(1);
    request.mSensor = Sensor::HeartRate;

    EXPECT_EQ(Encode(request), (Bytes{0x11, 0x00, 0x00, 0x00}));
}

/** What the watch reads out of a request: bytes 0 and 3, and byte 4 of a start. */
Request ReadAsTheWatchDoes(const Bytes &packet)
{
    Request request;
    request.mCommand = Command{static_cast<std::uint8_t>(packet.at(0) % 16)};
    request.mFlags = static_cast<std::uint8_t>(packet.at(0) / 16 % 4);
    request.mCodeBit = packet.at(0) / 64 % 2 == 1;
    request.mSensor =
        Sensor{request.mCommand == Command::SensorList ? std::uint8_t{0} : packet.at(3)};
    request.mFormat = request.mCommand == Command::Start ? packet.at(4) : std::uint8_t{0};
    return request;
}

TEST(WireCodecTest, EveryRequestIsReadBackAsItWas)
{
    for (const Command command : {Command::MeasureOnce, Command::Start, Command::Stop}) {
        for (unsigned rest = 0; rest < 4U * 2U * 6U * 256U; ++rest) {
            Request request;
            request.mCommand = command;
            request.mFlags = static_cast<std::uint8_t>(rest % 4);
            request.mCodeBit = rest / 4 % 2 == 1;
            request.mFormat =
                static_cast<std::uint8_t>(command == Command::Start ? rest / 8 % 6 : 0);
            request.mSensor = Sensor{static_cast<std::uint8_t>(rest / 48)};
            ASSERT_EQ(ReadAsTheWatchDoes(Encode(request)), request);
        }
    }
}

// --- damage -------------------------------------------------------------------------------------

TEST(WireCodecTest, TheTextOfAFaultNamesTheFieldTheOffsetAndWhatIsAllowed)
{
    EXPECT_EQ(DecodeExact({}).GetError().Text(),
              "packet size (offset 0): expected 4, 13, 18 or 25 bytes, found 0 bytes");
    EXPECT_EQ(DecodeExact(With(kStopAck, 1, 0x00)).GetError().Text(),
              "byte 1 of a stop acknowledgement (offset 1): expected 0x02, found 0x00");
}

TEST(WireCodecTest, EveryLengthWithEveryFirstByteOverConstantBytesIsAFault)
{
    for (const std::uint8_t filling : Bytes{0x00, 0xFF, 0x55}) {
        for (std::size_t size = 0; size <= 64; ++size) {
            for (unsigned first = 0; first < 256; ++first) {
                Bytes packet(size, filling);
                if (!packet.empty()) {
                    packet[0] = static_cast<std::uint8_t>(first);
                }
                const auto decoded = DecodeExact(packet);
                ASSERT_FALSE(decoded.Ok()) << size << " bytes, first " << first;
                ASSERT_LE(decoded.GetError().mOffset, size);
            }
        }
    }
}

/** The first bytes with which `packet` is a packet. */
std::set<unsigned> GoodFirstBytes(const Bytes &packet)
{
    std::set<unsigned> good;
    for (unsigned first = 0; first < 256; ++first) {
        if (DecodeExact(With(packet, 0, static_cast<std::uint8_t>(first)))) {
            good.insert(first);
        }
    }
    return good;
}

TEST(WireCodecTest, EachKindAllowsItsCommandAndAnyFlagsOnly)
{
    using testing::ElementsAre;
    EXPECT_THAT(GoodFirstBytes(kReading),
                ElementsAre(0x02, 0x03, 0x12, 0x13, 0x22, 0x23, 0x32, 0x33));
    EXPECT_THAT(GoodFirstBytes(kStopAck), ElementsAre(0x04, 0x14, 0x24, 0x34));
    EXPECT_THAT(GoodFirstBytes(kOptionReply), ElementsAre(0x05, 0x15, 0x25, 0x35));
    EXPECT_THAT(GoodFirstBytes(kListHeader), ElementsAre(0x81, 0x91, 0xA1, 0xB1));
    EXPECT_THAT(GoodFirstBytes(kEntry), ElementsAre(0x81, 0x91, 0xA1, 0xB1));
}

TEST(WireCodecTest, APacketCutShortOrLengthenedIsAFault)
{
    for (const Bytes &whole : {kReading, kStopAck, kOptionReply, kListHeader, kEntry}) {
        for (std::size_t size = 0; size <= 64; ++size) {
            Bytes packet = whole;
            packet.resize(size, 0);
            EXPECT_EQ(DecodeExact(packet).Ok(), size == whole.size()) << size << " bytes";
        }
    }
}

TEST(WireCodecTest, AllOtherChangesOfOneByteAreEitherAllowedOrFaults)
{
    const std::vector<std::pair<Bytes, std::set<std::size_t>>> fixed{
        {kReading, {1, 2, 4}},    {kStopAck, {1}},         {kOptionReply, {1, 2}},
        {kListHeader, {1, 2, 3}}, {kEntry, {2, 3, 4, 24}},
    };
    std::set<std::pair<std::size_t, std::size_t>> notFinite; // size and offset of what made it so
    for (const auto &[packet, offsets] : fixed) {
        for (std::size_t offset = 1; offset < packet.size(); ++offset) {
            for (unsigned value = 0; value < 256; ++value) {
                const auto byte = static_cast<std::uint8_t>(value);
                const auto decoded = DecodeExact(With(packet, offset, byte));
                if (!decoded && decoded.GetError().mExpected == "a finite number") {
                    EXPECT_THAT(value, testing::AnyOf(0x7F, 0xFF));
                    notFinite.emplace(packet.size(), offset);
                    continue;
                }
                EXPECT_EQ(decoded.Ok(), offsets.count(offset) == 0 || byte == packet[offset])
                    << packet.size() << " bytes, offset " << offset << ", value " << value;
            }
        }
    }
    // 42 90 of the reading becomes 7F 90, and 3F 80 of the resolution 7F 80.
    EXPECT_THAT(notFinite, testing::ElementsAre(std::pair(18U, 13U), std::pair(25U, 10U)));
}

// --- round trips --------------------------------------------------------------------------------

/** Writes replies as docs/wire-format.md lays them out, independently of the library. */
struct ReplyWriter
{
    Bytes operator()(const SensorListHeader &header) const
    {
        Bytes packet = Start(0x81, header.mFlags, {0x80, 10, 3, 0, 0});
        packet.insert(packet.end(), header.mAddress.begin(), header.mAddress.end());
        packet.push_back(header.mCount);
        return packet;
    }

    Bytes operator()(const SensorEntry &entry) const
    {
        const auto id = static_cast<std::uint8_t>(entry.mSensor);
        Bytes packet = Start(
            0x81, entry.mFlags,
            {entry.mPosition, 21, static_cast<std::uint8_t>(id + 0x40), id, entry.mAvailable});
        AddFloat(packet, entry.mMaxRange);
        AddFloat(packet, entry.mResolution);
        AddFloat(packet, entry.mMinValue);
        AddWord(packet, static_cast<std::uint32_t>(entry.mMinDelayMs));
        packet.push_back(
            static_cast<std::uint8_t>(static_cast<std::uint16_t>(entry.mReserved) / 256));
        packet.push_back(
            static_cast<std::uint8_t>(static_cast<std::uint16_t>(entry.mReserved) % 256));
        packet.push_back(0);
        return packet;
    }

    Bytes operator()(const Reading &reading) const
    {
        Bytes packet = Start(static_cast<unsigned>(reading.mCommand), reading.mFlags,
                             {0, 14, static_cast<std::uint8_t>(reading.mSensor), 17, 0, 0, 0, 0});
        AddWord(packet, reading.mTimeFieldMs);
        AddFloat(packet, reading.mValue);
        packet.push_back(0);
        return packet;
    }

    Bytes operator()(const StopAck &acknowledgement) const
    {
        return Start(4, acknowledgement.mFlags,
                     {2, 0, static_cast<std::uint8_t>(acknowledgement.mSensor)});
    }

    Bytes operator()(const OptionReply &reply) const
    {
        return Start(5, reply.mFlags, {0, 2, static_cast<std::uint8_t>(reply.mSensor)});
    }

private:
    static Bytes Start(unsigned command, unsigned flags, const Bytes &rest)
    {
        Bytes packet{static_cast<std::uint8_t>(command + 16 * flags)};
        packet.insert(packet.end(), rest.begin(), rest.end());
        return packet;
    }

    static void AddWord(Bytes &packet, std::uint32_t word)
    {
        for (const unsigned shift : {24U, 16U, 8U, 0U}) {
            packet.push_back(static_cast<std::uint8_t>(word >> shift));
        }
    }

    static void AddFloat(Bytes &packet, float value)
    {
        std::uint32_t bits = 0;
        static_assert(sizeof(bits) == sizeof(value));
        std::memcpy(&bits, &value, sizeof(bits));
        AddWord(packet, bits);
    }
};

class ReplySource
{
public:
    Reply Next()
    {
        switch (mEngine() % 5) {
        case 0: {
            SensorListHeader header{.mFlags = Flags(), .mCount = Byte()};
            for (std::uint8_t &octet : header.mAddress) {
                octet = Byte();
            }
            return header;
        }
        case 1:
            return SensorEntry{.mFlags = Flags(),
                               .mPosition = Byte(),
                               .mSensor = Sensor{Byte()},
                               .mAvailable = Byte(),
                               .mMaxRange = Float(),
                               .mResolution = Float(),
                               .mMinValue = Float(),
                               .mMinDelayMs = static_cast<std::int32_t>(mEngine()),
                               .mReserved = static_cast<std::int16_t>(mEngine())};
        case 2:
            return Reading{.mCommand = mEngine() % 2 == 0 ? Command::MeasureOnce : Command::Start,
                           .mFlags = Flags(),
                           .mSensor = Sensor{Byte()},
                           .mTimeFieldMs = static_cast<std::uint32_t>(mEngine()),
                           .mValue = Float()};
        case 3:
            return StopAck{.mFlags = Flags(), .mSensor = Sensor{Byte()}};
        default:
            return OptionReply{.mFlags = Flags(), .mSensor = Sensor{Byte()}};
        }
    }

    std::uint8_t Byte() { return static_cast<std::uint8_t>(mEngine()); }

private:
    std::uint8_t Flags() { return static_cast<std::uint8_t>(mEngine() % 4); }
    float Float() { return static_cast<float>(static_cast<std::int32_t>(mEngine())) / 64.0F; }

    std::mt19937 mEngine{20240229}; // NOLINT(cert-msc51-cpp): the same sequence in every run
};

TEST(WireCodecTest, EveryReplyIsReadBackAsItWasWritten)
{
    ReplySource source;
    for (int round = 0; round < 20000; ++round) {
        const Reply reply = source.Next();
        const auto decoded = DecodeExact(std::visit(ReplyWriter{}, reply));
        ASSERT_TRUE(decoded.Ok()) << decoded.GetError().Text();
        ASSERT_EQ(decoded.Value(), reply);
    }
}

TEST(WireCodecTest, RandomBytesAreAFaultOrAPacketThatWritesTheSameMeaning)
{
    ReplySource source;
    int accepted = 0;
    for (int round = 0; round < 200000; ++round) {
        // Half of the packets begin well, so that the deeper checks are reached.
        Bytes packet =
            round % 2 == 0 ? std::visit(ReplyWriter{}, source.Next()) : Bytes(source.Byte() % 65U);
        const std::size_t from = round % 2 == 0 ? source.Byte() % packet.size() : 0;
        for (std::size_t offset = from; offset < packet.size(); ++offset) {
            packet[offset] = source.Byte();
        }
        const auto decoded = DecodeExact(packet);
        if (!decoded) {
            ASSERT_LE(decoded.GetError().mOffset, packet.size());
            ASSERT_FALSE(decoded.GetError().mExpected.empty());
            continue;
        }
        ++accepted;
        const Bytes again = std::visit(ReplyWriter{}, decoded.Value());
        ASSERT_EQ(again.size(), packet.size());
        ASSERT_EQ(DecodeExact(again).Value(), decoded.Value());
    }
    EXPECT_GT(accepted, 1000);
}

} // namespace
} // namespace ParvaneHost
