#pragma once

#include <map>
#include <memory>

#include "ContextManagerProxy.h"
#include "HostController.h"
#include "HostEventListener.h"
#include "SensorControlListener.h"
#include "SensorListData.h"
#include "ServiceController.h"

namespace Parvane {

/**
 * The hub of the service: host requests go to the controller of their sensor, and controllers reach
 * the sensors and the host through here.
 *
 * Owned through a shared pointer. From StartService on its own parts refer back to it, so it lives
 * until the process exits. Main-loop thread only.
 */
class ParvaneController : public HostEventListener,
                          public SensorControlListener,
                          public std::enable_shared_from_this<ParvaneController>
{
public:
    ParvaneController() = default;
    ParvaneController(const ParvaneController &) = delete;
    ParvaneController &operator=(const ParvaneController &) = delete;
    ~ParvaneController() override = default;

    /** Starts the link, then the pedometer and activity controllers. Called once. */
    void StartService();

    /**
     * The controller of a type, made when it is first asked for.
     *
     * @return null, logged, for a type that the host cannot ask for (None, Gesture)
     */
    std::shared_ptr<ServiceController> GetControllInstanceByType(SensorType type);

    void OnRequestEvent(std::shared_ptr<HeaderData> request) override;
    void OnHostServiceTerminated() override;
    void OnHostDisconnected() override;

    void RegisterSensorListener(SensorType type,
                                std::shared_ptr<ContextSensorListner> listener) override;
    void UnregisterSensorListener(SensorType type,
                                  std::shared_ptr<ContextSensorListner> listener) override;
    void UnregisterAllSensorListeners(SensorType type) override;
    void RequestCurrentSensorData(SensorType type) override;
    void SendSensorData(std::shared_ptr<SensorData> record) override;

private:
    std::shared_ptr<ServiceController> CreateController(SensorType type);
    void AnswerSensorList(const std::shared_ptr<SensorListData> &list);
    void ServeSensorRequest(std::shared_ptr<SensorData> request);
    void NotifyControllers(void (ServiceController::*event)());

    HostController mHostController;
    std::map<SensorType, std::shared_ptr<ServiceController>> mControllers;
    ContextManagerProxy mContextManagerProxy;
};

} // namespace Parvane
