#include "HRMController.h"

#include <memory>
#include <new>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ControllerTest.h"
#include "GestureData.h"
#include "HRMData.h"
#include "LogMatchers.h"
#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class HRMControllerTest : public ControllerTest
{
protected:
    void Read(int heartRate)
    {
        mController->OnSensorDataUpdated(std::make_shared<HRMData>(97, heartRate, 800));
    }

    // Opens a period, with no evidence of how.
    void Open(uint8_t flags = 1)
    {
        mController->ProcessReqeust(MakeRequest(2, flags));
        mPlatform.Forget();
    }

    int ReplyAfterThePeriod()
    {
        mPlatform.AdvanceTime(15000);
        const auto reply = mListener->TakeOnly<HRMData>();
        return reply ? reply->mHeartRate : -99;
    }

    std::shared_ptr<HRMController> mController = std::make_shared<HRMController>(mListener);
};

TEST_F(HRMControllerTest, NewControllerIsIdle)
{
    EXPECT_EQ(SensorType(4), mController->GetSensorType());
    EXPECT_FALSE(mController->IsMeasuring());
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(HRMControllerTest, DescriptionIsThatOfTheHeartRateSensor)
{
    const auto info = mController->GetSensorInfo();

    ASSERT_NE(nullptr, info);
    EXPECT_EQ(SensorType(4), info->mSensorType);
    EXPECT_EQ(3, info->mSensorId);
    EXPECT_EQ(1, info->mAvailable);
    EXPECT_EQ(200.0F, info->mMaxRange);
    EXPECT_EQ(1.0F, info->mResolution);
    EXPECT_EQ(0.0F, info->mMinValue);
    EXPECT_EQ(15000, info->mMinDelay);
    EXPECT_EQ(0, info->mReserved);
}

TEST_F(HRMControllerTest, EachDescriptionIsANewOne)
{
    EXPECT_NE(mController->GetSensorInfo(), mController->GetSensorInfo());
}

TEST_F(HRMControllerTest, MeasuringStartsTimerThenSensorThenPowerLock)
{
    mController->MeasureCurrentSensorValue(MakeRequest(2));

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("g_timeout_add(15000)", "RegisterSensorListener(4)",
                            "power_lock_state(2, 16000)"));
    EXPECT_EQ(mController.get(), mListener->mRegistered[SensorType::HRM]);
    EXPECT_TRUE(mController->IsMeasuring());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(HRMControllerTest, MeasuringGoesOnWithoutThePowerLock)
{
    mPlatform.FailNext("power_lock_state", -1);

    mController->ProcessReqeust(MakeRequest(2));

    EXPECT_TRUE(mController->IsMeasuring());
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(IsLogLine(6, "HRMController: MeasureCurrentSensorValue(*) > \033[0;40;31m"
                                 "Setting the keep power is failed, the HRM sensor value may have "
                                 "dealy to deliver to the host\033[0;m")));
    Read(72);
    EXPECT_EQ(72, ReplyAfterThePeriod());
}

TEST_F(HRMControllerTest, ContinuousMeasuringIsRefused)
{
    mController->ProcessReqeust(MakeRequest(3));

    EXPECT_FALSE(mController->IsMeasuring());
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(IsLogLine(5, "HRMController: MeasureCurrentSensorValue(*) > \033[1;40;33m"
                                 "HRM requested with Active mode: this is not supported\033[0;m")));
    mPlatform.AdvanceTime(60000);
    EXPECT_THAT(mListener->mSent, IsEmpty());
}

TEST_F(HRMControllerTest, StartLeavesAnOpenPeriodRunning)
{
    Open(1);

    mController->ProcessReqeust(MakeRequest(3, 2));

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(WarningLine("HRMController: MeasureCurrentSensorValue(*)",
                                        "HRM requested with Active mode: this is not supported")));
    EXPECT_TRUE(mController->IsMeasuring());
    Read(72);
    mPlatform.AdvanceTime(15000);
    const auto reply = mListener->TakeOnly<HRMData>();
    ASSERT_NE(nullptr, reply);
    ExpectReply(*reply, 2, 1);
}

