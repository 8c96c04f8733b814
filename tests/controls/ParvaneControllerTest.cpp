#include "ParvaneController.h"

#include <memory>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/context_manager.h>

#include "HRMController.h"
#include "HRMData.h"
#include "LinkTest.h"
#include "LogMatchers.h"
#include "PedometerController.h"
#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class PlainListner : public ContextSensorListner
{
public:
    void OnSensorDataUpdated(std::shared_ptr<SensorData> data) override
    {
        mUpdated.push_back(std::move(data));
    }

    void OnSensorDataChanged(std::shared_ptr<SensorData> data) override
    {
        mChanged.push_back(std::move(data));
    }

    std::vector<std::shared_ptr<SensorData>> mUpdated;
    std::vector<std::shared_ptr<SensorData>> mChanged;
};

class ParvaneControllerTest : public LinkTest
{
protected:
    void TearDown() override
    {
        // Its own parts refer to it: it lives as long as the process, and is never lost.
        static auto *const forever = new std::vector<std::shared_ptr<ParvaneController>>;
        forever->push_back(mController);
    }

    // Started and connected to the host.
    void Start()
    {
        mController->StartService();
        mPlatform.SetKey(kStatusKey, 1);
        mPlatform.ConfirmRegistration(0, kAgent);
        HostConnects();
        mPlatform.Forget();
    }

    static std::shared_ptr<SensorData> MakeRequest(int command, uint8_t category)
    {
        auto request = std::make_shared<SensorData>();
        request->mMessageType = command;
        request->mCategory = category;
        return request;
    }

    static std::shared_ptr<SensorListData> MakeListRequest()
    {
        auto request = std::make_shared<SensorListData>();
        request->mMessageType = 1;
        return request;
    }

    static auto UnsupportedType()
    {
        return WarningLine("ParvaneController: GetControllInstanceByType(130)",
                           "Unknown or Not supported Sensor Type");
    }

    std::shared_ptr<ParvaneController> mController = std::make_shared<ParvaneController>();
};

TEST_F(ParvaneControllerTest, NewControllerAsksForNothing)
{
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ParvaneControllerTest, ControllerThatIsNotStartedGoesWithItsLastReference)
{
    const std::weak_ptr<ParvaneController> canary = mController;

    mController.reset();

    EXPECT_TRUE(canary.expired());
}

TEST_F(ParvaneControllerTest, StartedControllerLivesOnByItsOwnParts)
{
    mController->StartService();
    const std::weak_ptr<ParvaneController> canary = mController;

    mController.reset();

    EXPECT_FALSE(canary.expired());
    mController = canary.lock();
}

TEST_F(ParvaneControllerTest, StartingStartsTheLinkThenThePedometerThenTheActivity)
{
    mController->StartService();

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("registerNotifications()", "registerServiceAgent()",
                            "preference_is_existing(Parvane/data/pedometer/value)",
                            "preference_get_boolean(Parvane/data/pedometer/requested)"));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ParvaneControllerTest, StartingGoesOnWhenTheLinkFails)
{
    mPlatform.FailNext("registerNotifications", -1);

    mController->StartService();

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("registerNotifications()", "g_timeout_add(5)",
                            "preference_is_existing(Parvane/data/pedometer/value)",
                            "preference_get_boolean(Parvane/data/pedometer/requested)"));
}

TEST_F(ParvaneControllerTest, StartingWithAStoredOptInSubscribesToThePedometer)
{
    mPlatform.SetPreference("Parvane/data/pedometer/requested", true);

    mController->StartService();

    EXPECT_TRUE(mPlatform.IsSubscribed(2));
    EXPECT_FALSE(mPlatform.IsSubscribed(23));
}

