#include "ContextGestureSensor.h"

#include <exception>
#include <memory>

#include "ContextReading.h"
#include "GestureData.h"
#include "Log.h"
#include "PlatformPtr.h"

namespace Parvane {

namespace {

constexpr int kGestureItem = 1;
constexpr int64_t kMillisPerSecond = 1000;

} // namespace

void ContextGestureSensor::Start()
{
    if (mChangedRequestId != -1) {
        PARVANE_WARN_AT(42, "already registered");
        return;
    }
    const int result = context_set_changed_callback(kGestureItem, nullptr, OnContextChanged, this,
                                                    &mChangedRequestId);
    if (result != 0) {
        PARVANE_ERROR_AT(48, "context_set_changed_callback FAIL [%d]", result);
    }
}

void ContextGestureSensor::Stop()
{
    const int result = context_unset_changed_callback(kGestureItem);
    if (result != 0) {
        PARVANE_ERROR_AT(57, "context_unset_changed_callback FAIL [%d]", result);
    }
    mChangedRequestId = -1;
}

void ContextGestureSensor::OnContextChanged(int /*error*/, int /*item*/, context_data *data,
                                            void *user_data, int request_id) noexcept
try {
    const auto self = Hold<ContextGestureSensor>(user_data);
    const PlatformPtr<context_data> owned(data);
    if (!self) {
        return;
    }
    const int32_t action = ReadInt(data, CONTEXT_MOTION_ACTION, 0);
    const auto seconds = static_cast<int32_t>(ReadTimestamp(data) / kMillisPerSecond);
    auto reading = std::make_shared<GestureData>(action, seconds);
    reading->mRequestId = request_id;
    self->UpdateSensorData(reading);
} catch (const std::exception &error) {
    PARVANE_ERROR("reading dropped [%s]", error.what());
}

} // namespace Parvane