// The base marks the controller started, and a stop is acknowledged; nothing else happens.
TEST_F(HRMControllerTest, StopAfterARefusedStartIsAcknowledged)
{
    mController->ProcessReqeust(MakeRequest(3));
    mPlatform.Forget();

    mController->ProcessReqeust(MakeRequest(4));

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("SendSensorData(0)"));
}

TEST_F(HRMControllerTest, PeriodWithoutReadingAnswersZero)
{
    Open();

    mPlatform.AdvanceTime(14999);
    EXPECT_THAT(mListener->mSent, IsEmpty());
    EXPECT_TRUE(mController->IsMeasuring());
    mPlatform.AdvanceTime(1);

    const auto reply = mListener->TakeOnly<HRMData>();
    ASSERT_NE(nullptr, reply);
    EXPECT_EQ(0, reply->mHeartRate);
    EXPECT_FALSE(mController->IsMeasuring());
}

TEST_F(HRMControllerTest, PeriodEndsWithTheSensorThenTheReply)
{
    Open();

    mPlatform.AdvanceTime(15000);

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("UnregisterSensorListener(4)", "SendSensorData(4)"));
    EXPECT_THAT(mListener->mUnregistered, ElementsAre(mController.get()));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(HRMControllerTest, PeriodIsAnsweredOnce)
{
    Open();

    mPlatform.AdvanceTime(60000);

    EXPECT_THAT(mListener->mSent, SizeIs(1));
    EXPECT_THAT(mPlatform.PendingTimers(), IsEmpty());
}

TEST_F(HRMControllerTest, ReplyCarriesTheRequestAndTheTimeOfTheReply)
{
    mController->ProcessReqeust(MakeRequest(2, 3, 9));
    Read(72);

    mPlatform.AdvanceTime(15000);

    const auto reply = mListener->TakeOnly<HRMData>();
    ASSERT_NE(nullptr, reply);
    ExpectReply(*reply, 2, 3, 9);
    EXPECT_EQ(1400000015, reply->mTimestamp);
    EXPECT_EQ(72, reply->mHeartRate);
    EXPECT_EQ(0, reply->mSpO2);
    EXPECT_EQ(0, reply->mPeakToPeak);
}

TEST_F(HRMControllerTest, RequestItselfIsNotTouchedByItsReply)
{
    const auto request = MakeRequest(2);
    mController->ProcessReqeust(request);

    mPlatform.AdvanceTime(15000);

    EXPECT_EQ(1, request->mHeaderCode);
    EXPECT_EQ(5000, request->mTimestamp);
    EXPECT_NE(std::static_pointer_cast<SensorData>(request), mListener->mSent[0]);
}

TEST_F(HRMControllerTest, ZeroAndNegativeReadingsAreIgnored)
{
    Open();

    Read(72);
    Read(0);
    Read(-1);

    EXPECT_EQ(72, ReplyAfterThePeriod());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(HRMControllerTest, OneIsAReading)
{
    Open();

    Read(1);

    EXPECT_EQ(1, ReplyAfterThePeriod());
}

TEST_F(HRMControllerTest, LastPositiveReadingWins)
{
    Open();

    Read(72);
    Read(80);

    EXPECT_EQ(80, ReplyAfterThePeriod());
}

TEST_F(HRMControllerTest, OnlyUselessReadingsAnswerZero)
{
    Open();

    Read(-3);
    Read(0);

    EXPECT_EQ(0, ReplyAfterThePeriod());
}

TEST_F(HRMControllerTest, RequestWithinAPeriodOpensNoOther)
{
    Open(1);
    mPlatform.AdvanceTime(5000);

    mController->ProcessReqeust(MakeRequest(2, 2));

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(IsLogLine(5, "HRMController: MeasureCurrentSensorValue(*) > \033[1;40;33m"
                                 "HRM measuring is in progress : [DO NOTHING]\033[0;m")));
}

TEST_F(HRMControllerTest, SingleReplyOfAPeriodCarriesTheNewestRequest)
{
    Open(1);
    mPlatform.AdvanceTime(5000);
    mController->ProcessReqeust(MakeRequest(2, 2));

    mPlatform.AdvanceTime(60000);

    const auto reply = mListener->TakeOnly<HRMData>();
    ASSERT_NE(nullptr, reply);
    EXPECT_EQ(2, reply->mMessageFlags);
    EXPECT_EQ(1400000015, reply->mTimestamp); // the first request's period
}

