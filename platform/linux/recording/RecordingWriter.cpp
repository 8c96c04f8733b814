#include "RecordingWriter.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <variant>

namespace ParvanePlatform {

namespace {

/** More than the longest number without an exponent has, the smallest above 0. */
constexpr std::size_t kMaxNumberLength = 400;

/** The shortest text that is read back as the same number. */
template <typename... Format>
std::string ToText(double value, Format... format)
{
    std::array<char, kMaxNumberLength> text = {};
    const auto [end, error] =
        std::to_chars(text.data(), text.data() + text.size(), value, format...);
    return error == std::errc() ? std::string(text.data(), end) : std::string();
}

/** The nearest number of 15 digits: what a double has beyond them is the dust of sums and products. */
double WithoutDust(double value)
{
    constexpr int kDigitsAfterPoint = std::numeric_limits<double>::digits10 - 1;
    const std::string text = ToText(value, std::chars_format::scientific, kDigitsAfterPoint);
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

std::string CellText(const CellRule &rule, double value)
{
    if (rule.mIsWhole) {
        return std::to_string(static_cast<std::int64_t>(value)); // never "-0"
    }
    return ToText(value, std::chars_format::fixed);
}

std::optional<std::size_t> ColumnOf(ContextItem item, const char *key)
{
    for (std::size_t column = 0; column < kRecordingColumns; ++column) {
        const RecordingColumnInfo &info = InfoOf(column);
        if (info.mItem == item && std::strcmp(info.mKey, key) == 0) {
            return column;
        }
    }
    return std::nullopt;
}

double NumberOf(const SensorValue &value)
{
    return std::visit([](auto number) { return static_cast<double>(number); }, value.mValue);
}

/** Fills the cells of a reading's values. @return why that does not work, or nothing */
template <typename Cells>
std::string FillCells(Cells &cells, ContextItem item, const SensorReading &reading)
{
    const std::string itemName = "item " + std::to_string(static_cast<int>(item));
    if (reading.size() == 0) {
        return "a reading of " + itemName + " has no value";
    }
    for (const SensorValue &value : reading) {
        const auto column = ColumnOf(item, value.mKey);
        if (!column) {
            return std::string("there is no column for ").append(value.mKey) + " of " + itemName;
        }
        const RecordingColumnInfo &info = InfoOf(*column);
        const double number = NumberOf(value);
        if (!info.mRule.Allows(number)) {
            return std::string(info.mName) + ": " + ToText(number) + " is not " + info.mRule.mText;
        }
        if (!cells[*column]) {
            cells[*column] = WithoutDust(number);
        }
    }
    return {};
}

/** Such as "+02:00". */
std::string OffsetText(long seconds)
{
    constexpr long kMinute = 60;
    const long minutes = std::labs(seconds) / kMinute;
    char text[32];
    std::snprintf(text, sizeof text, "%c%02ld:%02ld", seconds < 0 ? '-' : '+', minutes / 60,
                  minutes % 60);
    return text;
}

} // namespace

std::string RecordingWriter::Header(std::int64_t wallMs)
{
    const std::int64_t wallS = wallMs / 1000;
    const auto seconds = static_cast<std::time_t>(wallS);
    std::tm local = {};
    localtime_r(&seconds, &local);
    std::string text = "# recording: what the sensors of a running service delivered\n"
                       "# start_epoch_s: ";
    text.append(std::to_string(wallS)).append("\n# tz: ").append(OffsetText(local.tm_gmtoff));
    text.append(" (start_epoch_s is UTC)\n");
    for (std::size_t column = 0; column < kRecordingColumns; ++column) {
        text.append(column == 0 ? "" : ",").append(InfoOf(column).mName);
    }
    text += '\n';
    return text;
}

RecordingWriter::Row RecordingWriter::MakeRow(std::int64_t timeMs, ContextItem item,
                                              const SensorReading &reading)
{
    if (std::string error = CheckTime(timeMs); !error.empty()) {
        return {"", std::move(error)};
    }
    Cells cells;
    if (std::string error = FillCells(cells, item, reading); !error.empty()) {
        return {"", std::move(error)};
    }
    if (item == ContextItem::Pedometer) {
        TakePedometer(cells);
    }
    mLastMs = timeMs;

    std::string text = std::to_string(timeMs);
    for (std::size_t column = kTimeColumn + 1; column < kRecordingColumns; ++column) {
        text += ',';
        if (cells[column]) {
            text += CellText(InfoOf(column).mRule, *cells[column]);
        }
    }
    return {text + "\n", ""};
}

std::string RecordingWriter::CheckTime(std::int64_t timeMs) const
{
    const RecordingColumnInfo &info = InfoOf(kTimeColumn);
    const std::string name = std::string(info.mName) + ": ";
    if (timeMs < 0 || timeMs > kMaxRecordingMs) {
        return name + std::to_string(timeMs) + " is not " + info.mRule.mText;
    }
    if (timeMs < mLastMs) {
        return name + "the time goes back from " + std::to_string(mLastMs) + " to " +
               std::to_string(timeMs) + " ms";
    }
    return {};
}

void RecordingWriter::TakePedometer(Cells &cells)
{
    if (const auto mark = MarkOf(cells)) {
        cells[kRestartColumn] = static_cast<double>(*mark);
        if (*mark == RestartMark::Anew) {
            mCounts = {};
        }
    }
    for (std::size_t field = 0; field < kPedometerFields; ++field) {
        const std::optional<double> &now = cells[kFirstPedometerColumn + field];
        mIsTold[field] = now.has_value();
        if (now && field < kPedometerCounters) {
            mCounts[field] = *now;
        }
    }
}

std::optional<RestartMark> RecordingWriter::MarkOf(const Cells &cells) const
{
    std::optional<RestartMark> mark;
    for (std::size_t field = 0; field < kPedometerFields; ++field) {
        const std::optional<double> &now = cells[kFirstPedometerColumn + field];
        if (now && field < kPedometerCounters && *now < mCounts[field]) {
            return RestartMark::Anew;
        }
        if (!now && mIsTold[field]) {
            mark = RestartMark::Forget;
        }
    }
    return mark;
}

} // namespace ParvanePlatform
