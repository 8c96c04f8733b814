#include "RecordingFormat.h"

#include <array>
#include <cmath>
#include <limits>

#include <platform/context_manager.h>

namespace ParvanePlatform {

namespace {

constexpr double kMinInt = std::numeric_limits<std::int32_t>::min();
constexpr double kMaxInt = std::numeric_limits<std::int32_t>::max();

constexpr CellRule kTime = {true, 0.0, static_cast<double>(kMaxRecordingMs),
                            "a time from 0 to 1000000000000 ms"};
constexpr CellRule kWhole = {true, kMinInt, kMaxInt, "a whole number of 32 bits"};
constexpr CellRule kSteps = {true, 0.0, kMaxInt, "a whole number from 0 to 2147483647"};
constexpr CellRule kAmount = {false, 0.0, 1e9, "a decimal number from 0 to 1000000000"};
// What the platform gives as an int fits, whichever it is.
constexpr CellRule kDecimal = {false, kMinInt, kMaxInt,
                               "a decimal number from -2147483648 to 2147483647"};
constexpr CellRule kActivity = {true, 0.0, 3.0, "an activity from 0 to 3"};
constexpr CellRule kMark = {true, 1.0, 2.0, "1 or 2"};

} // namespace

bool CellRule::Allows(double value) const
{
    return value >= mMin && value <= mMax && (!mIsWhole || std::trunc(value) == value);
}

const RecordingColumnInfo &InfoOf(std::size_t column)
{
    using Item = ContextItem;
    static const std::array<RecordingColumnInfo, kRecordingColumns> infos = {
        {{"t_ms", kTime, std::nullopt, nullptr},
         {"heart_rate", kWhole, Item::HeartRate, CONTEXT_HRM_HEART_RATE},
         {"total_steps", kSteps, Item::Pedometer, CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT},
         {"walk_steps", kSteps, Item::Pedometer, CONTEXT_PEDOMETER_CUMULATIVE_WALK_STEP_COUNT},
         {"run_steps", kSteps, Item::Pedometer, CONTEXT_PEDOMETER_CUMULATIVE_RUN_STEP_COUNT},
         {"distance_m", kAmount, Item::Pedometer, CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE},
         {"calories_kcal", kAmount, Item::Pedometer, CONTEXT_PEDOMETER_CUMULATIVE_CALORIE},
         {"speed", kAmount, Item::Pedometer, CONTEXT_PEDOMETER_SPEED},
         {"activity", kActivity, Item::Activity, CONTEXT_ACTIVITY_STATUS},
         {"gesture", kWhole, Item::Gesture, CONTEXT_MOTION_ACTION},
         {"peak_to_peak", kDecimal, Item::HeartRate, CONTEXT_HRM_PEAK_TO_PEAK},
         {"spo2", kDecimal, Item::HeartRate, CONTEXT_HRM_SPO2},
         {"activity_accuracy", kWhole, Item::Activity, CONTEXT_ACTIVITY_ACCURACY},
         {"restart", kMark, std::nullopt, nullptr}}};
    return infos[column];
}

} // namespace ParvanePlatform
