#include "ContextManagerProxy.h"

#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/context_manager.h>

#include "HRMData.h"
#include "LogMatchers.h"
#include "PedometerData.h"
#include "RecordingListner.h"
#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class ContextManagerProxyTest : public testing::Test
{
protected:
    static ContextValues HeartRate(int value) { return {{CONTEXT_HRM_HEART_RATE, value}}; }

    static ContextValues Steps(double total)
    {
        return {{CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, total}};
    }

    static int TotalOf(const std::shared_ptr<SensorData> &reading)
    {
        return dynamic_cast<const PedometerData &>(*reading).mTotalStepCount;
    }

    ScriptedPlatform mPlatform;
    std::vector<std::shared_ptr<RecordingListner>> mListners = MakeListners(2);
    std::shared_ptr<RecordingListner> mFirst = mListners[0];
    std::shared_ptr<RecordingListner> mSecond = mListners[1];
    ContextManagerProxy mProxy;
};

TEST_F(ContextManagerProxyTest, NewProxyHasAskedThePlatformForNothing)
{
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(ContextManagerProxyTest, EachTypeHasItsSensor)
{
    mProxy.RegisterSensorListner(SensorType::Activity, mFirst);
    mProxy.RegisterSensorListner(SensorType::Gesture, mFirst);
    mProxy.RegisterSensorListner(SensorType::Pedometer, mFirst);
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);

    EXPECT_THAT(mPlatform.TakeCallsOf("context_set_changed_callback"),
                ElementsAre(testing::StartsWith("context_set_changed_callback(23, "),
                            "context_set_changed_callback(1)", "context_set_changed_callback(2)",
                            "context_set_changed_callback(7)"));
}

TEST_F(ContextManagerProxyTest, TypesWithoutASensorAreRefusedWithALine)
{
    mProxy.RegisterSensorListner(SensorType::WearState, mFirst);
    mProxy.RegisterSensorListner(SensorType::None, mFirst);
    mProxy.RegisterSensorListner(SensorType(77), mFirst);

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    const auto refused = [](const std::string &type) {
        return WarningLine("ContextManagerProxy: RegisterSensorListner(*)",
                           "Try to register the sensor that is not supported [type: " + type + "]");
    };
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(refused("5"), refused("0"), refused("77")));
}

TEST_F(ContextManagerProxyTest, TwoListenersShareOneSensorThatIsStartedOnce)
{
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);
    mProxy.RegisterSensorListner(SensorType::HRM, mSecond);

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_set_changed_callback(7)"));
    mPlatform.DeliverContext(7, HeartRate(72));
    EXPECT_THAT(mFirst->mUpdated, SizeIs(1));
    EXPECT_THAT(mSecond->mUpdated, SizeIs(1));
    EXPECT_EQ(mFirst->mUpdated[0], mSecond->mUpdated[0]);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextManagerProxyTest, SensorRunsUntilItsLastListenerGoes)
{
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);
    mProxy.RegisterSensorListner(SensorType::HRM, mSecond);
    mPlatform.Forget();

    mProxy.UnregisterSensorListner(SensorType::HRM, mFirst.get());
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    mPlatform.DeliverContext(7, HeartRate(72));
    EXPECT_THAT(mFirst->mUpdated, IsEmpty());
    EXPECT_THAT(mSecond->mUpdated, SizeIs(1));

    mPlatform.Forget();
    mProxy.UnregisterSensorListner(SensorType::HRM, mSecond.get());
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_unset_changed_callback(7)"));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextManagerProxyTest, EntryIsGoneAfterTheLastListener)
{
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);
    mProxy.UnregisterSensorListner(SensorType::HRM, mFirst.get());

    mProxy.UnregisterSensorListner(SensorType::HRM, mFirst.get());

    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(LogLine{5, "Parvane",
                            "ContextManagerProxy: UnregisterSensorListner(88) > \033[1;40;33m"
                            "Try to unregister the sensor that is not registered [type: 4]"
                            "\033[0;m"}));
}

TEST_F(ContextManagerProxyTest, UnregisteringAnAbsentTypeWarnsWithTheType)
{
    mProxy.UnregisterSensorListner(SensorType::WearState, mFirst.get());

    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(WarningLine("ContextManagerProxy: UnregisterSensorListner(88)",
                                "Try to unregister the sensor that is not registered [type: 5]")));
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(ContextManagerProxyTest, UnregisteringAllOfAnAbsentTypeWarnsWithTheType)
{
    mProxy.UnregisterLisnterAll(SensorType::Pedometer);

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(LogLine{5, "Parvane",
                                    "ContextManagerProxy: UnregisterLisnterAll(105) > \033[1;40;33m"
                                    "Try to unregister the sensor that is not registered [type: 3]"
                                    "\033[0;m"}));
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(ContextManagerProxyTest, UnknownListenerIsAnErrorAndTheSensorRunsOn)
{
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);

    mProxy.UnregisterSensorListner(SensorType::HRM, mSecond.get());

    EXPECT_TRUE(mPlatform.IsSubscribed(7));
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(ErrorLine("ContextSensor: RemoveSensorEventListener(77)",
                                      "try to remove the listener with not existed pointer")));
}

