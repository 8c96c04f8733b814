#include "TextPrinter.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <ctime>
#include <string_view>
#include <variant>

#include "HexBytes.h"
#include "LocalTime.h"
#include "StepLedgerText.h"

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

std::string ValueText(const Reading &reading, Worn worn = Worn::Unknown)
{
    switch (reading.mSensor) {
    case Sensor::Activity:
        return "activity: " + ActivityText(reading.mValue);
    case Sensor::Pedometer:
        return "steps: total on the wire " + NumberText(reading.mValue);
    case Sensor::HeartRate:
        if (reading.mValue > 0) {
            return "heart rate: " + NumberText(reading.mValue) + " bpm";
        }
        return worn == Worn::No ? "heart rate: no reading: the watch is not worn"
                                : "heart rate: no usable reading";
    case Sensor::WearState:
        return reading.mValue > 0 ? "worn: yes" : "worn: no";
    }
    return "sensor " + IdText(reading.mSensor) + ": " + NumberText(reading.mValue);
}

/** "18:53", in local time. */
std::string ClockText(Instant instant)
{
    constexpr std::size_t kClock = 5; // characters
    const std::string text = Parvane::LocalTime(static_cast<std::time_t>(
        std::chrono::floor<std::chrono::seconds>(instant).time_since_epoch().count()));
    return text.empty() ? "-" : text.substr(Parvane::kDateLength, kClock);
}

/** ", 4 s ago, worn": the age from a second on, and of a heart rate whether the watch is worn. */
std::string WorthText(const Observation &observation, Instant now)
{
    using namespace std::chrono_literals;
    const auto age = observation.Age(now);
    std::string text = age < 1s ? "" : ", " + AgeText(age);
    if (observation.mSensor == Sensor::HeartRate && observation.IsMeasurement() &&
        observation.mWorn != Worn::Unknown) {
        text += observation.mWorn == Worn::Yes ? ", worn" : ", not worn";
    }
    return text;
}

/** "1,284". */
std::string Grouped(std::int64_t number)
{
    constexpr std::size_t kGroup = 3;
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > kGroup; at -= kGroup) {
        text.insert(at - kGroup, ",");
    }
    return text;
}

/** "1,284 today, exact", "1,284 since 09:12, exact", "at least 1,284 today"; `today` follows the number. */
std::string StepsText(const std::optional<DaySteps> &steps, const std::string &today)
{
    if (!steps) {
        return "not known yet";
    }
    const std::string number = Grouped(steps->mSteps);
    if (!steps->mIsExact) {
        return "at least " + number + today;
    }
    if (steps->mFromMidnight) {
        return number + today + ", exact";
    }
    return number + (today == " today" ? "" : today) + " since " + ClockText(steps->mSince) +
           ", exact";
}

std::string TimeText(const Reading &reading, std::int64_t nowMs, TimeStyle style)
{
    constexpr std::int64_t kMsPerSecond = 1000;
    constexpr std::size_t kMinutes = 2; // characters at the end of the offset
    const std::int64_t timeMs = FullTimeMs(reading.mTimeFieldMs, nowMs);
    const auto seconds = static_cast<std::time_t>(timeMs / kMsPerSecond);
    const std::string decimals =
        "." + std::to_string(kMsPerSecond + timeMs % kMsPerSecond).substr(1);
    std::string text = Parvane::LocalTime(seconds);
    if (reading.mTimeFieldMs == 0 || text.empty()) {
        return style == TimeStyle::Short ? "time unknown" : "-";
    }
    if (style == TimeStyle::Unix) {
        return std::to_string(seconds) + decimals;
    }
    if (style == TimeStyle::Short) {
        return text.substr(0, text.size() - Parvane::kOffsetLength);
    }
    text.insert(text.size() - kMinutes, ":");
    text.replace(Parvane::kDateLength - 1, 1, "T");
    return text.insert(text.size() - Parvane::kOffsetLength - 1, decimals);
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
               ", " + ValueText(reading) + ", " + TimeText(reading, mNowMs, mStyle) +
               Flags(reading.mFlags);
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
    TimeStyle mStyle = TimeStyle::Short;
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

Lines TextPrinter::Measured(const Told::NewReading &told, Instant now, bool isOneOfMany) const
{
    const std::string text = told.mSteps ? "steps: " + StepsText(told.mSteps->mSteps, " today")
                                         : ValueText(told.mReading, told.mObservation.mWorn);
    const std::string line = text + WorthText(told.mObservation, now);
    if (!isOneOfMany && mStyle == TimeStyle::Short) {
        return {line};
    }
    return {TimeText(told.mReading, now.time_since_epoch().count(), mStyle) + "  " + line};
}

Lines TextPrinter::Today(const StepsOfDay &steps) const
{
    std::string text = DateText(steps.mDate) + ": ";
    if (!steps.mSteps) {
        return {text + "no steps known"};
    }
    text += StepsText(steps.mSteps, steps.mSteps->mSteps == 1 ? " step" : " steps");
    return {text + ", as of " + ClockText(steps.mSteps->mUntil)};
}

Lines TextPrinter::Remark(const Reading &reading) const
{
    if (reading.mSensor == Sensor::Pedometer) {
        return {
            "the total is not the steps walked, as each reading adds all since the start again: "
            "docs/wire-format.md#the-total-of-the-day"};
    }
    if (reading.mSensor == Sensor::HeartRate && reading.mValue <= 0) {
        return {kWhereToLook};
    }
    if (reading.mSensor == Sensor::WearState && reading.mValue <= 0) {
        return {std::string("so says a watch whose sensor is silent, too: ") + kWhereToLook};
    }
    return {};
}

Lines TextPrinter::Stopped(Sensor sensor) const
{
    // The watch acknowledges a stop of the steps, and pushes them for good once they were asked for.
    const bool goesOn = sensor == Sensor::Pedometer;
    return {std::string(SensorName(sensor)) +
            (goesOn ? ": the stop is acknowledged; the watch goes on pushing them" : ": stopped")};
}

Lines TextPrinter::Packet(const Bytes &packet, const Result<Reply, DecodeError> &meaning,
                          std::int64_t nowMs) const
{
    const std::string text = meaning ? std::visit(Meaning{nowMs, mStyle}, meaning.Value())
                                     : "not understood: " + meaning.GetError().Text();
    return {ToHex(packet), "  " + text};
}

} // namespace ParvaneHost