TEST_F(ParvaneControllerTest, ControllerWithoutOwnerCannotStart)
{
    ParvaneController unowned;

    EXPECT_THROW(unowned.StartService(), std::bad_weak_ptr);
    EXPECT_THROW(unowned.GetControllInstanceByType(SensorType::HRM), std::bad_weak_ptr);
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(ParvaneControllerTest, SupportedTypesHaveTheirControllers)
{
    for (const int type : {1, 3, 4, 5}) {
        const auto controller = mController->GetControllInstanceByType(SensorType(type));
        ASSERT_NE(nullptr, controller);
        EXPECT_EQ(SensorType(type), controller->GetSensorType());
    }
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ParvaneControllerTest, AnyOtherTypeHasNoneAndIsWarnedAbout)
{
    for (const int type : {0, 2, 6, -1, 1000}) {
        EXPECT_EQ(nullptr, mController->GetControllInstanceByType(SensorType(type)));
        EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(UnsupportedType()));
    }
}

TEST_F(ParvaneControllerTest, UnsupportedTypeIsOneLine)
{
    mController->GetControllInstanceByType(SensorType::Gesture);

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(LogLine{5, "Parvane",
                                    "ParvaneController: GetControllInstanceByType(130) > "
                                    "\033[1;40;33mUnknown or Not supported Sensor Type\033[0;m"}));
    EXPECT_FALSE(mPlatform.IsSubscribed(1));
}

TEST_F(ParvaneControllerTest, TypeHasTheSameControllerEveryTime)
{
    mController->StartService();

    for (const int type : {1, 3, 4, 5}) {
        EXPECT_EQ(mController->GetControllInstanceByType(SensorType(type)),
                  mController->GetControllInstanceByType(SensorType(type)));
    }
}

TEST_F(ParvaneControllerTest, RequestsForATypeShareTheController)
{
    Start();

    mController->OnRequestEvent(MakeRequest(2, 3));
    mController->OnRequestEvent(MakeRequest(2, 3));

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(WarningLine("HRMController: MeasureCurrentSensorValue(*)",
                                        "HRM measuring is in progress : [DO NOTHING]")));
    EXPECT_THAT(mPlatform.PendingTimers(), ElementsAre(15000));
}

TEST_F(ParvaneControllerTest, NewControllerIsInitialized)
{
    mPlatform.SetPreference("Parvane/data/pedometer/requested", true);

    mController->GetControllInstanceByType(SensorType::Pedometer);

    EXPECT_THAT(mPlatform.TakeCallsOf("context_set_changed_callback"),
                ElementsAre("context_set_changed_callback(2)"));
}

// Routing.

TEST_F(ParvaneControllerTest, SensorIdTwoIsThePedometer)
{
    Start();

    mController->OnRequestEvent(MakeRequest(2, 2));

    EXPECT_TRUE(mPlatform.IsSubscribed(2));
    EXPECT_THAT(mPlatform.PendingTimers(), ElementsAre(500));
}

TEST_F(ParvaneControllerTest, EachSensorIdReachesItsController)
{
    Start();

    mController->OnRequestEvent(MakeRequest(3, 1));
    EXPECT_TRUE(mPlatform.IsSubscribed(23));
    mController->OnRequestEvent(MakeRequest(2, 3));
    EXPECT_THAT(mPlatform.PendingTimers(), ElementsAre(15000));
    mController->OnRequestEvent(MakeRequest(2, 4));
    EXPECT_THAT(mPlatform.PendingTimers(), ElementsAre(3000, 15000));
}

TEST_F(ParvaneControllerTest, OptionReachesTheControllerWhichRejectsIt)
{
    Start();

    mController->OnRequestEvent(MakeRequest(5, 3));

    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(ErrorLine("ServiceController: ProcessReqeust(66)",
                                                           "Error Unknown commend")));
    EXPECT_THAT(mPlatform.TakeSent(), IsEmpty());
}

