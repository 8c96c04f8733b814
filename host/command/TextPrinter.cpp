#include "TextPrinter.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <ctime>
#include <string_view>
#include <variant>

#include "HexBytes.h"

namespace ParvaneHost {

namespace {

using Row = std::array<std::string, 6>;

/** The shortest decimal form that reads back as `value`, without an exponent for usual numbers. */
std::string NumberText(float value)
{
    constexpr std::size_t kLongest = 64; // the largest float has 39 digits before its point
    std::array<char, kLongest> text{};
    const auto end =
        std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed);
    return end.ec == std::errc{} ? std::string(text.data(), end.ptr) : std::to_string(value);
}

std::string IdText(Sensor sensor)
{
    return std::to_string(static_cast<unsigned>(sensor));
}

std::string NamedId(Sensor sensor)
{
    return std::string(SensorName(sensor)) + " (" + IdText(sensor) + ")";
}

std::string ActivityText(float value)
{
    const auto activity = ActivityOf(value);
    return activity ? std::string(ActivityName(*activity)) : "unknown (" + NumberText(value) + ")";
}

std::string ValueText(const Reading &reading)
{
    switch (reading.mSensor) {
    case Sensor::Activity:
        return "activity: " + ActivityText(reading.mValue);
    case Sensor::Pedometer:
        return "steps: " + NumberText(reading.mValue) + " today";
    case Sensor::HeartRate:
        return reading.mValue > 0 ? "heart rate: " + NumberText(reading.mValue) + " bpm"
                                  : "heart rate: no usable reading";
    case Sensor::WearState:
        return reading.mValue > 0 ? "worn: yes" : "worn: no";
    }
    return "sensor " + IdText(reading.mSensor) + ": " + NumberText(reading.mValue);
}

std::string TimeText(const Reading &reading, std::int64_t nowMs)
{
    constexpr std::int64_t kMsPerSecond = 1000;
    constexpr std::size_t kLongest = 64;
    if (reading.mTimeFieldMs == 0) {
        return "time unknown";
    }
    const auto seconds =
        static_cast<std::time_t>(FullTimeMs(reading.mTimeFieldMs, nowMs) / kMsPerSecond);
    std::tm local{};
    std::array<char, kLongest> text{};
    if (localtime_r(&seconds, &local) == nullptr ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local) == 0) {
        return "time unknown";
    }
    return text.data();
}

Row EntryRow(const SensorEntry &entry)
{
    return {std::string(SensorName(entry.mSensor)),
            IdText(entry.mSensor),
            NumberText(entry.mMinValue) + " to " + NumberText(entry.mMaxRange),
            NumberText(entry.mResolution),
            std::to_string(entry.mMinDelayMs) + " ms",
            entry.mAvailable != 0 ? "yes" : "no"};
}

Lines Table(const std::vector<Row> &rows)
{
    constexpr std::size_t kGap = 2;
    std::array<std::size_t, std::tuple_size_v<Row>> widths{};
    for (const Row &row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            widths[column] = std::max(widths[column], row[column].size() + kGap);
        }
    }
    Lines lines;
    for (const Row &row : rows) {
        std::string line;
        for (std::size_t column = 0; column + 1 < row.size(); ++column) {
            line += row[column] + std::string(widths[column] - row[column].size(), ' ');
        }
        lines.push_back(line + row.back());
    }
    return lines;
}

std::string AddressText(const SensorListHeader &header)
{
    return header.HasAddress() ? header.AddressText() : "unknown";
}

/** What one reply means, for each kind of it. */
struct Meaning
{
    std::string operator()(const SensorListHeader &header) const
    {
        return "sensor list: " + std::to_string(header.mCount) + " sensors, address " +
               AddressText(header) + Flags(header.mFlags);
    }

    std::string operator()(const SensorEntry &entry) const
    {
        const Row row = EntryRow(entry);
        return "sensor " + std::to_string(entry.mPosition) + ": " + NamedId(entry.mSensor) +
               ", range " + row[2] + ", resolution " + row[3] + ", minimum delay " + row[4] +
               ", available: " + row[5] + Flags(entry.mFlags);
    }

    std::string operator()(const Reading &reading) const
    {
        return std::string(reading.mCommand == Command::Start ? "started reading" : "reading") +
               ", " + ValueText(reading) + ", " + TimeText(reading, mNowMs) + Flags(reading.mFlags);
    }

    std::string operator()(const StopAck &acknowledgement) const
    {
        return "stop acknowledged: " + NamedId(acknowledgement.mSensor) +
               Flags(acknowledgement.mFlags);
    }

    std::string operator()(const OptionReply &reply) const
    {
        return "option reply: " + NamedId(reply.mSensor) + Flags(reply.mFlags);
    }

    static std::string Flags(std::uint8_t flags) { return ", flags " + std::to_string(flags); }

    std::int64_t mNowMs = 0;
};

} // namespace

Lines TextPrinter::List(const SensorList &list) const
{
    std::vector<Row> rows{{"SENSOR", "ID", "RANGE", "RESOLUTION", "MINIMUM DELAY", "AVAILABLE"}};
    for (const SensorEntry &entry : list.mEntries) {
        rows.push_back(EntryRow(entry));
    }
    Lines lines = Table(rows);
    lines.insert(lines.begin(), "Bluetooth address: " + AddressText(list.mHeader));
    return lines;
}

Lines TextPrinter::Measured(const Reading &reading, std::int64_t /*nowMs*/) const
{
    return {ValueText(reading)};
}

Lines TextPrinter::Watched(const Reading &reading, std::int64_t nowMs) const
{
    return {TimeText(reading, nowMs) + "  " + ValueText(reading)};
}

Lines TextPrinter::Stopped(const StopAck &acknowledgement) const
{
    return {std::string(SensorName(acknowledgement.mSensor)) + ": stopped"};
}

Lines TextPrinter::Packet(const Bytes &packet, const Result<Reply, DecodeError> &meaning,
                          std::int64_t nowMs) const
{
    const std::string text = meaning ? std::visit(Meaning{nowMs}, meaning.Value())
                                     : "not understood: " + meaning.GetError().Text();
    return {ToHex(packet), "  " + text};
}

} // namespace ParvaneHost
