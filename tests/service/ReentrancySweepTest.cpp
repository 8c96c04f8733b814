#include <functional>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "LinkTest.h"
#include "Sweep.h"

// Re-entrancy: inside every call that the service makes into the platform, lines for the log
// included, before the call has an effect and after, the platform calls back with whatever it may.

namespace Parvane {
namespace {

struct Intrusion
{
    const char *mName;
    std::function<void(ServiceLife &)> mCome;
    /** Whether the service is to end, once, when it comes; nothing else may end it. */
    bool mEndsService = false;
};

void PrintTo(const Intrusion &intrusion, std::ostream *stream)
{
    *stream << intrusion.mName;
}

constexpr SensorType kListenedTo[] = {SensorType::Activity, SensorType::Gesture,
                                      SensorType::Pedometer, SensorType::HRM};

void TearDownLink(ServiceLife &life)
{
    life.ChangeLinkStatus(0);
}

void BounceLink(ServiceLife &life)
{
    life.ChangeLinkStatus(0);
    life.ChangeLinkStatus(1);
    life.Confirm();
    life.ConnectHost();
}

void LinkEvents(ServiceLife &life)
{
    life.Confirm();
    life.ReportPeer(8);
    life.ConnectHost(11);
    life.ConfirmConnection(12, 1);
    life.ConfirmConnection(12, 0);
    life.EndHostService();
}

// Each controller on its own, as it would take itself off.
void RemoveEachListener(ServiceLife &life)
{
    ParvaneController &hub = life.Controller();
    ScriptedPlatform::AsService([&hub] {
        hub.UnregisterSensorListener(SensorType::Activity,
                                     hub.GetControllInstanceByType(SensorType::Activity));
        hub.UnregisterSensorListener(SensorType::Pedometer,
                                     hub.GetControllInstanceByType(SensorType::Pedometer));
        hub.UnregisterSensorListener(SensorType::HRM,
                                     hub.GetControllInstanceByType(SensorType::HRM));
        hub.UnregisterSensorListener(SensorType::HRM,
                                     hub.GetControllInstanceByType(SensorType::WearState));
    });
}

void RemoveAllListeners(ServiceLife &life)
{
    ScriptedPlatform::AsService([&life] {
        for (const SensorType type : kListenedTo) {
            life.Controller().UnregisterAllSensorListeners(type);
        }
    });
}

void AskToMeasureEverything(ServiceLife &life)
{
    for (uint8_t sensor = 0; sensor < 6; ++sensor) {
        life.Ask({0x02, 0x00, 0x00, sensor});
    }
}

void DeliverReadings(ServiceLife &life)
{
    life.ReadActivity(3);
    life.ReadGesture(1);
    life.ReadHeartRate(66);
    life.ReadSteps(300.0);
    life.AnswerSteps(310.0);
    life.FailReading(ServiceLife::kHeartRateItem);
}

// All that a host and a link can do in one go, what was torn down included.
void Everything(ServiceLife &life)
{
    DeliverReadings(life);
    life.Ask({0x03, 0x00, 0x00, 0x01, 0x00});
    AskToMeasureEverything(life);
    BounceLink(life);
    DeliverReadings(life);
    life.Ask({0x01});
    life.Ask({0x04, 0x00, 0x00, 0x01});
    TearDownLink(life);
}

std::vector<Intrusion> Intrusions()
{
    return {
        {"LinkTornDown", TearDownLink},
        {"LinkBounces", BounceLink},
        {"LinkEvents", LinkEvents},
        {"ListenersRemoved", RemoveEachListener},
        {"AllListenersRemoved", RemoveAllListeners},
        {"ListRequested", [](ServiceLife &life) { life.Ask({0x01}); }},
        {"MeasuringRequested", AskToMeasureEverything},
        {"StartRequested",
         [](ServiceLife &life) {
             life.Ask({0x03, 0x00, 0x00, 0x01, 0x00});
         }},
        {"StopRequested",
         [](ServiceLife &life) {
             life.Ask({0x04, 0x00, 0x00, 0x01});
         }},
        {"ReadingsDelivered", DeliverReadings},
        {"LowMemory", [](ServiceLife &life) { life.RunLowOnMemory(); }, true},
        {"Launched", [](ServiceLife &life) { life.Launch(); }},
        {"Everything", Everything},
    };
}

// Steps are followed until the process ends, by one controller: a request that comes while the hub
// makes it has one made of its own, and a test may have taken the listener away.
void FollowStepsOnce(ServiceLife &life)
{
    if (!life.Platform().BooleanPreference("Parvane/data/pedometer/requested").value_or(false)) {
        return;
    }
    ScriptedPlatform::AsService([&life] {
        ParvaneController &hub = life.Controller();
        hub.UnregisterAllSensorListeners(SensorType::Pedometer);
        hub.RegisterSensorListener(SensorType::Pedometer,
                                   hub.GetControllInstanceByType(SensorType::Pedometer));
    });
}

// The life whose call is under way; none before the start and after the end of the service.
ServiceLife *gLife = nullptr;
bool gHasCome = false;

/** The service has ended if the scenario or the intrusion ends it, and only then. */
void ExpectRightEnd(const LifeRecord &record, const Reference &reference,
                    const Intrusion &intrusion)
{
    const bool endsByScenario = reference.mReplies.empty();
    const bool endsByIntrusion = intrusion.mEndsService && gHasCome;
    EXPECT_EQ(endsByScenario || endsByIntrusion, record.mHasEnded);
    if (!endsByIntrusion) {
        EXPECT_EQ(endsByScenario ? 1 : 0, record.mExitRequests);
    }
}

class ReentrancySweepTest : public testing::TestWithParam<Intrusion>
{
protected:
    /** Sweeps all scenarios; false when one has failed. */
    bool SweepScenarios(ScriptedPlatform::Moment moment, const char *what) const
    {
        FreshReplies(); // known before the process is multiplied
        for (const Scenario &scenario : Scenarios()) {
            if (!SweepOne(scenario, moment, what)) {
                return false;
            }
        }
        return true;
    }

private:
    bool SweepOne(const Scenario &scenario, ScriptedPlatform::Moment moment, const char *what) const
    {
        const Reference &reference = ReferenceOf(scenario);
        const Intrusion &intrusion = GetParam();
        Sweep sweep(what, std::string(intrusion.mName) + " in " + scenario.mName);
        for (int n = 1; n <= reference.mHookableCalls; ++n) {
            Disturbance disturbance;
            disturbance.mBegin = [&](ScriptedPlatform &platform) {
                platform.OnAnyCall(n, moment, [&intrusion] {
                    if (gLife != nullptr) {
                        gHasCome = true;
                        intrusion.mCome(*gLife);
                    }
                });
            };
            disturbance.mStart = [](ServiceLife &life) { gLife = &life; };
            disturbance.mEnd = [](ServiceLife & /*life*/) { gLife = nullptr; };
            disturbance.mRepair = FollowStepsOnce;
            const auto check = [&](const LifeRecord &record) {
                ExpectRightEnd(record, reference, intrusion);
                if (!record.mHasEnded) {
                    EXPECT_EQ(FreshReplies(), record.mReplies);
                }
                return record.mHasEnded ? "ended" : "served on";
            };
            if (!sweep.Point("inside call " + std::to_string(n), scenario, disturbance, check)) {
                return false;
            }
        }
        return true;
    }
};

TEST_P(ReentrancySweepTest, EveryCallMayBeEnteredBeforeItsEffect)
{
    EXPECT_TRUE(SweepScenarios(ScriptedPlatform::Moment::Before, "calls entered at their begin"));
}

TEST_P(ReentrancySweepTest, EveryCallMayBeEnteredAfterItsEffect)
{
    EXPECT_TRUE(SweepScenarios(ScriptedPlatform::Moment::After, "calls entered at their end"));
}

INSTANTIATE_TEST_SUITE_P(Intrusions, ReentrancySweepTest, testing::ValuesIn(Intrusions()),
                         [](const auto &intrusion) { return intrusion.param.mName; });

} // namespace
} // namespace Parvane