TEST_F(ParvaneControllerTest, UnknownSensorIdIsLoggedAndDropped)
{
    Start();

    for (const uint8_t id : {uint8_t{0}, uint8_t{5}, uint8_t{255}}) {
        mController->OnRequestEvent(MakeRequest(2, id));
        EXPECT_THAT(mPlatform.TakeLog(), Contains(UnsupportedType()));
    }
    mController->OnRequestEvent(MakeRequest(4, 9)); // not even a stop

    EXPECT_THAT(mPlatform.TakeSent(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(ParvaneControllerTest, UnknownSensorIdIsNamedFirst)
{
    Start();

    mController->OnRequestEvent(MakeRequest(3, 0xAB));

    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(WarningLine("DeviceManager: GetSensorTypeById(219)", "unknown sensor id ab"),
                    UnsupportedType()));
}

TEST_F(ParvaneControllerTest, UnknownCommandsAreUndefinedMessages)
{
    Start();

    for (const int command : {6, 0, -1, 7, 257}) {
        mController->OnRequestEvent(MakeRequest(command, 3));
        EXPECT_THAT(mPlatform.TakeLog(),
                    ElementsAre(LogLine{5, "Parvane",
                                        "ParvaneController: OnRequestEvent(77) > "
                                        "\033[1;40;33mUndefined Message\033[0;m"}));
    }
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

// The sensor list.

TEST_F(ParvaneControllerTest, ListRequestIsFilledAndSentBack)
{
    Start();
    const auto request = MakeListRequest();

    mController->OnRequestEvent(request);

    std::vector<int> types;
    for (const auto &info : *request->mSensorList) {
        types.push_back(static_cast<int>(info->mSensorType));
    }
    EXPECT_THAT(types, ElementsAre(1, 3, 4, 5));
    EXPECT_NE(nullptr, request->mDeviceAddress);
    EXPECT_THAT(mPlatform.TakeSent(),
                ElementsAre(SizeIs(13), SizeIs(25), SizeIs(25), SizeIs(25), SizeIs(25)));
}

TEST_F(ParvaneControllerTest, ListRequestWarnsAboutTheTwoUnsupportedTypes)
{
    Start();

    mController->OnRequestEvent(MakeListRequest());
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(UnsupportedType(), UnsupportedType()));

    mController->OnRequestEvent(MakeListRequest());
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(UnsupportedType(), UnsupportedType()));
}

TEST_F(ParvaneControllerTest, ListRequestReadsTheAddressThenSends)
{
    Start();

    mController->OnRequestEvent(MakeListRequest());

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("bt_initialize()", "bt_adapter_get_address()", "bt_deinitialize()",
                            "sendData(7, 143, 13)", "sendData(7, 143, 25)", "sendData(7, 143, 25)",
                            "sendData(7, 143, 25)", "sendData(7, 143, 25)"));
}

TEST_F(ParvaneControllerTest, ListRequestMakesTheControllersThatAreMissing)
{
    mController->OnRequestEvent(MakeListRequest()); // not even started

    EXPECT_THAT(mPlatform.TakeCallsOf("preference_get_boolean"), SizeIs(1));
    mController->GetControllInstanceByType(SensorType::Pedometer);
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

// A controller is known when its Initialize has returned.

TEST_F(ParvaneControllerTest, RequestInsideTheFirstSubscriptionHasAControllerOfItsOwnThatIsReplaced)
{
    mPlatform.SetPreference("Parvane/data/pedometer/requested", true);
    mPlatform.OnNextCall("context_set_changed_callback",
                         [this] { mController->OnRequestEvent(MakeRequest(2, 2)); });

    const auto made = mController->GetControllInstanceByType(SensorType::Pedometer);

    EXPECT_EQ(made, mController->GetControllInstanceByType(SensorType::Pedometer));
    const char *const exists = "preference_is_existing(Parvane/data/pedometer/value)";
    const char *const requested = "preference_get_boolean(Parvane/data/pedometer/requested)";
    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre(exists, requested, "context_set_changed_callback(2)", exists, requested,
                            "context_set_changed_callback(2)", "context_get_context(2)"));
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(ErrorLine("ContextSensor: RemoveSensorEventListener(77)",
                                      "try to remove the listener with not existed pointer")));
    mPlatform.AnswerQuery(2, {}); // its sensor is there, with nobody listening
    EXPECT_THAT(mPlatform.TakeSent(), IsEmpty());
}

