#include "ContextPedometerSensor.h"

// The assertion on the wearer's gender holds in every build.
#undef NDEBUG
#include <algorithm>
#include <cassert>
#include <cmath>
#include <exception>
#include <limits>
#include <memory>

#include "ContextReading.h"
#include "Log.h"
#include "PlatformPtr.h"
#include "TimeUtil.h"

namespace Parvane {

namespace {

constexpr int kPedometerItem = 2;

// Truncates toward zero; what an int32_t cannot hold becomes its nearest limit, and NaN becomes 0.
int32_t Truncate(double value)
{
    if (std::isnan(value)) {
        return 0;
    }
    if (value <= std::numeric_limits<int32_t>::min()) {
        return std::numeric_limits<int32_t>::min();
    }
    if (value >= std::numeric_limits<int32_t>::max()) {
        return std::numeric_limits<int32_t>::max();
    }
    return static_cast<int32_t>(value);
}

// The nearest float; what a float cannot hold becomes its nearest limit, and NaN becomes 0.
float ToFloat(double value)
{
    constexpr double kMax = std::numeric_limits<float>::max();
    return std::isnan(value) ? 0.0F : static_cast<float>(std::clamp(value, -kMax, kMax));
}

} // namespace

void ContextPedometerSensor::Start()
{
    if (mChangedRequestId != -1) {
        PARVANE_WARN_AT(46, "already registered");
        return;
    }
    mIsFirstData = true;
    const int result = context_set_changed_callback(kPedometerItem, nullptr, OnContextChanged, this,
                                                    &mChangedRequestId);
    if (result != 0) {
        PARVANE_ERROR_AT(59, "context_set_changed_callback FAIL [%d]", result);
    }
}

void ContextPedometerSensor::Stop()
{
    const int result = context_unset_changed_callback(kPedometerItem);
    if (result != 0) {
        PARVANE_ERROR_AT(74, "context_unset_changed_callback FAIL [%d]", result);
    }
    mChangedRequestId = -1;
}

void ContextPedometerSensor::GetCurrentSensorData()
{
    const int result =
        context_get_context(kPedometerItem, nullptr, OnContextChanged, this, &mCurrentRequestId);
    if (result != 0) {
        PARVANE_ERROR_AT(157, "context_get_context FAIL [%d]", result);
    }
}

ContextManagerOptionType *
ContextPedometerSensor::CreateContextManagerOption(int gender, double height, double weight)
{
    if (gender != CONTEXT_PEDOMETER_GENDER_MALE && gender != CONTEXT_PEDOMETER_GENDER_FEMALE) {
        PARVANE_ERROR_AT(86, "Assert [%s] fail",
                         "gender==CONTEXT_PEDOMETER_GENDER_MALE || "
                         "gender==CONTEXT_PEDOMETER_GENDER_FEMALE");
    }
    assert(gender == CONTEXT_PEDOMETER_GENDER_MALE || gender == CONTEXT_PEDOMETER_GENDER_FEMALE);

    ContextManagerOptionType *option = context_option_new();
    if (option == nullptr) {
        PARVANE_ERROR("context_option_new FAIL");
        return nullptr;
    }
    const int genderResult =
        context_option_add_value_int(&option, CONTEXT_PEDOMETER_GENDER, gender);
    if (genderResult != 0) {
        PARVANE_ERROR("context_option_add_value_int FAIL [%d]", genderResult);
    }
    const int heightResult =
        context_option_add_value_double(&option, CONTEXT_PEDOMETER_HEIGHT, height);
    if (heightResult != 0) {
        PARVANE_ERROR("context_option_add_value_double FAIL [%d]", heightResult);
    }
    const int weightResult =
        context_option_add_value_double(&option, CONTEXT_PEDOMETER_WEIGHT, weight);
    if (weightResult != 0) {
        PARVANE_ERROR("context_option_add_value_double FAIL [%d]", weightResult);
    }
    return option;
}

void ContextPedometerSensor::OnContextChanged(int /*error*/, int /*item*/, context_data *data,
                                              void *user_data, int request_id) noexcept
try {
    const auto self = Hold<ContextPedometerSensor>(user_data);
    const PlatformPtr<context_data> owned(data);
    const double totalSteps = ReadDouble(data, CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT);
    const double distance = ReadDouble(data, CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE);
    const double calorie = ReadDouble(data, CONTEXT_PEDOMETER_CUMULATIVE_CALORIE);
    const double walkSteps = ReadDouble(data, CONTEXT_PEDOMETER_CUMULATIVE_WALK_STEP_COUNT);
    const double runSteps = ReadDouble(data, CONTEXT_PEDOMETER_CUMULATIVE_RUN_STEP_COUNT);
    const double speed = ReadDouble(data, CONTEXT_PEDOMETER_SPEED);
    if (!self) {
        return;
    }
    const PedometerData current(Truncate(totalSteps), ToFloat(distance), Truncate(calorie),
                                TimeUtil::GetCurrentTime(), Truncate(walkSteps), Truncate(runSteps),
                                Truncate(speed));
    self->DeliverRelative(current, request_id);
} catch (const std::exception &error) {
    PARVANE_ERROR("reading dropped [%s]", error.what());
}

void ContextPedometerSensor::DeliverRelative(const PedometerData &current, int32_t requestId)
{
    if (mIsFirstData) {
        mIsFirstData = false;
        mBaseline = current;
    }
    auto reading = std::make_shared<PedometerData>(current - mBaseline);
    reading->mTimestamp = current.mTimestamp;
    if (*reading < 0) {
        *reading = PedometerData();
    }
    reading->mRequestId = requestId;
    UpdateSensorData(reading);
}

} // namespace Parvane
