#include "WearStateController.h"

#include <memory>
#include <new>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ControllerTest.h"
#include "GestureData.h"
#include "HRMData.h"
#include "LogMatchers.h"
#include "ScriptedPlatform.h"
#include "WearStateData.h"

namespace Parvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class WearStateControllerTest : public ControllerTest
{
protected:
    void Read(int heartRate)
    {
        mController->OnSensorDataUpdated(std::make_shared<HRMData>(97, heartRate, 800));
    }

    void Open(uint8_t flags = 1)
    {
        mController->ProcessReqeust(MakeRequest(2, flags, 4));
        mPlatform.Forget();
    }

    float TakeStatus()
    {
        const auto reply = mListener->TakeOnly<WearStateData>();
        return reply ? reply->mStatus : -99.0F;
    }

    std::shared_ptr<WearStateController> mController =
        std::make_shared<WearStateController>(mListener);
};

TEST_F(WearStateControllerTest, NewControllerIsIdle)
{
    EXPECT_EQ(SensorType(5), mController->GetSensorType());
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(WearStateControllerTest, DescriptionIsThatOfTheWornState)
{
    const auto info = mController->GetSensorInfo();

    ASSERT_NE(nullptr, info);
    EXPECT_EQ(SensorType(5), info->mSensorType);
    EXPECT_EQ(4, info->mSensorId);
    EXPECT_EQ(1, info->mAvailable);
    EXPECT_EQ(1.0F, info->mMaxRange);
    EXPECT_EQ(1.0F, info->mResolution);
    EXPECT_EQ(0.0F, info->mMinValue);
    EXPECT_EQ(1000, info->mMinDelay);
    EXPECT_EQ(0, info->mReserved);
}

TEST_F(WearStateControllerTest, MeasuringStartsTimerThenTheHeartRateSensorAndNoPowerLock)
{
    mController->ProcessReqeust(MakeRequest(2));

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("g_timeout_add(3000)", "RegisterSensorListener(4)"));
    EXPECT_EQ(mController.get(), mListener->mRegistered[SensorType::HRM]);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(WearStateControllerTest, ContinuousMeasuringIsRefused)
{
    mController->ProcessReqeust(MakeRequest(3));

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(IsLogLine(5, "WearStateController: MeasureCurrentSensorValue(*) > \033[1;40;33m"
                                 "HRM requested with Active mode: this is not supported\033[0;m")));
}

TEST_F(WearStateControllerTest, StartLeavesAnOpenPeriodRunning)
{
    Open();

    mController->ProcessReqeust(MakeRequest(3));

    EXPECT_THAT(mPlatform.TakeLog(), SizeIs(1));
    Read(70);
    EXPECT_EQ(1.0F, TakeStatus());
}

TEST_F(WearStateControllerTest, RequestWithinAPeriodOpensNoOther)
{
    Open();

    mController->ProcessReqeust(MakeRequest(2));

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(IsLogLine(5, "WearStateController: MeasureCurrentSensorValue(*) > \033[1;40;33m"
                                 "HRM measuring is in progress : [DO NOTHING]\033[0;m")));
}

TEST_F(WearStateControllerTest, FirstReadingOfMinusThreeMeansNotWornAndLaterOnesNothing)
{
    Open();

    Read(-3);
    EXPECT_EQ(0.0F, TakeStatus());
    Read(70);
    mPlatform.AdvanceTime(60000);

    EXPECT_THAT(mListener->mSent, IsEmpty());
}

TEST_F(WearStateControllerTest, AnyOtherFirstReadingMeansWorn)
{
    for (const int heartRate : {0, 70, -1, -2, -4, 1}) {
        Open();
        Read(heartRate);
        EXPECT_EQ(1.0F, TakeStatus()) << heartRate;
        mPlatform.AdvanceTime(3000);
    }
    EXPECT_THAT(mListener->mSent, IsEmpty());
}

TEST_F(WearStateControllerTest, NoReadingWithinThePeriodMeansNotWorn)
{
    Open();

    mPlatform.AdvanceTime(2999);
    EXPECT_THAT(mListener->mSent, IsEmpty());
    mPlatform.AdvanceTime(1);

    EXPECT_EQ(0.0F, TakeStatus());
    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("UnregisterSensorListener(4)", "SendSensorData(5)"));
    EXPECT_THAT(mListener->mUnregistered, ElementsAre(mController.get()));
}

TEST_F(WearStateControllerTest, SensorRunsToTheEndOfThePeriodThoughItIsAnswered)
{
    Open();
    Read(70);
    EXPECT_TRUE(mListener->IsRegistered(SensorType::HRM));

    mPlatform.AdvanceTime(3000);

    EXPECT_FALSE(mListener->IsRegistered(SensorType::HRM));
    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("SendSensorData(5)", "UnregisterSensorListener(4)"));
}