TEST_F(HRMControllerTest, ReadingsOfAnEarlierPeriodAreForgotten)
{
    Open();
    Read(72);
    EXPECT_EQ(72, ReplyAfterThePeriod());
    Open();

    EXPECT_EQ(0, ReplyAfterThePeriod());
}

TEST_F(HRMControllerTest, ReadingsBetweenPeriodsAreForgotten)
{
    Read(72);

    Open();

    EXPECT_EQ(0, ReplyAfterThePeriod());
}

TEST_F(HRMControllerTest, NewPeriodOpensAfterTheLast)
{
    Open();
    mPlatform.AdvanceTime(15000);
    mPlatform.Forget();

    mController->ProcessReqeust(MakeRequest(2));

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("g_timeout_add(15000)", "RegisterSensorListener(4)",
                            "power_lock_state(2, 16000)"));
}

TEST_F(HRMControllerTest, ForeignReadingIsAnErrorAndIgnored)
{
    Open();
    Read(72);

    mController->OnSensorDataUpdated(std::make_shared<GestureData>(1, 0));
    mController->OnSensorDataUpdated(nullptr);

    const auto error = IsLogLine(6, "HRMController: OnSensorDataUpdated(*) > \033[0;40;31m"
                                    "NULL Failed to create HRMController instance\033[0;m");
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(error, error));
    EXPECT_EQ(72, ReplyAfterThePeriod());
}

TEST_F(HRMControllerTest, AnswersOfQueriesAreIgnored)
{
    Open();

    mController->OnSensorDataChanged(std::make_shared<HRMData>(97, 72, 800));

    EXPECT_EQ(0, ReplyAfterThePeriod());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(HRMControllerTest, ReplyThatCannotBeCreatedIsAnErrorAndThePeriodIsOver)
{
    Open();

    mPlatform.FailAllocationOfSize(sizeof(HRMData), sizeof(HRMData) + 32);
    mPlatform.AdvanceTime(15000);
    EXPECT_TRUE(mPlatform.StopFailingAllocations());

    EXPECT_THAT(mListener->mSent, IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(IsLogLine(6, "HRMController: OnTimerFired(*) > \033[0;40;31m"
                                         "NULL Failed to create HRMData instance\033[0;m")));
    EXPECT_FALSE(mController->IsMeasuring());
    EXPECT_FALSE(mListener->IsRegistered(SensorType::HRM));
}

TEST_F(HRMControllerTest, ReplyThatRunsOutOfMemoryOnItsWayEndsAtTheTimer)
{
    Open();
    mListener->mInsideSend = [] { throw std::bad_alloc(); };

    mPlatform.AdvanceTime(15000);
    mPlatform.AdvanceTime(15000);

    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(ErrorLine("HRMController: OnTimerFired(*)",
                                                           "reply dropped [std::bad_alloc]")));
}

TEST_F(HRMControllerTest, StopNeitherEndsThePeriodNorSuppressesItsReply)
{
    Open();
    Read(72);

    mController->ProcessReqeust(MakeRequest(4, 2));

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("SendSensorData(0)"));
    EXPECT_TRUE(mController->IsMeasuring());
    mListener->mSent.clear();
    EXPECT_EQ(72, ReplyAfterThePeriod());
}

TEST_F(HRMControllerTest, TornDownLinkDoesNotEndThePeriod)
{
    Open();
    Read(72);

    mController->OnHostDisconnected();
    mController->OnHostServiceTerminated();

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_TRUE(mListener->IsRegistered(SensorType::HRM));
    EXPECT_EQ(72, ReplyAfterThePeriod());
}

TEST_F(HRMControllerTest, DisconnectionStopsTheSensorThroughStopSensor)
{
    struct Watcher : HRMController
    {
        using HRMController::HRMController;
        void StopSensor(std::shared_ptr<SensorData> /*request*/) override { ++mStops; }
        int mStops = 0;
    };
    const auto watcher = std::make_shared<Watcher>(mListener);

    watcher->OnHostServiceTerminated();
    EXPECT_EQ(0, watcher->mStops);
    watcher->OnHostDisconnected();

    EXPECT_EQ(1, watcher->mStops);
}

