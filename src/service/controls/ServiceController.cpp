#include "ServiceController.h"

#include <utility>

#include "Command.h"
#include "Log.h"

namespace Parvane {

ServiceController::ServiceController(std::shared_ptr<SensorControlListener> listener)
    : mListener(std::move(listener))
{}

SensorType ServiceController::GetSensorType()
{
    return SensorType::None;
}

void ServiceController::OnHostServiceTerminated() {}

void ServiceController::OnHostDisconnected() {}

void ServiceController::MeasureCurrentSensorValue(std::shared_ptr<SensorData> /*request*/) {}

void ServiceController::StartSensor(std::shared_ptr<SensorData> /*request*/) {}

void ServiceController::StopSensor(std::shared_ptr<SensorData> /*request*/) {}

void ServiceController::ProcessReqeust(std::shared_ptr<SensorData> request)
{
    if (!request) {
        // The text names one sensor whatever the controller.
        PARVANE_ERROR_AT(43, "Activity is requested but the data is NULL point");
        return;
    }
    switch (request->mMessageType) {
    case CommandMeasureOnce:
        MeasureCurrentSensorValue(request);
        mLastRequest = std::move(request); // only now: the call sees the one before
        break;
    case CommandStart:
        if (!mStarted) {
            StartSensor(request);
        }
        mActiveRequest = request;
        mStarted = true;
        MeasureCurrentSensorValue(std::move(request));
        break;
    case CommandStop:
        if (mStarted) {
            StopSensor(request);
        }
        mStarted = false;
        mActiveRequest = request;
        request->mMessageType = CommandStop;
        request->mHeaderCode = 0;
        if (mListener) {
            mListener->SendSensorData(std::move(request));
        }
        break;
    default:
        PARVANE_ERROR_AT(66, "Error Unknown commend");
        break;
    }
}

std::shared_ptr<ContextSensorListner> ServiceController::AddressOnly()
{
    return {std::shared_ptr<ContextSensorListner>(), this};
}

std::shared_ptr<SensorInfo> ServiceController::DescribeSensor(float maxRange, int32_t minDelayMs,
                                                              uint16_t reserved)
{
    auto info = std::make_shared<SensorInfo>();
    info->mSensorType = GetSensorType();
    info->mSensorId = DeviceManager::SensorIdByType(GetSensorType());
    info->mAvailable = 1;
    info->mMaxRange = maxRange;
    info->mResolution = 1.0F;
    info->mMinValue = 0.0F;
    info->mMinDelay = minDelayMs;
    info->mReserved = reserved;
    return info;
}

} // namespace Parvane
