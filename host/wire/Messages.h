#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "WireFormat.h"

namespace ParvaneHost {

/** The bytes of one packet. */
using Bytes = std::vector<std::uint8_t>;

/**
 * One request to the watch. Build it with one of the four functions.
 *
 * The flags are two bits (0 to 3; higher bits are dropped) that the watch copies into its replies,
 * see docs/wire-format.md for which reply carries whose.
 */
struct Request
{
    static Request SensorList(std::uint8_t flags);
    static Request MeasureOnce(Sensor sensor, std::uint8_t flags);

    /** `format` is 0 to 5; the watch reads anything larger as its default. */
    static Request Start(Sensor sensor, std::uint8_t format, std::uint8_t flags);
    static Request Stop(Sensor sensor, std::uint8_t flags);

    bool operator==(const Request &) const = default;

    Command mCommand = Command::SensorList;
    std::uint8_t mFlags = 0;
    /** Bit 6 of byte 0. The watch serves both values alike and never sets it in a reply. */
    bool mCodeBit = false;
    Sensor mSensor = Sensor{0}; // not read by the watch for Command::SensorList
    std::uint8_t mFormat = 0;   // sent for Command::Start only
};

/** The first packet of the answer to a sensor-list request. */
struct SensorListHeader
{
    /** Whether the watch could tell its Bluetooth address. */
    [[nodiscard]] bool HasAddress() const;
    /** The address as AA:BB:CC:DD:EE:FF. */
    [[nodiscard]] std::string AddressText() const;

    bool operator==(const SensorListHeader &) const = default;

    std::uint8_t mFlags = 0;
    std::array<std::uint8_t, WireFormat::ListHeaderPacket::kAddressBytes> mAddress{};
    std::uint8_t mCount = 0; // entry packets that follow
};

/** One sensor of the watch. */
struct SensorEntry
{
    bool operator==(const SensorEntry &) const = default;

    std::uint8_t mFlags = 0;
    std::uint8_t mPosition = 0; // counts from 1
    Sensor mSensor = Sensor{0};
    std::uint8_t mAvailable = 0; // 0: no, 1: yes
    float mMaxRange = 0.0F;      // in the unit of the sensor's readings; finite
    float mResolution = 0.0F;
    float mMinValue = 0.0F;
    std::int32_t mMinDelayMs = 0; // between two readings
    std::int16_t mReserved = 0;
};

/** One reading: an answer, or pushed by the watch unasked. */
struct Reading
{
    bool operator==(const Reading &) const = default;

    Command mCommand = Command::MeasureOnce; // or Command::Start
    std::uint8_t mFlags = 0;
    Sensor mSensor = Sensor{0};
    /** Milliseconds since the epoch modulo 2^32; 0 when the watch knows no time. See FullTimeMs(). */
    std::uint32_t mTimeFieldMs = 0;
    /** Finite. Beats a minute; steps of the day; 1 worn, 0 not worn; an Activity. */
    float mValue = 0.0F;
};

/** The acknowledgement of a stop request. */
struct StopAck
{
    bool operator==(const StopAck &) const = default;

    std::uint8_t mFlags = 0;
    Sensor mSensor = Sensor{0};
};

/** The reply to an option request. It carries no option value. */
struct OptionReply
{
    bool operator==(const OptionReply &) const = default;

    std::uint8_t mFlags = 0;
    Sensor mSensor = Sensor{0};
};

/** Any packet from the watch. */
using Reply = std::variant<SensorListHeader, SensorEntry, Reading, StopAck, OptionReply>;

/** A whole answer to a sensor-list request. */
struct SensorList
{
    SensorListHeader mHeader;
    std::vector<SensorEntry> mEntries; // as many as the header counts, in the watch's order
};

/** "activity", "steps", "hr", "wear"; "unknown" for an id without a name. */
std::string_view SensorName(Sensor sensor);

/** The inverse of SensorName() for the four sensors; nothing for any other text. */
std::optional<Sensor> SensorByName(std::string_view name);

/** The activity behind the value of a reading; nothing for a value other than 0, 1, 2 and 3. */
std::optional<Activity> ActivityOf(float value);

/** "still or other", "walking", "running", "wrist gesture". */
std::string_view ActivityName(Activity activity);

/**
 * The time of a reading in milliseconds since the epoch.
 *
 * The wire carries it modulo 2^32 (about 49.7 days). Of the times that fit `fieldMs`, the one nearest
 * to `nowMs` is returned; of two equally near ones, the earlier.
 */
std::int64_t FullTimeMs(std::uint32_t fieldMs, std::int64_t nowMs);

} // namespace ParvaneHost