TEST_F(HRMControllerTest, OperationsWithoutWorkDoNone)
{
    mController->Initialize();
    mController->StartSensor(MakeRequest(3));
    mController->StopSensor(MakeRequest(4));
    mController->OnHostServiceTerminated();

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(HRMControllerTest, ReadingInsideTheRegistrationBelongsToThePeriod)
{
    mListener->mInsideRegistration = [](ContextSensorListner &listner) {
        listner.OnSensorDataUpdated(std::make_shared<HRMData>(97, 64, 900));
    };

    mController->ProcessReqeust(MakeRequest(2));

    EXPECT_EQ(64, ReplyAfterThePeriod());
}

TEST_F(HRMControllerTest, RequestInsideTheEndOfThePeriodOpensTheNextAndEmptiesTheReply)
{
    mController->ProcessReqeust(MakeRequest(2, 1));
    mController->OnSensorDataUpdated(std::make_shared<HRMData>(97, 64, 900));
    mListener->mInsideEnd = [this] {
        mListener->mInsideEnd = nullptr;
        mController->ProcessReqeust(MakeRequest(2, 2));
    };

    mPlatform.AdvanceTime(15000);

    EXPECT_TRUE(mController->IsMeasuring());
    const auto reply = mListener->TakeOnly<HRMData>();
    ASSERT_NE(nullptr, reply);
    ExpectReply(*reply, 2, 2);
    EXPECT_EQ(0, reply->GetHeartRate());
    EXPECT_EQ(0, ReplyAfterThePeriod());
}

// A period that is opened past the base has no request to answer.
TEST_F(HRMControllerTest, PeriodWithoutAnyRequestEndsWithoutHarm)
{
    mController->MeasureCurrentSensorValue(MakeRequest(2));

    mPlatform.AdvanceTime(15000);

    EXPECT_FALSE(mController->IsMeasuring());
    EXPECT_FALSE(mListener->IsRegistered(SensorType::HRM));
}

TEST_F(HRMControllerTest, TimerKeepsTheControllerAliveAndThenLetsItGo)
{
    const std::weak_ptr<HRMController> canary = mController;
    mController->ProcessReqeust(MakeRequest(2));
    mController.reset();
    EXPECT_FALSE(canary.expired());

    mPlatform.AdvanceTime(15000);

    EXPECT_TRUE(canary.expired());
    EXPECT_THAT(mListener->mSent, SizeIs(1));
}

TEST_F(HRMControllerTest, TimerWithoutTargetDoesNothing)
{
    EXPECT_EQ(FALSE, HRMController::OnTimerFired(nullptr));
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(HRMControllerTest, EndUnregistersByTheControllersAddress)
{
    const ContextSensorListner *const address = mController.get();

    mController.reset();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("UnregisterSensorListener(4)"));
    EXPECT_THAT(mListener->mUnregistered, ElementsAre(address));
}

TEST_F(HRMControllerTest, EndReleasesReadingAndListener)
{
    auto reading = std::make_shared<HRMData>(97, 72, 800);
    const std::weak_ptr<HRMData> readingCanary = reading;
    const std::weak_ptr<RecordingControlListener> listenerCanary = mListener;
    mController->OnSensorDataUpdated(std::move(reading));
    mListener.reset();
    EXPECT_FALSE(readingCanary.expired());

    mController.reset();

    EXPECT_TRUE(readingCanary.expired());
    EXPECT_TRUE(listenerCanary.expired());
}

TEST_F(HRMControllerTest, WithoutListenerThePeriodRunsAndNobodyHears)
{
    auto controller = std::make_shared<HRMController>(nullptr);

    controller->ProcessReqeust(MakeRequest(2));
    EXPECT_TRUE(controller->IsMeasuring());
    mPlatform.AdvanceTime(15000);

    EXPECT_FALSE(controller->IsMeasuring());
    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("g_timeout_add(15000)", "power_lock_state(2, 16000)"));
    controller.reset();
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

} // namespace
} // namespace Parvane
