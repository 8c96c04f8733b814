#include "FuzzedService.h"

#include <map>
#include <memory>
#include <set>
#include <utility>

#include "LinkTest.h"
#include "Require.h"
#include "RunningService.h"

namespace Parvane {

namespace {

/**
 * Makes a private member known: an explicit instantiation may name it. The service has no operation
 * that takes it apart, and needs none.
 */
template <typename Name, typename Name::Type kMember>
struct Expose
{
    friend typename Name::Type MemberOf(Name) { return kMember; }
};

struct Controllers
{
    using Type = std::map<SensorType, std::shared_ptr<ServiceController>> ParvaneController::*;
    friend Type MemberOf(Controllers);
};
template struct Expose<Controllers, &ParvaneController::mControllers>;

struct Host
{
    using Type = HostController ParvaneController::*;
    friend Type MemberOf(Host);
};
template struct Expose<Host, &ParvaneController::mHostController>;

struct Proxy
{
    using Type = ContextManagerProxy ParvaneController::*;
    friend Type MemberOf(Proxy);
};
template struct Expose<Proxy, &ParvaneController::mContextManagerProxy>;

struct Known
{
    using Type =
        std::map<SensorType, std::set<std::shared_ptr<ContextSensor>>> ContextManagerProxy::*;
    friend Type MemberOf(Known);
};
template struct Expose<Known, &ContextManagerProxy::mKnown>;

} // namespace

} // namespace Parvane

namespace ParvaneFuzz {

using namespace Parvane;

FuzzedService::FuzzedService(ScriptedPlatform &platform, const std::function<void()> &beforeCreate)
    : mPlatform(platform)
{
    LeadLinkBack(platform);
    platform.SetMainLoop([&](const service_app_callbacks &callbacks, void *userData) {
        mCallbacks = callbacks;
        mCell = userData;
        if (beforeCreate) {
            beforeCreate();
        }
        ScriptedPlatform::AsService(
            [this] { Require(mCallbacks.create(mCell), "create never refuses to start"); });
        return 0;
    });
    CallMain();
}

FuzzedService::~FuzzedService()
{
    mPlatform.SucceedAgain();
    mPlatform.StopFailingAllocations();
    WaitForTimers();
    ConnectionManager::GetInstance()->SetListener(nullptr);
    auto service = *static_cast<std::shared_ptr<ParvaneController> *>(mCell);
    mCallbacks.terminate(mCell);
    std::set_new_handler(nullptr);

    for (const SensorType type : {SensorType::Activity, SensorType::Gesture, SensorType::Pedometer,
                                  SensorType::HRM, SensorType::WearState}) {
        service->UnregisterAllSensorListeners(type);
    }
    // A sensor whose registration has ended in an exception is known, and may be subscribed, without being shared.
    auto &proxy = (*service).*MemberOf(Proxy());
    for (const auto &[type, sensors] : std::exchange(proxy.*MemberOf(Known()), {})) {
        for (const auto &sensor : sensors) {
            sensor->Stop();
        }
    }
    std::exchange((*service).*MemberOf(Controllers()), {}).clear();
    ((*service).*MemberOf(Host())).SetListener(nullptr);
    const std::weak_ptr<ParvaneController> canary = service;
    service.reset();
    Require(canary.expired(), "nothing holds the service but its own parts");
}

void FuzzedService::WaitForTimers()
{
    // A timer may set another one; the chain ends where nothing fails any more.
    for (int round = 0; !mPlatform.PendingTimers().empty(); ++round) {
        Require(round < 10, "timers end");
        mPlatform.AdvanceTime(mPlatform.PendingTimers().back());
    }
}

} // namespace ParvaneFuzz
