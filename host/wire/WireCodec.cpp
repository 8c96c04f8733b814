#include "WireCodec.h"

#include <algorithm>
#include <bit>
#include <concepts>
#include <optional>
#include <string_view>
#include <utility>

namespace ParvaneHost {

namespace {

using Packet = std::span<const std::uint8_t>;
using Fault = std::optional<DecodeError>;

std::string HexByte(std::uint8_t value)
{
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    return {'0', 'x', kDigits[value >> 4U], kDigits[value & 0x0FU]};
}

std::uint32_t ReadWord(Packet packet, std::size_t offset)
{
    std::uint32_t value = 0;
    for (const std::uint8_t byte : packet.subspan(offset, 4)) {
        value = (value << 8U) | byte;
    }
    return value;
}

std::int16_t ReadShort(Packet packet, std::size_t offset)
{
    return static_cast<std::int16_t>((packet[offset] << 8U) | packet[offset + 1]);
}

std::uint8_t FlagsOf(Packet packet)
{
    return static_cast<std::uint8_t>(packet[WireFormat::kHeaderOffset] >> WireFormat::kFlagsShift) &
           WireFormat::kFlagsMask;
}

std::uint8_t CommandOf(Packet packet)
{
    return packet[WireFormat::kHeaderOffset] & WireFormat::kCommandMask;
}

Fault ExpectByte(Packet packet, std::size_t offset, std::uint8_t expected, std::string_view field)
{
    if (packet[offset] == expected) {
        return std::nullopt;
    }
    return DecodeError{offset, std::string(field), HexByte(expected), HexByte(packet[offset])};
}

/** Bits 6 and 7 of byte 0: the first is never set in a reply, the second in list packets only. */
Fault ExpectHeaderBits(Packet packet, bool list)
{
    const std::uint8_t header = packet[WireFormat::kHeaderOffset];
    if ((header & WireFormat::kCodeBit) != 0) {
        return DecodeError{0, "header byte", "bit 6 clear", HexByte(header)};
    }
    if (((header & WireFormat::kListBit) != 0) != list) {
        return DecodeError{0, "header byte", list ? "bit 7 set" : "bit 7 clear", HexByte(header)};
    }
    return std::nullopt;
}

Fault WrongCommand(Packet packet, std::string_view expected)
{
    return DecodeError{0, "command", std::string(expected), std::to_string(CommandOf(packet))};
}

Fault ExpectCommand(Packet packet, Command expected, std::string_view text)
{
    return CommandOf(packet) == static_cast<std::uint8_t>(expected) ? std::nullopt
                                                                    : WrongCommand(packet, text);
}

/** Looks at the bits, so that no arithmetic ever sees what is not a number. */
Fault ExpectFinite(Packet packet, std::size_t offset, std::string_view field)
{
    constexpr std::uint32_t kExponent = 0x7F800000U;
    constexpr std::uint32_t kFraction = 0x007FFFFFU;
    const std::uint32_t bits = ReadWord(packet, offset);
    if ((bits & kExponent) != kExponent) {
        return std::nullopt;
    }
    return DecodeError{offset, std::string(field), "a finite number",
                       (bits & kFraction) != 0 ? "not a number" : "infinity"};
}

float ReadFloat(Packet packet, std::size_t offset)
{
    return std::bit_cast<float>(ReadWord(packet, offset));
}

/** The first fault of several checks, which all run: each looks only at bytes that are there. */
template <std::same_as<Fault>... Faults>
Fault FirstOf(Faults &&...faults)
{
    Fault first;
    ((first.has_value() ? void() : void(first = std::forward<Faults>(faults))), ...);
    return first;
}

Result<Reply, DecodeError> DecodeReading(Packet packet)
{
    namespace Layout = WireFormat::ReadingPacket;
    const std::uint8_t command = CommandOf(packet);
    const bool known = command == static_cast<std::uint8_t>(Command::MeasureOnce) ||
                       command == static_cast<std::uint8_t>(Command::Start);
    if (Fault fault = FirstOf(
            ExpectHeaderBits(packet, false),
            known ? std::nullopt : WrongCommand(packet, "2 (measure once) or 3 (start)"),
            ExpectByte(packet, WireFormat::kKindOffset, Layout::kKind, "byte 1 of a reading"),
            ExpectByte(packet, WireFormat::kLengthOffset, Layout::kLength, "length of a reading"),
            ExpectByte(packet, Layout::kMarkOffset, Layout::kMark, "byte 4 of a reading"),
            ExpectFinite(packet, Layout::kValueOffset, "value"))) {
        return *std::move(fault);
    }
    return Reply{Reading{.mCommand = Command{command},
                         .mFlags = FlagsOf(packet),
                         .mSensor = Sensor{packet[WireFormat::kSensorOffset]},
                         .mTimeFieldMs = ReadWord(packet, Layout::kTimeOffset),
                         .mValue = ReadFloat(packet, Layout::kValueOffset)}};
}

Result<Reply, DecodeError> DecodeFourBytes(Packet packet)
{
    if (Fault fault = ExpectHeaderBits(packet, false)) {
        return *std::move(fault);
    }
    const std::uint8_t flags = FlagsOf(packet);
    const Sensor sensor{packet[WireFormat::kSensorOffset]};
    switch (Command{CommandOf(packet)}) {
    case Command::Stop:
        if (Fault fault = ExpectByte(packet, WireFormat::kKindOffset, WireFormat::StopPacket::kKind,
                                     "byte 1 of a stop acknowledgement")) {
            return *std::move(fault);
        }
        return Reply{StopAck{.mFlags = flags, .mSensor = sensor}};
    case Command::Option:
        if (Fault fault = FirstOf(
                ExpectByte(packet, WireFormat::kKindOffset, WireFormat::OptionPacket::kKind,
                           "byte 1 of an option reply"),
                ExpectByte(packet, WireFormat::kLengthOffset, WireFormat::OptionPacket::kLength,
                           "length of an option reply"))) {
            return *std::move(fault);
        }
        return Reply{OptionReply{.mFlags = flags, .mSensor = sensor}};
    case Command::SensorList:
    case Command::MeasureOnce:
    case Command::Start:
        break;
    }
    return *WrongCommand(packet, "4 (stop) or 5 (option)");
}

Result<Reply, DecodeError> DecodeListHeader(Packet packet)
{
    namespace Layout = WireFormat::ListHeaderPacket;
    if (Fault fault = FirstOf(
            ExpectHeaderBits(packet, true),
            ExpectCommand(packet, Command::SensorList, "1 (sensor list)"),
            ExpectByte(packet, WireFormat::kKindOffset, Layout::kKind, "byte 1 of a list header"),
            ExpectByte(packet, WireFormat::kLengthOffset, Layout::kLength,
                       "length of a list header"),
            ExpectByte(packet, Layout::kMarkOffset, Layout::kMark, "byte 3 of a list header"))) {
        return *std::move(fault);
    }
    SensorListHeader header{.mFlags = FlagsOf(packet), .mCount = packet[Layout::kCountOffset]};
    const Packet address = packet.subspan(Layout::kAddressOffset, Layout::kAddressBytes);
    std::copy(address.begin(), address.end(), header.mAddress.begin());
    return Reply{header};
}

Result<Reply, DecodeError> DecodeSensorEntry(Packet packet)
{
    namespace Layout = WireFormat::SensorEntryPacket;
    const std::uint8_t sensor = packet[Layout::kSensorOffset];
    if (Fault fault = FirstOf(
            ExpectHeaderBits(packet, true),
            ExpectCommand(packet, Command::SensorList, "1 (sensor list)"),
            ExpectByte(packet, WireFormat::kLengthOffset, Layout::kLength,
                       "length of a sensor entry"),
            ExpectByte(packet, Layout::kMarkOffset,
                       static_cast<std::uint8_t>(sensor + Layout::kMarkBase),
                       "byte 3 of a sensor entry"),
            ExpectFinite(packet, Layout::kMaxRangeOffset, "range"),
            ExpectFinite(packet, Layout::kResolutionOffset, "resolution"),
            ExpectFinite(packet, Layout::kMinValueOffset, "smallest value"),
            ExpectByte(packet, Layout::kEndOffset, Layout::kEnd, "last byte of a sensor entry"))) {
        return *std::move(fault);
    }
    return Reply{SensorEntry{
        .mFlags = FlagsOf(packet),
        .mPosition = packet[Layout::kPositionOffset],
        .mSensor = Sensor{sensor},
        .mAvailable = packet[Layout::kAvailableOffset],
        .mMaxRange = ReadFloat(packet, Layout::kMaxRangeOffset),
        .mResolution = ReadFloat(packet, Layout::kResolutionOffset),
        .mMinValue = ReadFloat(packet, Layout::kMinValueOffset),
        .mMinDelayMs = static_cast<std::int32_t>(ReadWord(packet, Layout::kMinDelayOffset)),
        .mReserved = ReadShort(packet, Layout::kReservedOffset)}};
}

} // namespace

std::string DecodeError::Text() const
{
    return mField + " (offset " + std::to_string(mOffset) + "): expected " + mExpected +
           ", found " + mFound;
}

Bytes Encode(const Request &request)
{
    const bool starts = request.mCommand == Command::Start;
    Bytes packet(starts ? WireFormat::RequestPacket::kStartSize : WireFormat::RequestPacket::kSize,
                 0);
    const auto flags = static_cast<std::uint8_t>((request.mFlags & WireFormat::kFlagsMask)
                                                 << WireFormat::kFlagsShift);
    const std::uint8_t code = request.mCodeBit ? WireFormat::kCodeBit : std::uint8_t{0};
    packet[WireFormat::kHeaderOffset] =
        static_cast<std::uint8_t>(static_cast<std::uint8_t>(request.mCommand) | flags | code);
    if (request.mCommand != Command::SensorList) {
        packet[WireFormat::kSensorOffset] = static_cast<std::uint8_t>(request.mSensor);
    }
    if (starts) {
        packet[WireFormat::RequestPacket::kFormatOffset] = request.mFormat;
    }
    return packet;
}

Result<Reply, DecodeError> Decode(std::span<const std::uint8_t> packet)
{
    static_assert(WireFormat::StopPacket::kSize == WireFormat::OptionPacket::kSize);
    switch (packet.size()) {
    case WireFormat::StopPacket::kSize:
        return DecodeFourBytes(packet);
    case WireFormat::ListHeaderPacket::kSize:
        return DecodeListHeader(packet);
    case WireFormat::ReadingPacket::kSize:
        return DecodeReading(packet);
    case WireFormat::SensorEntryPacket::kSize:
        return DecodeSensorEntry(packet);
    default:
        return DecodeError{packet.size(), "packet size", "4, 13, 18 or 25 bytes",
                           std::to_string(packet.size()) + " bytes"};
    }
}

} // namespace ParvaneHost