TEST_F(ContextManagerProxyTest, SameListenerTwiceIsAnErrorAndOneRegistration)
{
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(ErrorLine("ContextSensor: AddSensorEventListener(38)",
                                      "try to register with same object")));
    mPlatform.DeliverContext(7, HeartRate(72));
    EXPECT_THAT(mFirst->mUpdated, SizeIs(1));
}

TEST_F(ContextManagerProxyTest, UnregisteringAllStopsTheSensorAndLetsTheListenersGo)
{
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);
    mProxy.RegisterSensorListner(SensorType::HRM, mSecond);
    const std::weak_ptr<RecordingListner> canary = mFirst;
    mListners.clear();
    mFirst.reset();
    mPlatform.Forget();

    mProxy.UnregisterLisnterAll(SensorType::HRM);

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_unset_changed_callback(7)"));
    EXPECT_TRUE(canary.expired());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextManagerProxyTest, RegistrationAfterUnregisteringAllMakesAFreshSensor)
{
    mProxy.RegisterSensorListner(SensorType::Pedometer, mFirst);
    mPlatform.DeliverContext(2, Steps(1000));
    mProxy.UnregisterLisnterAll(SensorType::Pedometer);

    mProxy.RegisterSensorListner(SensorType::Pedometer, mFirst);
    mPlatform.DeliverContext(2, Steps(1010));
    mPlatform.DeliverContext(2, Steps(1015));

    ASSERT_THAT(mFirst->mUpdated, SizeIs(3));
    EXPECT_EQ(0, TotalOf(mFirst->mUpdated[1])); // the new sensor's own baseline
    EXPECT_EQ(5, TotalOf(mFirst->mUpdated[2]));
}

TEST_F(ContextManagerProxyTest, QueryOfAnAbsentTypeDoesNothing)
{
    mProxy.RequestCurrentSensorData(SensorType::Pedometer);

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextManagerProxyTest, QueryOfThePedometerAsksThePlatform)
{
    mProxy.RegisterSensorListner(SensorType::Pedometer, mFirst);
    mPlatform.Forget();

    mProxy.RequestCurrentSensorData(SensorType::Pedometer);

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_get_context(2)"));
    mPlatform.AnswerQuery(2, Steps(1000));
    EXPECT_THAT(mFirst->mChanged, SizeIs(1));
}

TEST_F(ContextManagerProxyTest, QueryOfTheOthersIsAnsweredAtOnce)
{
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);
    mPlatform.Forget();

    mProxy.RequestCurrentSensorData(SensorType::HRM);

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mFirst->mChanged, SizeIs(1));
}

TEST_F(ContextManagerProxyTest, ListenerIsRegisteredBeforeTheSensorStarts)
{
    mPlatform.DeliverDuringSubscription(7, HeartRate(64));

    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);

    EXPECT_THAT(mFirst->mUpdated, SizeIs(1));
}

TEST_F(ContextManagerProxyTest, SensorWhoseSubscriptionFailedIsKept)
{
    mPlatform.FailNext("context_set_changed_callback", -5);
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);
    mPlatform.Forget();

    mProxy.UnregisterSensorListner(SensorType::HRM, mFirst.get());

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_unset_changed_callback(7)"));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextManagerProxyTest, SensorWhoseUnsubscriptionFailsIsDroppedAllTheSame)
{
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);
    mPlatform.FailNext("context_unset_changed_callback", -9);

    mProxy.UnregisterSensorListner(SensorType::HRM, mFirst.get());
    mPlatform.Forget();
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_set_changed_callback(7)"));
}

TEST_F(ContextManagerProxyTest, ProxysEndLetsSensorsAndListenersGo)
{
    const std::weak_ptr<RecordingListner> canary = mFirst;
    auto proxy = std::make_unique<ContextManagerProxy>();
    proxy->RegisterSensorListner(SensorType::Gesture, mFirst);
    mListners.clear();
    mFirst.reset();

    proxy.reset();

    EXPECT_TRUE(canary.expired());
}

// What a listener may do inside a reading.