TEST_F(WearStateControllerTest, ReplyAtAReadingCarriesTheRequestAndTheTimeOfTheReply)
{
    mController->ProcessReqeust(MakeRequest(2, 3, 4));
    mPlatform.AdvanceTime(2000);

    Read(70);

    const auto reply = mListener->TakeOnly<WearStateData>();
    ASSERT_NE(nullptr, reply);
    ExpectReply(*reply, 2, 3, 4);
    EXPECT_EQ(1400000002, reply->mTimestamp);
    EXPECT_EQ(SensorType(5), reply->GetSensorType());
}

TEST_F(WearStateControllerTest, ReplyAtTheEndCarriesTheNewestRequest)
{
    Open(1);
    mController->ProcessReqeust(MakeRequest(2, 2, 4));

    mPlatform.AdvanceTime(3000);

    const auto reply = mListener->TakeOnly<WearStateData>();
    ASSERT_NE(nullptr, reply);
    ExpectReply(*reply, 2, 2, 4);
}

TEST_F(WearStateControllerTest, ForeignReadingIsAnErrorAndThePeriodWaitsOn)
{
    Open();

    mController->OnSensorDataUpdated(std::make_shared<GestureData>(1, 0));
    mController->OnSensorDataUpdated(nullptr);

    const auto error = IsLogLine(6, "WearStateController: OnSensorDataUpdated(*) > \033[0;40;31m"
                                    "NULL Failed to create HRMController instance\033[0;m");
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(error, error));
    Read(-3);
    EXPECT_EQ(0.0F, TakeStatus());
}

TEST_F(WearStateControllerTest, ReadingsAfterTheAnswerAreNotLookedAt)
{
    Open();
    Read(70);
    mPlatform.Forget();

    mController->OnSensorDataUpdated(std::make_shared<GestureData>(1, 0));

    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(WearStateControllerTest, ReadingsAfterAPeriodThatHadNoneAreNotLookedAt)
{
    Open();
    mPlatform.AdvanceTime(3000);
    EXPECT_EQ(0.0F, TakeStatus());

    Read(70);

    EXPECT_THAT(mListener->mSent, IsEmpty());
}

TEST_F(WearStateControllerTest, AnswersOfQueriesAreIgnored)
{
    Open();

    mController->OnSensorDataChanged(std::make_shared<HRMData>(97, 70, 800));

    EXPECT_THAT(mListener->mSent, IsEmpty());
}

TEST_F(WearStateControllerTest, ReplyThatCannotBeCreatedIsAnErrorAndThePeriodHasNone)
{
    Open();

    mPlatform.FailAllocationOfSize(sizeof(WearStateData), sizeof(WearStateData) + 32);
    const auto reading = std::make_shared<HRMData>(97, 70, 800);
    ScriptedPlatform::AsService([&] { mController->OnSensorDataUpdated(reading); });
    EXPECT_TRUE(mPlatform.StopFailingAllocations());
    mPlatform.AdvanceTime(3000);

    EXPECT_THAT(mListener->mSent, IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(IsLogLine(6, "WearStateController: SendDataToHost(*) > \033[0;40;31m"
                                         "NULL Failed to create HRMData instance.\033[0;m")));
}

TEST_F(WearStateControllerTest, ReplyThatCannotBeCreatedAtTheEndIsAnError)
{
    Open();

    mPlatform.FailAllocationOfSize(sizeof(WearStateData), sizeof(WearStateData) + 32);
    mPlatform.AdvanceTime(3000);
    EXPECT_TRUE(mPlatform.StopFailingAllocations());

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(ErrorLine("WearStateController: SendDataToHost(*)",
                                      "NULL Failed to create HRMData instance.")));
    mController->ProcessReqeust(MakeRequest(2)); // idle again
    EXPECT_TRUE(mListener->IsRegistered(SensorType::HRM));
}

TEST_F(WearStateControllerTest, ReplyThatRunsOutOfMemoryOnItsWayEndsAtTheTimer)
{
    Open();
    mListener->mInsideSend = [] { throw std::bad_alloc(); };

    mPlatform.AdvanceTime(3000);
    mPlatform.AdvanceTime(3000);

    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(ErrorLine("WearStateController: OnTimerFired(*)",
                                                           "reply dropped [std::bad_alloc]")));
}

TEST_F(WearStateControllerTest, NewPeriodIsAnsweredAnew)
{
    Open();
    Read(70);
    EXPECT_EQ(1.0F, TakeStatus());
    mPlatform.AdvanceTime(3000);
    Open();

    Read(-3);

    EXPECT_EQ(0.0F, TakeStatus());
}

