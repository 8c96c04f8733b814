#include "GestureController.h"

#include <utility>

#include "GestureData.h"
#include "Log.h"
#include "Reply.h"

namespace Parvane {

GestureController::GestureController(std::shared_ptr<SensorControlListener> listener)
    : ServiceController(listener), mOwnListener(std::move(listener))
{}

GestureController::~GestureController()
{
    if (mOwnListener) {
        mOwnListener->UnregisterSensorListener(SensorType::Gesture, AddressOnly());
    }
}

void GestureController::OnSensorDataUpdated(std::shared_ptr<SensorData> data)
{
    const auto gesture = std::dynamic_pointer_cast<GestureData>(data);
    if (!gesture) {
        return;
    }
    mLastGesture = gesture->GetAction();
    if (mOwnListener && mStarted) {
        mOwnListener->SendSensorData(gesture); // unchanged, with the header it came with
    }
}

SensorType GestureController::GetSensorType()
{
    return SensorType::Gesture;
}

std::shared_ptr<SensorInfo> GestureController::GetSensorInfo()
{
    return std::make_shared<SensorInfo>();
}

void GestureController::Initialize()
{
    if (mOwnListener) {
        mOwnListener->RegisterSensorListener(GetSensorType(), shared_from_this());
    }
}

void GestureController::MeasureCurrentSensorValue(std::shared_ptr<SensorData> request)
{
    const auto reply = request ? MakeReply<GestureData>(request) : nullptr;
    if (!reply) {
        PARVANE_ERROR("NULL point error");
        return;
    }
    reply->SetAction(mLastGesture);
    if (mOwnListener) {
        mOwnListener->SendSensorData(reply);
    }
}

} // namespace Parvane
