#include "HRMController.h"

#include <exception>
#include <utility>

#include <platform/power.h>

#include "Command.h"
#include "Log.h"
#include "OneShotTimer.h"
#include "Reply.h"

namespace Parvane {

namespace {

constexpr guint kMeasuringPeriodMs = 15000;
constexpr int kPowerState = 2;
constexpr int kPowerLockMs = 16000; // one second longer than the period; ends by itself
constexpr float kMaxHeartRate = 200.0F;

} // namespace

HRMController::HRMController(std::shared_ptr<SensorControlListener> listener)
    : ServiceController(std::move(listener))
{}

HRMController::~HRMController()
{
    if (mListener) {
        mListener->UnregisterSensorListener(SensorType::HRM, AddressOnly());
    }
}

void HRMController::OnSensorDataUpdated(std::shared_ptr<SensorData> data)
{
    auto reading = std::dynamic_pointer_cast<HRMData>(data);
    if (!reading) {
        PARVANE_ERROR("NULL Failed to create HRMController instance");
        return;
    }
    if (reading->GetHeartRate() <= 0) {
        return;
    }
    mLatestReading = std::move(reading);
    mHasReading = true;
}

SensorType HRMController::GetSensorType()
{
    return SensorType::HRM;
}

std::shared_ptr<SensorInfo> HRMController::GetSensorInfo()
{
    return DescribeSensor(kMaxHeartRate, kMeasuringPeriodMs);
}

void HRMController::OnHostServiceTerminated() {}

void HRMController::OnHostDisconnected()
{
    StopSensor(nullptr);
}

void HRMController::Initialize() {}

void HRMController::MeasureCurrentSensorValue(std::shared_ptr<SensorData> request)
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
    mHasReading = false;
    mMeasuring = true;
    StartOneShotTimer(kMeasuringPeriodMs, OnTimerFired, std::move(target));
    if (mListener) {
        mListener->RegisterSensorListener(SensorType::HRM, shared_from_this());
    }
    if (power_lock_state(kPowerState, kPowerLockMs) != 0) {
        PARVANE_ERROR("Setting the keep power is failed, the HRM sensor value may have dealy to "
                      "deliver to the host");
    }
}

gboolean HRMController::OnTimerFired(gpointer data) noexcept
try {
    const auto self = TakeTimerTarget<HRMController>(data);
    if (!self) {
        return G_SOURCE_REMOVE;
    }
    self->mMeasuring = false;
    if (self->mListener) {
        self->mListener->UnregisterSensorListener(SensorType::HRM, self);
    }
    const auto reply = MakeReply<HRMData>(self->mLastRequest);
    if (!reply) {
        PARVANE_ERROR("NULL Failed to create HRMData instance");
        return G_SOURCE_REMOVE;
    }
    reply->SetHeartRate(self->mHasReading ? self->mLatestReading->GetHeartRate() : 0);
    if (self->mListener) {
        self->mListener->SendSensorData(reply);
    }
    return G_SOURCE_REMOVE;
} catch (const std::exception &error) {
    PARVANE_ERROR("reply dropped [%s]", error.what());
    return G_SOURCE_REMOVE;
}

} // namespace Parvane
