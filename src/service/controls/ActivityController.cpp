#include "ActivityController.h"

#include <utility>

#include "ActivityData.h"
#include "Command.h"
#include "DeviceManager.h"
#include "GestureData.h"
#include "Log.h"
#include "Reply.h"

namespace Parvane {

namespace {

constexpr float kMaxActivity = 2.0F;
constexpr int32_t kMinDelayMs = 5000;

// A wrist gesture counts as an activity of its own.
constexpr int32_t kWristGesture = 1;
constexpr int32_t kWristGestureActivity = 6;

// An update as an activity: an activity as it is, a gesture translated; null for any other kind.
std::shared_ptr<ActivityData> ToActivity(const std::shared_ptr<SensorData> &data)
{
    if (data->GetSensorType() == SensorType::Activity) {
        return std::static_pointer_cast<ActivityData>(data);
    }
    if (data->GetSensorType() != SensorType::Gesture) {
        return nullptr;
    }
    const auto &gesture = static_cast<const GestureData &>(*data);
    auto activity = std::make_shared<ActivityData>();
    activity->SetStatus(gesture.GetAction() == kWristGesture ? kWristGestureActivity : 0);
    return activity;
}

} // namespace

ActivityController::ActivityController(std::shared_ptr<SensorControlListener> listener)
    : ServiceController(std::move(listener))
{}

ActivityController::~ActivityController()
{
    if (mListener) {
        mListener->UnregisterSensorListener(SensorType::Activity, AddressOnly());
    }
}

void ActivityController::OnSensorDataUpdated(std::shared_ptr<SensorData> data)
{
    const std::shared_ptr<ActivityData> activity = ToActivity(data);
    if (!activity) {
        return;
    }
    mLastActivity = activity->GetStatus();
    if (!mListener || !mStarted) {
        return;
    }
    activity->mHeaderCode = 0;
    activity->mMessageType = CommandStart;
    activity->mMessageFlags = mActiveRequest->mMessageFlags;
    activity->mCategory = DeviceManager::SensorIdByType(activity->GetSensorType());
    mListener->SendSensorData(activity);
}

SensorType ActivityController::GetSensorType()
{
    return SensorType::Activity;
}

std::shared_ptr<SensorInfo> ActivityController::GetSensorInfo()
{
    return DescribeSensor(kMaxActivity, kMinDelayMs);
}

void ActivityController::OnHostServiceTerminated() {}

void ActivityController::OnHostDisconnected()
{
    StopSensor(nullptr);
}

void ActivityController::Initialize() {}

void ActivityController::MeasureCurrentSensorValue(std::shared_ptr<SensorData> request)
{
    const auto reply = request ? MakeReply<ActivityData>(request) : nullptr;
    if (!reply) {
        PARVANE_ERROR("NULL Failed to create ActivityData instance");
        return;
    }
    reply->SetStatus(mLastActivity);
    if (mListener) {
        mListener->SendSensorData(reply);
    }
}

void ActivityController::StartSensor(std::shared_ptr<SensorData> /*request*/)
{
    if (mListener) {
        mListener->RegisterSensorListener(SensorType::Activity, shared_from_this());
    }
}

void ActivityController::StopSensor(std::shared_ptr<SensorData> /*request*/)
{
    if (mListener) {
        mListener->UnregisterSensorListener(SensorType::Activity, shared_from_this());
    }
}

} // namespace Parvane
