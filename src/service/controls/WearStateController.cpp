#include "WearStateController.h"

#include <exception>
#include <utility>

#include "Command.h"
#include "HRMData.h"
#include "Log.h"
#include "OneShotTimer.h"
#include "Reply.h"
#include "WearStateData.h"

namespace Parvane {

namespace {

constexpr guint kMeasuringPeriodMs = 3000;
constexpr int32_t kMinDelayMs = 1000;
constexpr int32_t kHeartRateNotWorn = -3;
constexpr float kWorn = 1.0F;
constexpr float kNotWorn = 0.0F;

} // namespace

WearStateController::WearStateController(std::shared_ptr<SensorControlListener> listener)
    : ServiceController(std::move(listener))
{}

WearStateController::~WearStateController()
{
    if (mListener) {
        mListener->UnregisterSensorListener(SensorType::HRM, AddressOnly());
    }
}

void WearStateController::OnSensorDataUpdated(std::shared_ptr<SensorData> data)
{
    if (mResultSent) {
        return;
    }
    const auto reading = std::dynamic_pointer_cast<HRMData>(data);
    if (!reading) {
        PARVANE_ERROR("NULL Failed to create HRMController instance");
        return;
    }
    mResultSent = true;
    SendDataToHost(reading->GetHeartRate() == kHeartRateNotWorn ? kNotWorn : kWorn);
}

SensorType WearStateController::GetSensorType()
{
    return SensorType::WearState;
}

std::shared_ptr<SensorInfo> WearStateController::GetSensorInfo()
{
    return DescribeSensor(kWorn, kMinDelayMs);
}

void WearStateController::OnHostServiceTerminated() {}

void WearStateController::OnHostDisconnected()
{
    StopSensor(nullptr);
}

void WearStateController::Initialize() {}

void WearStateController::MeasureCurrentSensorValue(std::shared_ptr<SensorData> request)
{
    if (request && request->mMessageType == CommandStart) {
        PARVANE_WARN("HRM requested with Active mode: this is not supported");
        return;
    }
    if (mMeasuring) {
        PARVANE_WARN("HRM measuring is in progress : [DO NOTHING]");
        return;
    }
    auto target = MakeTimerTarget(shared_from_this());
    mResultSent = false;
    mMeasuring = true;
    StartOneShotTimer(kMeasuringPeriodMs, OnTimerFired, std::move(target));
    if (mListener) {
        mListener->RegisterSensorListener(SensorType::HRM, shared_from_this());
    }
}

gboolean WearStateController::OnTimerFired(gpointer data) noexcept
try {
    const auto self = TakeTimerTarget<WearStateController>(data);
    if (!self) {
        return G_SOURCE_REMOVE;
    }
    if (self->mListener) {
        self->mListener->UnregisterSensorListener(SensorType::HRM, self);
    }
    self->mMeasuring = false;
    if (!self->mResultSent) {
        self->mResultSent = true;
        self->SendDataToHost(kNotWorn);
    }
    return G_SOURCE_REMOVE;
} catch (const std::exception &error) {
    PARVANE_ERROR("reply dropped [%s]", error.what());
    return G_SOURCE_REMOVE;
}

void WearStateController::SendDataToHost(float wearState)
{
    const auto reply = MakeReply<WearStateData>(mLastRequest);
    if (!reply) {
        PARVANE_ERROR("NULL Failed to create HRMData instance.");
        return;
    }
    reply->SetStatus(wearState);
    if (mListener) {
        mListener->SendSensorData(reply);
    }
}

} // namespace Parvane