TEST_F(ContextManagerProxyTest, OnlyListenerMayUnregisterItselfInsideAReading)
{
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);
    mFirst->mInsideUpdated = [this] {
        mProxy.UnregisterSensorListner(SensorType::HRM, mFirst.get());
    };

    mPlatform.DeliverContext(7, HeartRate(72));

    EXPECT_FALSE(mPlatform.IsSubscribed(7));
    EXPECT_THAT(mFirst->mUpdated, SizeIs(1));
}

TEST_F(ContextManagerProxyTest, ListenerMayEndTheSensorOfAnotherInsideAReading)
{
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);
    mProxy.RegisterSensorListner(SensorType::HRM, mSecond);
    mFirst->mInsideUpdated = [this] { mProxy.UnregisterLisnterAll(SensorType::HRM); };

    mPlatform.DeliverContext(7, HeartRate(72));

    EXPECT_FALSE(mPlatform.IsSubscribed(7));
    EXPECT_THAT(mSecond->mUpdated, IsEmpty());
}

TEST_F(ContextManagerProxyTest, ListenerMayRestartItsSensorInsideAReading)
{
    mProxy.RegisterSensorListner(SensorType::Pedometer, mFirst);
    mFirst->mInsideUpdated = [this] {
        mFirst->mInsideUpdated = nullptr;
        mProxy.UnregisterLisnterAll(SensorType::Pedometer);
        mProxy.RegisterSensorListner(SensorType::Pedometer, mFirst);
    };

    mPlatform.DeliverContext(2, Steps(1000));
    mPlatform.DeliverContext(2, Steps(1010));

    ASSERT_THAT(mFirst->mUpdated, SizeIs(2));
    EXPECT_EQ(0, TotalOf(mFirst->mUpdated[1]));
}

TEST_F(ContextManagerProxyTest, ListenerMayRegisterForAnotherSensorInsideAReading)
{
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);
    mFirst->mInsideUpdated = [this] { mProxy.RegisterSensorListner(SensorType::Gesture, mSecond); };

    mPlatform.DeliverContext(7, HeartRate(72));

    EXPECT_TRUE(mPlatform.IsSubscribed(1));
}

TEST_F(ContextManagerProxyTest, ListenerMayUnregisterInsideTheSubscriptionItself)
{
    mPlatform.DeliverDuringSubscription(7, HeartRate(64));
    mFirst->mInsideUpdated = [this] {
        mProxy.UnregisterSensorListner(SensorType::HRM, mFirst.get());
    };

    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);

    EXPECT_THAT(mFirst->mUpdated, SizeIs(1));
    // It was not registered yet, and is now.
    mFirst->mInsideUpdated = nullptr;
    mPlatform.DeliverContext(7, HeartRate(65));
    EXPECT_THAT(mFirst->mUpdated, SizeIs(2));
}

// A sensor is shared from when its Start has returned.

TEST_F(ContextManagerProxyTest, SensorThatStartsIsNotRegisteredYet)
{
    mPlatform.OnNextCall("context_set_changed_callback", [this] {
        mProxy.UnregisterSensorListner(SensorType::HRM, mFirst.get());
        mProxy.UnregisterLisnterAll(SensorType::HRM);
        mProxy.RequestCurrentSensorData(SensorType::HRM);
    });

    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);

    const char *const text = "Try to unregister the sensor that is not registered [type: 4]";
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(WarningLine("ContextManagerProxy: UnregisterSensorListner(88)", text),
                            WarningLine("ContextManagerProxy: UnregisterLisnterAll(105)", text)));
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_set_changed_callback(7)"));
    mPlatform.DeliverContext(7, HeartRate(72));
    EXPECT_THAT(mFirst->mUpdated, SizeIs(1));
    EXPECT_THAT(mFirst->mChanged, IsEmpty());
}

TEST_F(ContextManagerProxyTest, RegistrationInsideTheStartStartsASensorOfItsOwnThatIsReplaced)
{
    const auto moments = {ScriptedPlatform::Moment::Before, ScriptedPlatform::Moment::After};
    for (const ScriptedPlatform::Moment moment : moments) {
        mPlatform.OnAnyCall(1, moment,
                            [this] { mProxy.RegisterSensorListner(SensorType::HRM, mSecond); });

        ScriptedPlatform::AsService(
            [this] { mProxy.RegisterSensorListner(SensorType::HRM, mFirst); });
        EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_set_changed_callback(7)",
                                                       "context_set_changed_callback(7)"));
        mPlatform.DeliverContext(7, HeartRate(72)); // to whichever the platform has been given last
        EXPECT_THAT(mSecond->mUpdated, IsEmpty());

        mProxy.UnregisterSensorListner(SensorType::HRM, mSecond.get());
        EXPECT_THAT(mPlatform.TakeLog(),
                    ElementsAre(ErrorLine("ContextSensor: RemoveSensorEventListener(77)",
                                          "try to remove the listener with not existed pointer")));
        mProxy.UnregisterSensorListner(SensorType::HRM, mFirst.get());
        EXPECT_THAT(mPlatform.TakeCallsOf("context_unset_changed_callback"), SizeIs(1));
    }
}

