#include "RecordingText.h"

#include <array>
#include <charconv>
#include <cstddef>
#include <ctime>
#include <string_view>
#include <variant>

#include <platform/context_manager.h>

namespace ParvanePlatform {

namespace {

/** The columns of a recording after its first, and the value that stands in each. */
struct Column
{
    const char *mName;
    ContextItem mItem;
    const char *const *mKey;
};

constexpr std::array<Column, 9> kColumns = {{
    {"heart_rate", ContextItem::HeartRate, &CONTEXT_HRM_HEART_RATE},
    {"total_steps", ContextItem::Pedometer, &CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT},
    {"walk_steps", ContextItem::Pedometer, &CONTEXT_PEDOMETER_CUMULATIVE_WALK_STEP_COUNT},
    {"run_steps", ContextItem::Pedometer, &CONTEXT_PEDOMETER_CUMULATIVE_RUN_STEP_COUNT},
    {"distance_m", ContextItem::Pedometer, &CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE},
    {"calories_kcal", ContextItem::Pedometer, &CONTEXT_PEDOMETER_CUMULATIVE_CALORIE},
    {"speed", ContextItem::Pedometer, &CONTEXT_PEDOMETER_SPEED},
    {"activity", ContextItem::Activity, &CONTEXT_ACTIVITY_STATUS},
    {"gesture", ContextItem::Gesture, &CONTEXT_MOTION_ACTION},
}};

std::string NumberText(const std::variant<int, double> &value)
{
    constexpr std::size_t kLongest = 400; // the largest double has 309 digits before its point
    std::array<char, kLongest> text{};
    char *const end = text.data() + text.size();
    const int *whole = std::get_if<int>(&value);
    const auto written = whole != nullptr ? std::to_chars(text.data(), end, *whole)
                                          : std::to_chars(text.data(), end, std::get<double>(value),
                                                          std::chars_format::fixed);
    return {text.data(), written.ptr};
}

class PlainRecordingText : public RecordingText
{
public:
    std::string Header(std::int64_t wallMs) override
    {
        const auto seconds = static_cast<std::time_t>(wallMs / 1000);
        std::tm utc{};
        std::array<char, 32> time{};
        gmtime_r(&seconds, &utc);
        std::strftime(time.data(), time.size(), "%Y-%m-%dT%H:%M:%SZ", &utc);
        std::string text = std::string("# Recorded from ") + time.data() + " on\nt_ms";
        for (const Column &column : kColumns) {
            text += std::string(",") + column.mName;
        }
        return text + '\n';
    }

    Row MakeRow(std::int64_t timeMs, ContextItem item, const SensorReading &reading) override
    {
        std::string text = std::to_string(timeMs);
        std::size_t found = 0;
        for (const Column &column : kColumns) {
            text += ',';
            for (const SensorValue &value : reading) {
                if (column.mItem == item && std::string_view(*column.mKey) == value.mKey) {
                    text += NumberText(value.mValue);
                    ++found;
                }
            }
        }
        if (found < reading.size() || found == 0) {
            return {"", "a reading of item " + std::to_string(static_cast<int>(item)) +
                            " has a value that a recording has no column for"};
        }
        return {text + '\n', ""};
    }
};

} // namespace

std::unique_ptr<RecordingText> MakeRecordingText()
{
    return std::make_unique<PlainRecordingText>();
}

} // namespace ParvanePlatform
