#include "ContextActivitySensor.h"

#include <exception>
#include <memory>

#include "ActivityData.h"
#include "ContextReading.h"
#include "Log.h"
#include "PlatformPtr.h"

namespace Parvane {

namespace {

constexpr int kActivityItem = 23;
constexpr int kActivityFilter[] = {1, 2, 3};
constexpr int32_t kMillisPerSecond = 1000;

// The option that asks for the activities that the host knows; null when memory has run out.
PlatformPtr<ContextManagerOptionType> CreateFilterOption()
{
    ContextManagerOptionType *option = context_option_new();
    if (option == nullptr) {
        PARVANE_ERROR("context_option_new FAIL");
        return nullptr;
    }
    for (const int activity : kActivityFilter) {
        const int result = context_option_add_value_int(
            &option, CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER, activity);
        if (result != 0) {
            PARVANE_ERROR("context_option_add_value_int FAIL [%d]", result);
        }
    }
    return PlatformPtr<ContextManagerOptionType>(option);
}

} // namespace

void ContextActivitySensor::Start()
{
    if (mChangedRequestId != -1) {
        PARVANE_WARN_AT(42, "already registered");
        return;
    }
    const PlatformPtr<ContextManagerOptionType> option = CreateFilterOption();
    const int result = context_set_changed_callback(kActivityItem, option.get(), OnContextChanged,
                                                    this, &mChangedRequestId);
    if (result != 0) {
        PARVANE_ERROR_AT(50, "context_set_changed_callback FAIL [%d]", result);
    }
}

void ContextActivitySensor::Stop()
{
    const int result = context_unset_changed_callback(kActivityItem);
    if (result != 0) {
        PARVANE_ERROR_AT(62, "context_unset_changed_callback FAIL [%d]", result);
    }
    mChangedRequestId = -1;
}

void ContextActivitySensor::OnContextChanged(int /*error*/, int /*item*/, context_data *data,
                                             void *user_data, int request_id) noexcept
try {
    const auto self = Hold<ContextActivitySensor>(user_data);
    const PlatformPtr<context_data> owned(data);
    if (!self) {
        return;
    }
    const int32_t status = ReadInt(data, CONTEXT_ACTIVITY_STATUS, 0);
    const int32_t accuracy = ReadInt(data, CONTEXT_ACTIVITY_ACCURACY, -1);
    // Required: the milliseconds are cut to 32 bits first and divided then.
    const int32_t seconds = static_cast<int32_t>(ReadTimestamp(data)) / kMillisPerSecond;
    auto reading = std::make_shared<ActivityData>(status, accuracy, seconds);
    reading->mRequestId = request_id;
    self->UpdateSensorData(reading);
} catch (const std::exception &error) {
    PARVANE_ERROR("reading dropped [%s]", error.what());
}

} // namespace Parvane