TEST_F(ContextManagerProxyTest, QuestionInsideAnAnswerIsForgottenWithIt)
{
    mProxy.RegisterSensorListner(SensorType::Pedometer, mFirst);
    mFirst->mInsideChanged = [this] {
        mFirst->mInsideChanged = nullptr;
        mProxy.RequestCurrentSensorData(SensorType::Pedometer);
    };
    mProxy.RequestCurrentSensorData(SensorType::Pedometer);
    mPlatform.AnswerQuery(2, Steps(1000));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());

    mPlatform.AnswerQuery(2, Steps(1010));

    EXPECT_THAT(mFirst->mChanged, SizeIs(1));
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(WarningLine("ContextSensor: UpdateSensorData(62)",
                                        "Please specify the request ID on the data")));
}

TEST_F(ContextManagerProxyTest, ListenerMayAskAgainInsideTheAnswerToItsQuery)
{
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);
    mFirst->mInsideChanged = [this] {
        mFirst->mInsideChanged = nullptr;
        mProxy.RequestCurrentSensorData(SensorType::HRM);
    };

    mProxy.RequestCurrentSensorData(SensorType::HRM);

    EXPECT_THAT(mFirst->mChanged, SizeIs(2));
}

TEST_F(ContextManagerProxyTest, ListenerMayEndItsSensorInsideTheAnswerToItsQuery)
{
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);
    mFirst->mInsideChanged = [this] {
        mProxy.UnregisterSensorListner(SensorType::HRM, mFirst.get());
    };

    mProxy.RequestCurrentSensorData(SensorType::HRM);

    EXPECT_FALSE(mPlatform.IsSubscribed(7));
}

// A sensor is shared until its Stop has returned.

TEST_F(ContextManagerProxyTest, RegistrationInsideTheEndOfTheSensorEndsWithIt)
{
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);
    mPlatform.OnNextCall("context_unset_changed_callback",
                         [this] { mProxy.RegisterSensorListner(SensorType::HRM, mSecond); });

    mProxy.UnregisterSensorListner(SensorType::HRM, mFirst.get());

    EXPECT_FALSE(mPlatform.IsSubscribed(7));
    mProxy.UnregisterSensorListner(SensorType::HRM, mSecond.get());
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(WarningLine("ContextManagerProxy: UnregisterSensorListner(88)",
                                "Try to unregister the sensor that is not registered [type: 4]")));
}

TEST_F(ContextManagerProxyTest, EndOfAllInsideTheEndOfTheSensorStopsItTwice)
{
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);
    mPlatform.Forget();
    mPlatform.OnNextCall("context_unset_changed_callback",
                         [this] { mProxy.UnregisterLisnterAll(SensorType::HRM); });

    mProxy.UnregisterSensorListner(SensorType::HRM, mFirst.get());

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_unset_changed_callback(7)",
                                                   "context_unset_changed_callback(7)"));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextManagerProxyTest, ListenersHearReadingsUntilTheSensorHasStopped)
{
    mProxy.RegisterSensorListner(SensorType::Gesture, mFirst);
    mPlatform.OnNextCall("context_unset_changed_callback", [this] {
        mPlatform.DeliverContext(1, {{CONTEXT_MOTION_ACTION, 1}});
    });

    mProxy.UnregisterLisnterAll(SensorType::Gesture);

    EXPECT_THAT(mFirst->mUpdated, SizeIs(1));
}

TEST_F(ContextManagerProxyTest, TypesDoNotDisturbEachOther)
{
    mProxy.RegisterSensorListner(SensorType::HRM, mFirst);
    mProxy.RegisterSensorListner(SensorType::Gesture, mFirst);

    mProxy.UnregisterLisnterAll(SensorType::HRM);

    EXPECT_FALSE(mPlatform.IsSubscribed(7));
    EXPECT_TRUE(mPlatform.IsSubscribed(1));
}

TEST_F(ContextManagerProxyTest, SensorThatIsDroppedInsideItsQueryIsThereForTheAnswer)
{
    mProxy.RegisterSensorListner(SensorType::Pedometer, mFirst);
    mPlatform.OnNextCall("context_get_context",
                         [this] { mProxy.UnregisterLisnterAll(SensorType::Pedometer); });

    mProxy.RequestCurrentSensorData(SensorType::Pedometer);
    mPlatform.AnswerQuery(2, Steps(1000));

    EXPECT_EQ(1U, mFirst->mChanged.size());
}

} // namespace
} // namespace Parvane
