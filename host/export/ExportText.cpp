#include "ExportText.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace ParvaneHost {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/** "2026-01-31T12:34:56.789", as if the instant were one of UTC. */
std::string ClockText(Instant instant)
{
    const auto day = std::chrono::floor<std::chrono::days>(instant);
    const std::chrono::year_month_day date(day);
    const auto ms = (instant - day).count();
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03d", int{date.year()},
                  unsigned{date.month()}, unsigned{date.day()}, static_cast<int>(ms / 3600000),
                  static_cast<int>(ms / 60000 % 60), static_cast<int>(ms / 1000 % 60),
                  static_cast<int>(ms % 1000));
    return text;
}

/** "+01:00". */
std::string OffsetText(seconds offset)
{
    const auto minutes = std::chrono::duration_cast<std::chrono::minutes>(offset).count();
    char text[32];
    std::snprintf(text, sizeof text, "%c%02d:%02d", minutes < 0 ? '-' : '+',
                  static_cast<int>(std::abs(minutes) / 60),
                  static_cast<int>(std::abs(minutes) % 60));
    return text;
}

seconds OffsetAt(const ZoneOffset &zone, Instant instant)
{
    return zone(std::chrono::floor<seconds>(instant));
}

std::string LocalText(Instant instant, const ZoneOffset &zone)
{
    const seconds offset = OffsetAt(zone, instant);
    return ClockText(instant + offset) + OffsetText(offset);
}

/** A value without a fraction where it has none. */
std::string NumberText(float value)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", std::trunc(value) == value ? 0 : 3,
                  static_cast<double>(value));
    return text;
}

/** Its name; its number where it has none. */
std::string ActivityText(float value)
{
    const auto activity = ActivityOf(value);
    return activity ? std::string(ActivityName(*activity)) : NumberText(value);
}

/** The heart rate says with 0 that it has none. */
bool SaysNothing(const LogEntry &entry)
{
    return entry.mSensor == Sensor::HeartRate && entry.mValue <= 0;
}

/** The cells of a table behind the times: heart rate, steps and whether they are all, activity, worn. */
std::string Cells(const LogEntry &entry)
{
    switch (entry.mSensor) {
    case Sensor::HeartRate:
        return NumberText(entry.mValue) + ",,,,";
    case Sensor::Pedometer:
        return "," + std::to_string(entry.mSteps) + (entry.mIsExact ? ",yes,," : ",no,,");
    case Sensor::Activity:
        return ",,," + ActivityText(entry.mValue) + ",";
    case Sensor::WearState:
        return entry.mValue > 0 ? ",,,,yes" : ",,,,no";
    }
    return ",,,,";
}

/** The members of an object behind the times. */
std::string Members(const LogEntry &entry)
{
    switch (entry.mSensor) {
    case Sensor::HeartRate:
        return R"("bpm":)" + (SaysNothing(entry) ? "null" : NumberText(entry.mValue));
    case Sensor::Pedometer:
        return R"("steps":)" + std::to_string(entry.mSteps) + R"(,"exact":)" +
               (entry.mIsExact ? "true" : "false");
    case Sensor::Activity:
        return R"("activity":")" + ActivityText(entry.mValue) + '"';
    case Sensor::WearState:
        return entry.mValue > 0 ? R"("worn":true)" : R"("worn":false)";
    }
    return {};
}

/** What follows the time in a row of a recording; empty when the service has no such reading. */
std::string RecordingCells(const LogEntry &entry)
{
    constexpr char kNotWorn[] = "-3,,,,,,,,";
    switch (entry.mSensor) {
    case Sensor::HeartRate:
        return SaysNothing(entry) ? "" : NumberText(std::round(entry.mValue)) + ",,,,,,,,";
    case Sensor::Pedometer:
        return "," + std::to_string(entry.mStepsInAll) + ",,,,,,,";
    case Sensor::Activity: {
        const auto activity = ActivityOf(entry.mValue);
        return !activity || *activity == Activity::WristGesture
                   ? ""
                   : ",,,,,,," + std::to_string(static_cast<int>(*activity) + 1) + ",";
    }
    case Sensor::WearState:
        return entry.mValue > 0 ? "" : kNotWorn;
    }
    return {};
}

} // namespace

std::string UtcText(Instant instant)
{
    return ClockText(instant) + "Z";
}

std::string CsvText(const std::vector<LogEntry> &log, const ZoneOffset &zone)
{
    std::string text = "utc,local,heart_rate_bpm,steps,steps_exact,activity,worn\n";
    for (const LogEntry &entry : log) {
        if (!SaysNothing(entry)) {
            text +=
                UtcText(entry.mAt) + ',' + LocalText(entry.mAt, zone) + ',' + Cells(entry) + '\n';
        }
    }
    return text;
}

std::string JsonLinesText(const std::vector<LogEntry> &log, const ZoneOffset &zone)
{
    std::string text;
    for (const LogEntry &entry : log) {
        text += R"({"utc":")" + UtcText(entry.mAt) + R"(","local":")" + LocalText(entry.mAt, zone) +
                R"(","sensor":")" + std::string(SensorName(entry.mSensor)) + "\"," +
                Members(entry) + "}\n";
    }
    return text;
}

std::string RecordingText(const std::vector<LogEntry> &log, const ZoneOffset &zone)
{
    std::string text;
    Instant begin;
    Instant last;
    for (const LogEntry &entry : log) {
        const std::string cells = RecordingCells(entry);
        if (cells.empty()) {
            continue;
        }
        if (text.empty()) {
            begin = last = entry.mAt;
            const auto since = std::chrono::floor<seconds>(begin.time_since_epoch());
            text = "# recording: what a phone was told of a day\n# start_epoch_s: " +
                   std::to_string(since.count()) + "\n# tz: " + OffsetText(OffsetAt(zone, begin)) +
                   "\nt_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,calories_kcal,"
                   "speed,activity,gesture\n";
        }
        last = std::max(last, entry.mAt); // a clock that was set back
        text += std::to_string((last - begin).count()) + ',' + cells + '\n';
    }
    return text;
}

} // namespace ParvaneHost
