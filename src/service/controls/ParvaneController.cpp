#include "ParvaneController.h"

#include <utility>

#include "ActivityController.h"
#include "Command.h"
#include "DeviceManager.h"
#include "HRMController.h"
#include "Log.h"
#include "PedometerController.h"
#include "WearStateController.h"

namespace Parvane {

namespace {

// Every type is tried for a sensor list, those without a controller included.
constexpr SensorType kAllTypes[] = {SensorType::None,    SensorType::Activity,
                                    SensorType::Gesture, SensorType::Pedometer,
                                    SensorType::HRM,     SensorType::WearState};

} // namespace

void ParvaneController::StartService()
{
    mHostController.SetListener(shared_from_this());
    mHostController.Connect();
    GetControllInstanceByType(SensorType::Pedometer);
    GetControllInstanceByType(SensorType::Activity);
}

std::shared_ptr<ServiceController> ParvaneController::GetControllInstanceByType(SensorType type)
{
    const auto entry = mControllers.find(type);
    if (entry != mControllers.end()) {
        return entry->second;
    }
    std::shared_ptr<ServiceController> controller = CreateController(type);
    if (!controller) {
        PARVANE_WARN_AT(130, "Unknown or Not supported Sensor Type");
        return nullptr;
    }
    controller->Initialize();
    // One that was stored from within ends after the entry names the new one: its end is logged.
    const auto replaced = std::exchange(mControllers[type], controller);
    return controller;
}

std::shared_ptr<ServiceController> ParvaneController::CreateController(SensorType type)
{
    switch (type) {
    case SensorType::Activity:
        return std::make_shared<ActivityController>(shared_from_this());
    case SensorType::Pedometer:
        return std::make_shared<PedometerController>(shared_from_this());
    case SensorType::HRM:
        return std::make_shared<HRMController>(shared_from_this());
    case SensorType::WearState:
        return std::make_shared<WearStateController>(shared_from_this());
    case SensorType::None:
    case SensorType::Gesture:
        break;
    }
    return nullptr;
}

void ParvaneController::OnRequestEvent(std::shared_ptr<HeaderData> request)
{
    switch (request->mMessageType) {
    case CommandSensorList:
        AnswerSensorList(std::static_pointer_cast<SensorListData>(request));
        break;
    case CommandMeasureOnce:
    case CommandStart:
    case CommandStop:
    case CommandOption:
        ServeSensorRequest(std::static_pointer_cast<SensorData>(request));
        break;
    default:
        PARVANE_WARN_AT(77, "Undefined Message");
        break;
    }
}

void ParvaneController::AnswerSensorList(const std::shared_ptr<SensorListData> &list)
{
    DeviceManager device;
    device.FillDeviceAddress(list);
    for (const SensorType type : kAllTypes) {
        const std::shared_ptr<ServiceController> controller = GetControllInstanceByType(type);
        if (controller) {
            list->mSensorList->push_back(controller->GetSensorInfo());
        }
    }
    mHostController.SendResponse(list);
}

void ParvaneController::ServeSensorRequest(std::shared_ptr<SensorData> request)
{
    const SensorType type = DeviceManager::GetSensorTypeById(request->mCategory);
    const std::shared_ptr<ServiceController> controller = GetControllInstanceByType(type);
    if (controller) {
        controller->ProcessReqeust(std::move(request));
    }
}

void ParvaneController::OnHostServiceTerminated()
{
    NotifyControllers(&ServiceController::OnHostServiceTerminated);
}

void ParvaneController::OnHostDisconnected()
{
    NotifyControllers(&ServiceController::OnHostDisconnected);
}

void ParvaneController::NotifyControllers(void (ServiceController::*event)())
{
    // A controller that is made during the walk is added to the map; none is ever taken out.
    for (const auto &[type, controller] : mControllers) {
        ((*controller).*event)();
    }
}

void ParvaneController::RegisterSensorListener(SensorType type,
                                               std::shared_ptr<ContextSensorListner> listener)
{
    mContextManagerProxy.RegisterSensorListner(type, std::move(listener));
}

void ParvaneController::UnregisterSensorListener(SensorType type,
                                                 std::shared_ptr<ContextSensorListner> listener)
{
    mContextManagerProxy.UnregisterSensorListner(type, listener.get());
}

void ParvaneController::UnregisterAllSensorListeners(SensorType type)
{
    mContextManagerProxy.UnregisterLisnterAll(type);
}

void ParvaneController::RequestCurrentSensorData(SensorType type)
{
    mContextManagerProxy.RequestCurrentSensorData(type);
}

void ParvaneController::SendSensorData(std::shared_ptr<SensorData> record)
{
    mHostController.SendResponse(std::move(record));
}

} // namespace Parvane