TEST_F(WearStateControllerTest, PeriodAsLongAsTheWatchIsUnwornIsAnsweredOnce)
{
    Open();

    mPlatform.AdvanceTime(60000);

    EXPECT_THAT(mListener->mSent, SizeIs(1));
    EXPECT_THAT(mPlatform.PendingTimers(), IsEmpty());
}

TEST_F(WearStateControllerTest, StopNeitherEndsThePeriodNorSuppressesItsReply)
{
    Open();

    mController->ProcessReqeust(MakeRequest(4));
    mListener->mSent.clear();
    mPlatform.AdvanceTime(3000);

    EXPECT_EQ(0.0F, TakeStatus());
}

TEST_F(WearStateControllerTest, TornDownLinkDoesNotEndThePeriod)
{
    Open();

    mController->OnHostDisconnected();
    mController->OnHostServiceTerminated();

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    Read(70);
    EXPECT_EQ(1.0F, TakeStatus());
}

TEST_F(WearStateControllerTest, DisconnectionStopsTheSensorThroughStopSensor)
{
    struct Watcher : WearStateController
    {
        using WearStateController::WearStateController;
        void StopSensor(std::shared_ptr<SensorData> /*request*/) override { ++mStops; }
        int mStops = 0;
    };
    const auto watcher = std::make_shared<Watcher>(mListener);

    watcher->OnHostServiceTerminated();
    EXPECT_EQ(0, watcher->mStops);
    watcher->OnHostDisconnected();

    EXPECT_EQ(1, watcher->mStops);
}

TEST_F(WearStateControllerTest, OperationsWithoutWorkDoNone)
{
    mController->Initialize();
    mController->StartSensor(MakeRequest(3));
    mController->StopSensor(MakeRequest(4));
    mController->OnHostServiceTerminated();

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

// The base has no request yet when the first one's reading comes inside the registration: the record
// names no command.
TEST_F(WearStateControllerTest, ReadingInsideTheFirstRegistrationAnswersNoRequest)
{
    mListener->mInsideRegistration = [](ContextSensorListner &listner) {
        listner.OnSensorDataUpdated(std::make_shared<HRMData>(97, 70, 800));
    };

    mController->ProcessReqeust(MakeRequest(2));
    const auto reply = mListener->TakeOnly<WearStateData>();
    ASSERT_NE(nullptr, reply);
    EXPECT_EQ(0, reply->mMessageType);
    EXPECT_EQ(1.0F, reply->GetStatus());
    mPlatform.AdvanceTime(3000);

    EXPECT_THAT(mListener->mSent, IsEmpty());
}

TEST_F(WearStateControllerTest, ReadingInsideALaterRegistrationIsBuiltFromTheRequestBefore)
{
    Open(1);
    mPlatform.AdvanceTime(3000);
    mListener->mSent.clear();
    mListener->mInsideRegistration = [](ContextSensorListner &listner) {
        listner.OnSensorDataUpdated(std::make_shared<HRMData>(97, 70, 800));
    };

    mController->ProcessReqeust(MakeRequest(2, 2, 4));

    const auto reply = mListener->TakeOnly<WearStateData>();
    ASSERT_NE(nullptr, reply);
    ExpectReply(*reply, 2, 1, 4);
}

TEST_F(WearStateControllerTest, ReadingBeforeAnyRequestDoesNoHarm)
{
    Read(70);
    Read(71);

    EXPECT_THAT(mListener->mSent, SizeIs(1)); // nothing has been answered yet
}

TEST_F(WearStateControllerTest, TimerKeepsTheControllerAliveAndThenLetsItGo)
{
    const std::weak_ptr<WearStateController> canary = mController;
    mController->ProcessReqeust(MakeRequest(2));
    mController.reset();
    EXPECT_FALSE(canary.expired());

    mPlatform.AdvanceTime(3000);

    EXPECT_TRUE(canary.expired());
    EXPECT_THAT(mListener->mSent, SizeIs(1));
}

TEST_F(WearStateControllerTest, TimerWithoutTargetDoesNothing)
{
    EXPECT_EQ(FALSE, WearStateController::OnTimerFired(nullptr));
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(WearStateControllerTest, EndUnregistersFromTheHeartRateSensorByAddress)
{
    const ContextSensorListner *const address = mController.get();

    mController.reset();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("UnregisterSensorListener(4)"));
    EXPECT_THAT(mListener->mUnregistered, ElementsAre(address));
}

TEST_F(WearStateControllerTest, WithoutListenerThePeriodRunsAndNobodyHears)
{
    auto controller = std::make_shared<WearStateController>(nullptr);

    controller->ProcessReqeust(MakeRequest(2));
    controller->OnSensorDataUpdated(std::make_shared<HRMData>(97, 70, 800));
    mPlatform.AdvanceTime(3000);

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("g_timeout_add(3000)"));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

} // namespace
} // namespace Parvane