// Link events.

TEST_F(ParvaneControllerTest, DisconnectionStopsTheActivity)
{
    Start();
    mController->OnRequestEvent(MakeRequest(3, 1));
    EXPECT_TRUE(mPlatform.IsSubscribed(23));

    mController->OnHostDisconnected();

    EXPECT_FALSE(mPlatform.IsSubscribed(23));
}

TEST_F(ParvaneControllerTest, DisconnectionLeavesThePedometerAndOpenPeriods)
{
    Start();
    mController->OnRequestEvent(MakeRequest(2, 2));
    mController->OnRequestEvent(MakeRequest(2, 3));
    mController->OnRequestEvent(MakeRequest(2, 4));

    mController->OnHostDisconnected();

    EXPECT_TRUE(mPlatform.IsSubscribed(2));
    EXPECT_TRUE(mPlatform.IsSubscribed(7));
    EXPECT_THAT(mPlatform.PendingTimers(), SizeIs(3));
}

TEST_F(ParvaneControllerTest, EndOfTheHostsServiceStopsNothing)
{
    Start();
    mController->OnRequestEvent(MakeRequest(3, 1));
    mPlatform.Forget();

    mController->OnHostServiceTerminated();

    EXPECT_TRUE(mPlatform.IsSubscribed(23));
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

// The way of the sensor controllers to sensors and host.

TEST_F(ParvaneControllerTest, ListenersAreRegisteredWithTheirSensors)
{
    const auto listner = std::make_shared<PlainListner>();

    mController->RegisterSensorListener(SensorType::HRM, listner);
    mPlatform.DeliverContext(7, {{CONTEXT_HRM_HEART_RATE, 72}});
    mController->UnregisterSensorListener(SensorType::HRM, listner);

    EXPECT_THAT(listner->mUpdated, SizeIs(1));
    EXPECT_FALSE(mPlatform.IsSubscribed(7));
}

TEST_F(ParvaneControllerTest, ListenerIsUnregisteredByItsAddressAlone)
{
    const auto listner = std::make_shared<PlainListner>();
    mController->RegisterSensorListener(SensorType::HRM, listner);

    mController->UnregisterSensorListener(SensorType::HRM,
                                          {std::shared_ptr<ContextSensorListner>(), listner.get()});

    EXPECT_FALSE(mPlatform.IsSubscribed(7));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ParvaneControllerTest, AllListenersOfASensorAreUnregisteredAtOnce)
{
    mController->RegisterSensorListener(SensorType::HRM, std::make_shared<PlainListner>());
    mController->RegisterSensorListener(SensorType::HRM, std::make_shared<PlainListner>());

    mController->UnregisterAllSensorListeners(SensorType::HRM);

    EXPECT_FALSE(mPlatform.IsSubscribed(7));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ParvaneControllerTest, CurrentValueIsAskedOfTheSensor)
{
    const auto listner = std::make_shared<PlainListner>();
    mController->RegisterSensorListener(SensorType::Pedometer, listner);

    mController->RequestCurrentSensorData(SensorType::Pedometer);
    mPlatform.AnswerQuery(2, {});

    EXPECT_THAT(listner->mChanged, SizeIs(1));
}

TEST_F(ParvaneControllerTest, RecordsGoToTheHost)
{
    Start();
    const auto record = std::make_shared<HRMData>(97, 72, 800);
    record->mMessageType = 2;
    record->mCategory = 3;
    record->mTimestamp = 1000;

    mController->SendSensorData(record);

    EXPECT_THAT(mPlatform.TakeSent(),
                ElementsAre(Bytes{0x02, 0x00, 0x0E, 0x03, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0F,
                                  0x42, 0x40, 0x42, 0x90, 0x00, 0x00, 0x00}));
}

} // namespace
} // namespace Parvane
