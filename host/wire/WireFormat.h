#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/**
 * Every number of the wire between the phone and the watch, written once for the phone's side.
 *
 * docs/wire-format.md is the contract that these numbers follow. Multi-byte values are big-endian.
 */
namespace ParvaneHost {

/** What a request asks for, and what a reply answers: the low four bits of byte 0. */
enum class Command : std::uint8_t {
    SensorList = 1,
    MeasureOnce = 2,
    Start = 3,
    Stop = 4,
    Option = 5, // replies only; the watch drops such a request
};

/** The id of a sensor. A packet may carry any byte here; values without a name are kept as they are. */
enum class Sensor : std::uint8_t {
    Activity = 1,
    Pedometer = 2,
    HeartRate = 3,
    WearState = 4,
};

/** The readings of Sensor::Activity, which travel as 0.0 to 3.0. */
enum class Activity : std::uint8_t {
    StillOrOther = 0,
    Walking = 1,
    Running = 2,
    WristGesture = 3,
};

namespace WireFormat {

inline constexpr std::string_view kProfileId = "/mirtala/sensor";
inline constexpr std::string_view kServiceName = "sensor_zolt";
inline constexpr std::uint16_t kChannelId = 143;
inline constexpr std::size_t kMaxMessageBytes = 65531;

// Byte 0 of every packet, in both directions.
inline constexpr std::uint8_t kCommandMask = 0x0F;
inline constexpr unsigned kFlagsShift = 4;
inline constexpr std::uint8_t kFlagsMask = 0x03; // after the shift
inline constexpr std::uint8_t kCodeBit = 0x40;   // requests only
inline constexpr std::uint8_t kListBit = 0x80;   // sensor-list packets only

// Bytes that several packets have in common.
inline constexpr std::size_t kHeaderOffset = 0;
inline constexpr std::size_t kKindOffset = 1;
inline constexpr std::size_t kLengthOffset = 2;
inline constexpr std::size_t kSensorOffset = 3;

namespace RequestPacket {
inline constexpr std::size_t kSize = 4;
inline constexpr std::size_t kStartSize = 5;
inline constexpr std::size_t kFormatOffset = 4;
inline constexpr std::uint8_t kLargestFormat = 5; // larger ones are read as the watch's default
} // namespace RequestPacket

namespace ReadingPacket {
inline constexpr std::size_t kSize = 18;
inline constexpr std::uint8_t kKind = 0;
inline constexpr std::uint8_t kLength = 14;
inline constexpr std::size_t kMarkOffset = 4;
inline constexpr std::uint8_t kMark = 17;
inline constexpr std::size_t kTimeOffset = 9; // the low half of the eight bytes that begin at 5
inline constexpr std::size_t kValueOffset = 13;
} // namespace ReadingPacket

namespace StopPacket {
inline constexpr std::size_t kSize = 4;
inline constexpr std::uint8_t kKind = 2;
} // namespace StopPacket

namespace OptionPacket {
inline constexpr std::size_t kSize = 4;
inline constexpr std::uint8_t kKind = 0;
inline constexpr std::uint8_t kLength = 2;
} // namespace OptionPacket

namespace ListHeaderPacket {
inline constexpr std::size_t kSize = 13;
inline constexpr std::uint8_t kKind = 0x80;
inline constexpr std::uint8_t kLength = 10;
inline constexpr std::size_t kMarkOffset = 3;
inline constexpr std::uint8_t kMark = 3;
inline constexpr std::size_t kAddressOffset = 6; // the low 48 bits of the eight bytes from 4 on
inline constexpr std::size_t kAddressBytes = 6;
inline constexpr std::size_t kCountOffset = 12;
} // namespace ListHeaderPacket

namespace SensorEntryPacket {
inline constexpr std::size_t kSize = 25;
inline constexpr std::size_t kPositionOffset = 1;
inline constexpr std::uint8_t kLength = 21;
inline constexpr std::size_t kMarkOffset = 3;
inline constexpr std::uint8_t kMarkBase = 0x40; // byte 3 is this plus the sensor id, modulo 256
inline constexpr std::size_t kSensorOffset = 4;
inline constexpr std::size_t kAvailableOffset = 5;
inline constexpr std::size_t kMaxRangeOffset = 6;
inline constexpr std::size_t kResolutionOffset = 10;
inline constexpr std::size_t kMinValueOffset = 14;
inline constexpr std::size_t kMinDelayOffset = 18;
inline constexpr std::size_t kReservedOffset = 22;
inline constexpr std::size_t kEndOffset = 24;
inline constexpr std::uint8_t kEnd = 0;
} // namespace SensorEntryPacket

/** How long the watch takes, in milliseconds. */
inline constexpr int kHeartRatePeriodMs = 15000;
inline constexpr int kWearStatePeriodMs = 3000;

} // namespace WireFormat
} // namespace ParvaneHost
