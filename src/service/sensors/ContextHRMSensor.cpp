#include "ContextHRMSensor.h"

#include <exception>
#include <memory>

#include "ContextReading.h"
#include "HRMData.h"
#include "Log.h"
#include "PlatformPtr.h"

namespace Parvane {

namespace {

constexpr int kHRMItem = 7;

} // namespace

void ContextHRMSensor::Start()
{
    if (mChangedRequestId != -1) {
        PARVANE_WARN_AT(38, "already registered");
        return;
    }
    const int result =
        context_set_changed_callback(kHRMItem, nullptr, OnContextChanged, this, &mChangedRequestId);
    if (result != 0) {
        PARVANE_ERROR_AT(44, "context_set_changed_callback FAIL [%d]", result);
    }
}

void ContextHRMSensor::Stop()
{
    mChangedRequestId = -1;
    const int result = context_unset_changed_callback(kHRMItem);
    if (result != 0) {
        PARVANE_ERROR_AT(53, "context_unset_changed_callback FAIL [%d]", result);
    }
}

void ContextHRMSensor::OnContextChanged(int /*error*/, int /*item*/, context_data *data,
                                        void *user_data, int request_id) noexcept
try {
    const auto self = Hold<ContextHRMSensor>(user_data);
    const PlatformPtr<context_data> owned(data);
    if (!self) {
        return;
    }
    const int32_t spo2 = ReadInt(data, CONTEXT_HRM_SPO2, 0);
    const int32_t heartRate = ReadInt(data, CONTEXT_HRM_HEART_RATE, 0);
    const int32_t peakToPeak = ReadInt(data, CONTEXT_HRM_PEAK_TO_PEAK, 0);
    auto reading = std::make_shared<HRMData>(spo2, heartRate, peakToPeak);
    reading->mRequestId = request_id;
    self->UpdateSensorData(reading);
} catch (const std::exception &error) {
    PARVANE_ERROR("reading dropped [%s]", error.what());
}

} // namespace Parvane
