#include <memory>

#include "GestureController.h"
#include "Requests.h"
#include "ServiceLife.h"

namespace Parvane {

namespace {

using FlaggedRequest::kMeasureActivity;
using FlaggedRequest::kMeasureHeartRate;
using FlaggedRequest::kMeasureSteps;
using FlaggedRequest::kMeasureWearState;
using FlaggedRequest::kStartActivity;
using FlaggedRequest::kStopActivity;
using Request::kListInOneByte;

constexpr int64_t kSecondsPerDay = 86400;

void StoreADay(ScriptedPlatform &platform)
{
    platform.SetPreference("Parvane/data/pedometer/requested", true);
    platform.SetPreference("Parvane/data/pedometer/value", "1200 200 1000 800.5 60 0");
    platform.SetPreference("Parvane/data/pedometer/time",
                           static_cast<int>(ScriptedPlatform::kStartSeconds - 3600));
}

void StoreADamagedDay(ScriptedPlatform &platform)
{
    StoreADay(platform);
    platform.SetPreference("Parvane/data/pedometer/value", "damaged 1e");
}

void Nothing(ServiceLife & /*life*/) {}

void ListTheSensors(ServiceLife &life)
{
    life.BringUpLink();
    life.Ask(kListInOneByte);
    life.Ask({0x31, 0x00});
}

void MeasureEachSensorOnce(ServiceLife &life)
{
    life.BringUpLink();
    life.Ask(kMeasureActivity);
    life.Ask(kMeasureSteps);
    life.Wait(500);
    life.AnswerSteps(1000.0);
    life.Ask(kMeasureSteps);
    life.AnswerSteps(1010.0);
    life.Ask(kMeasureHeartRate);
    life.ReadHeartRate(-1);
    life.ReadHeartRate(72);
    life.Wait(15000);
    life.Ask(kMeasureWearState);
    life.ReadHeartRate(-3);
    life.Wait(3000);
    life.Ask(kMeasureWearState);
    life.Wait(3000);
}

void StartAndStop(ServiceLife &life)
{
    life.BringUpLink();
    life.Ask(kStartActivity);
    life.ReadActivity(2);
    life.Ask(kStartActivity);
    life.ReadActivity(3);
    life.Ask(kStopActivity);
    life.Ask(kStopActivity);
    life.Ask(kStartActivity);
    life.ReadActivity(6);
    for (const uint8_t sensor : {uint8_t{2}, uint8_t{3}, uint8_t{4}}) {
        life.Ask({0x13, 0x00, 0x00, sensor, 0x00});
        life.Ask({0x14, 0x00, 0x00, sensor});
    }
    life.Wait(500);
    life.AnswerSteps(400.0);
}

void WalkOverMidnight(ServiceLife &life)
{
    const ScopedTimeZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
    life.BringUpLink();
    life.Ask(kMeasureSteps);
    life.Wait(500);
    life.AnswerSteps(1000.0);
    life.ReadSteps(1010.0);
    life.Platform().SetTime(life.Platform().Seconds() + kSecondsPerDay);
    life.ReadSteps(1030.0);
    life.ReadSteps(900.0); // the counter began anew
    life.ReadSteps(1040.0);
    life.Platform().SetTime(life.Platform().Seconds() - 2 * kSecondsPerDay);
    life.ReadSteps(1050.0);
}

void ResumeTheDay(ServiceLife &life)
{
    life.BringUpLink();
    life.ReadSteps(100.0);
    life.ReadSteps(150.0);
    life.Ask(kMeasureSteps);
    life.AnswerSteps(160.0);
}

void FollowGestures(ServiceLife &life)
{
    life.BringUpLink();
    if (life.HasEnded()) {
        return;
    }
    ScriptedPlatform::AsService([&life] {
        // Nobody asks for it over the link: it is made where the hub would make it.
        try {
            auto gestures =
                std::make_shared<GestureController>(life.Controller().shared_from_this());
            gestures->Initialize();
            auto request = std::make_shared<SensorData>();
            request->mMessageType = 3;
            gestures->ProcessReqeust(request);
        } catch (const std::bad_alloc &) {
        }
    });
    life.ReadGesture(1);
    life.ReadGesture(2);
    if (!life.HasEnded()) {
        ScriptedPlatform::AsService(
            [&life] { life.Controller().UnregisterAllSensorListeners(SensorType::Gesture); });
    }
}

void WearStateDuringHeartRate(ServiceLife &life)
{
    life.BringUpLink();
    life.Ask(kMeasureHeartRate);
    life.Ask(kMeasureWearState);
    life.Ask(kMeasureHeartRate);
    life.Ask(kMeasureWearState);
    life.ReadHeartRate(80);
    life.Wait(3000);
    life.ReadHeartRate(82);
    life.Wait(12000);
}

void LoseTheLinkAndGetItBack(ServiceLife &life)
{
    life.BringUpLink();
    life.Ask(kStartActivity);
    life.Ask(kMeasureHeartRate);
    life.Ask(kMeasureSteps);
    life.ChangeLinkStatus(0);
    life.ReadActivity(2);
    life.ReadSteps(10.0);
    life.Wait(15000); // the reply is tried though nobody is there
    life.BringUpLink();
    life.Ask(kMeasureActivity);
    life.ChangeLinkStatus(2);
    life.ChangeLinkStatus(1);
    life.ChangeLinkStatus(0);
    life.ChangeLinkStatus(0);
}

void HostVanishes(ServiceLife &life)
{
    life.BringUpLink();
    life.Ask(kStartActivity);
    life.EndHostService();
    life.ReadActivity(2); // sent to nobody
    life.Ask(kMeasureHeartRate);
    life.EndHostService();
    life.Wait(15000);
    life.ConnectHost(8); // it is back under another number
    life.Ask(kStopActivity);
    life.ConfirmConnection(9, 1);
    life.ConfirmConnection(9, 0);
    life.Ask(kMeasureActivity);
}

void SearchForThePeer(ServiceLife &life)
{
    life.ChangeLinkStatus(1);
    life.Confirm(-1);
    for (int i = 0; i < 12; ++i) {
        life.ReportPeer(i % 2 == 0 ? 3 : 8);
    }
    life.ReportPeer(0);
    life.ReportPeer(8);
    life.ConnectHost();
    life.Ask(kMeasureActivity);
}

void OddRequests(ServiceLife &life)
{
    life.BringUpLink();
    life.Ask({});
    for (const uint8_t header : {uint8_t{0x00}, uint8_t{0x05}, uint8_t{0x0F}, uint8_t{0xFF}}) {
        life.Ask({header, 0x00, 0x00, 0x01});
    }
    life.Ask({0x02});
    life.Ask({0x02, 0x00, 0x00, 0x09});
    life.Ask({0x73, 0x00, 0x00, 0x01});
    life.Ask(Bytes(4096, 0x02));
    life.Ask(Bytes(60, 0x04));
}

void BrokenReadings(ServiceLife &life)
{
    life.BringUpLink();
    life.Ask(kStartActivity);
    life.Ask(kMeasureHeartRate);
    life.Ask(kMeasureSteps);
    for (const int item :
         {ServiceLife::kActivityItem, ServiceLife::kHeartRateItem, ServiceLife::kPedometerItem}) {
        life.FailReading(item);
        life.Read(item, {});
    }
    life.ReadSteps(-1e300);
    life.ReadSteps(500.0);
    life.Wait(15000);
}

void Launched(ServiceLife &life)
{
    life.Launch();
    life.BringUpLink();
    life.Launch();
    life.Ask(kListInOneByte);
}

// The key registers while a retry is waiting, which then registers again.
void FailTheFirstRegistration(ScriptedPlatform &platform)
{
    platform.FailNext("registerServiceAgent", -1);
}

void RegisterTwice(ServiceLife &life)
{
    life.ChangeLinkStatus(1);
    life.Confirm();
    life.ConnectHost();
    life.Wait(10);
    life.Confirm();
    life.ConnectHost();
    life.Ask(kMeasureActivity);
}

void LowMemory(ServiceLife &life)
{
    life.BringUpLink();
    life.Ask(kMeasureHeartRate);
    life.RunLowOnMemory();
}

void LowBattery(ServiceLife &life)
{
    life.BringUpLink();
    life.Ask(kMeasureSteps);
    life.Wait(500);
    life.AnswerSteps(50.0);
    life.RunLowOnBattery();
}

} // namespace

const std::vector<Scenario> &Scenarios()
{
    static const std::vector<Scenario> scenarios = {
        {"Start", nullptr, Nothing},
        {"StartWithOptIn", StoreADay, ResumeTheDay},
        {"StartWithDamagedDay", StoreADamagedDay, ResumeTheDay},
        {"List", nullptr, ListTheSensors},
        {"MeasureOnce", nullptr, MeasureEachSensorOnce},
        {"StartAndStop", nullptr, StartAndStop},
        {"Midnight", nullptr, WalkOverMidnight},
        {"Gestures", nullptr, FollowGestures},
        {"WearStateDuringHeartRate", nullptr, WearStateDuringHeartRate},
        {"LinkDropAndReturn", nullptr, LoseTheLinkAndGetItBack},
        {"HostVanishes", nullptr, HostVanishes},
        {"PeerSearch", nullptr, SearchForThePeer},
        {"OddRequests", nullptr, OddRequests},
        {"BrokenReadings", nullptr, BrokenReadings},
        {"Launched", nullptr, Launched},
        {"RegisteredTwice", FailTheFirstRegistration, RegisterTwice},
        {"LowMemory", nullptr, LowMemory},
        {"LowBattery", nullptr, LowBattery},
    };
    return scenarios;
}

} // namespace Parvane
