#include "ActivityController.h"

#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ActivityData.h"
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

class ActivityControllerTest : public ControllerTest
{
protected:
    void Update(int status)
    {
        mController->OnSensorDataUpdated(std::make_shared<ActivityData>(status, 2, 1234));
    }

    void Start(uint8_t flags = 1)
    {
        mController->ProcessReqeust(MakeRequest(3, flags, 1));
        mListener->mSent.clear();
        mPlatform.Forget();
    }

    int MeasuredStatus()
    {
        mListener->mSent.clear();
        mController->ProcessReqeust(MakeRequest(2));
        const auto reply = mListener->TakeOnly<ActivityData>();
        return reply ? reply->mStatus : -99;
    }

    std::shared_ptr<ActivityController> mController =
        std::make_shared<ActivityController>(mListener);
};

TEST_F(ActivityControllerTest, NewControllerAsksForNothing)
{
    mController->Initialize();

    EXPECT_EQ(SensorType(1), mController->GetSensorType());
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(ActivityControllerTest, DescriptionIsThatOfTheActivitySensor)
{
    const auto info = mController->GetSensorInfo();

    ASSERT_NE(nullptr, info);
    EXPECT_EQ(SensorType(1), info->mSensorType);
    EXPECT_EQ(1, info->mSensorId);
    EXPECT_EQ(1, info->mAvailable);
    EXPECT_EQ(2.0F, info->mMaxRange);
    EXPECT_EQ(1.0F, info->mResolution);
    EXPECT_EQ(0.0F, info->mMinValue);
    EXPECT_EQ(5000, info->mMinDelay);
    EXPECT_EQ(0, info->mReserved);
}

TEST_F(ActivityControllerTest, MeasureOnceBeforeAnyUpdateAnswersZeroAtOnce)
{
    mController->ProcessReqeust(MakeRequest(2, 3, 1));

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("SendSensorData(1)"));
    const auto reply = mListener->TakeOnly<ActivityData>();
    ASSERT_NE(nullptr, reply);
    EXPECT_EQ(0, reply->mStatus);
    ExpectReply(*reply, 2, 3, 1);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ActivityControllerTest, MeasureOnceAnswersTheLastUpdateEvenAfterAStop)
{
    Start();
    Update(3);
    Update(4);
    mController->ProcessReqeust(MakeRequest(4));

    EXPECT_EQ(4, MeasuredStatus());
}

TEST_F(ActivityControllerTest, UpdatesWhileStoppedAreRememberedAndNotSent)
{
    Update(3);

    EXPECT_THAT(mListener->mSent, IsEmpty());
    EXPECT_EQ(3, MeasuredStatus());
}

TEST_F(ActivityControllerTest, StartSubscribesThenAnswersAtOnce)
{
    Update(3);

    mController->ProcessReqeust(MakeRequest(3, 2, 1));

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("RegisterSensorListener(1)", "SendSensorData(1)"));
    EXPECT_EQ(mController.get(), mListener->mRegistered[SensorType::Activity]);
    const auto reply = mListener->TakeOnly<ActivityData>();
    ASSERT_NE(nullptr, reply);
    EXPECT_EQ(3, reply->mStatus);
    ExpectReply(*reply, 3, 2, 1);
}

TEST_F(ActivityControllerTest, SecondStartAnswersAndDoesNotSubscribe)
{
    Start();

    mController->ProcessReqeust(MakeRequest(3));

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("SendSensorData(1)"));
}

TEST_F(ActivityControllerTest, UpdateWhileStartedIsSentItself)
{
    Start(2);
    const auto update = std::make_shared<ActivityData>(3, 2, 1234);
    update->mRequestId = 8;

    mController->OnSensorDataUpdated(update);

    EXPECT_THAT(mListener->mSent, ElementsAre(update));
    EXPECT_EQ(0, update->mHeaderCode);
    EXPECT_EQ(3, update->mMessageType);
    EXPECT_EQ(2, update->mMessageFlags);
    EXPECT_EQ(1, update->mCategory);
    EXPECT_EQ(3, update->mStatus);
    EXPECT_EQ(2, update->mAccuracy);
    EXPECT_EQ(1234, update->mTimestamp);
    EXPECT_EQ(8, update->mRequestId);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ActivityControllerTest, UpdateWhileStoppedIsNotTouched)
{
    const auto update = std::make_shared<ActivityData>(3, 2, 1234);

    mController->OnSensorDataUpdated(update);

    EXPECT_EQ(2, update->mHeaderCode);
    EXPECT_EQ(0, update->mMessageType);
    EXPECT_EQ(0, update->mCategory);
}

TEST_F(ActivityControllerTest, UpdatesCarryTheFlagsOfTheLatestStart)
{
    Start(1);
    mController->ProcessReqeust(MakeRequest(3, 3));
    mController->ProcessReqeust(MakeRequest(2, 2)); // measuring once has no part in it
    mListener->mSent.clear();

    Update(4);

    ASSERT_THAT(mListener->mSent, SizeIs(1));
    EXPECT_EQ(3, mListener->mSent[0]->mMessageFlags);
}

TEST_F(ActivityControllerTest, GestureOneIsActivitySixAndAnyOtherIsZero)
{
    mController->OnSensorDataUpdated(std::make_shared<GestureData>(1, 0));
    EXPECT_EQ(6, MeasuredStatus());

    for (const int action : {0, 2, -1, 6}) {
        mController->OnSensorDataUpdated(std::make_shared<GestureData>(1, 0));
        mController->OnSensorDataUpdated(std::make_shared<GestureData>(action, 0));
        EXPECT_EQ(0, MeasuredStatus()) << action;
    }
}

TEST_F(ActivityControllerTest, GestureWhileStartedIsSentAsANewActivity)
{
    Start(2);

    mController->OnSensorDataUpdated(std::make_shared<GestureData>(1, 1234));

    const auto sent = mListener->TakeOnly<ActivityData>();
    ASSERT_NE(nullptr, sent);
    EXPECT_EQ(6, sent->mStatus);
    EXPECT_EQ(0, sent->mHeaderCode);
    EXPECT_EQ(3, sent->mMessageType);
    EXPECT_EQ(2, sent->mMessageFlags);
    EXPECT_EQ(1, sent->mCategory);
    EXPECT_EQ(1400000000, sent->mTimestamp); // the new record's own
}

TEST_F(ActivityControllerTest, StopUnsubscribesThenIsAcknowledged)
{
    Start();

    mController->ProcessReqeust(MakeRequest(4));

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("UnregisterSensorListener(1)", "SendSensorData(0)"));
    EXPECT_THAT(mListener->mUnregistered, ElementsAre(mController.get()));
}

TEST_F(ActivityControllerTest, UpdatesAfterAStopDoNotReachTheHost)
{
    Start();
    mController->ProcessReqeust(MakeRequest(4));
    mListener->mSent.clear();

    Update(5);

    EXPECT_THAT(mListener->mSent, IsEmpty());
}

TEST_F(ActivityControllerTest, StopWhileStoppedDoesNotUnsubscribe)
{
    mController->ProcessReqeust(MakeRequest(4));

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("SendSensorData(0)"));
}

TEST_F(ActivityControllerTest, DisconnectionUnsubscribes)
{
    Start();

    mController->OnHostDisconnected();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("UnregisterSensorListener(1)"));
    EXPECT_THAT(mListener->mUnregistered, ElementsAre(mController.get()));
}

TEST_F(ActivityControllerTest, DisconnectionWhileStoppedUnsubscribesToo)
{
    mController->OnHostDisconnected();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("UnregisterSensorListener(1)"));
}

TEST_F(ActivityControllerTest, EndOfTheHostsServiceIsNothing)
{
    Start();

    mController->OnHostServiceTerminated();

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

// A host that comes back has to stop before it starts again.
TEST_F(ActivityControllerTest, StartedFlagSurvivesADisconnection)
{
    Start();
    mController->OnHostDisconnected();
    mPlatform.Forget();

    mController->ProcessReqeust(MakeRequest(3));
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("SendSensorData(1)"));

    mController->ProcessReqeust(MakeRequest(4));
    mController->ProcessReqeust(MakeRequest(3));
    EXPECT_TRUE(mListener->IsRegistered(SensorType::Activity));
}

TEST_F(ActivityControllerTest, NullRequestIsAnError)
{
    mController->MeasureCurrentSensorValue(nullptr);

    EXPECT_THAT(mListener->mSent, IsEmpty());
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(IsLogLine(6, "ActivityController: MeasureCurrentSensorValue(*) > \033[0;40;31m"
                                 "NULL Failed to create ActivityData instance\033[0;m")));
}

TEST_F(ActivityControllerTest, ReplyThatCannotBeCreatedIsAnError)
{
    const auto request = MakeRequest(2);

    mPlatform.FailAllocationOfSize(sizeof(ActivityData), sizeof(ActivityData) + 32);
    ScriptedPlatform::AsService([&] { mController->ProcessReqeust(request); });
    EXPECT_TRUE(mPlatform.StopFailingAllocations());

    EXPECT_THAT(mListener->mSent, IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(ErrorLine("ActivityController: MeasureCurrentSensorValue(*)",
                                      "NULL Failed to create ActivityData instance")));
}

TEST_F(ActivityControllerTest, AnswersOfQueriesAreIgnored)
{
    mController->OnSensorDataChanged(std::make_shared<ActivityData>(3, 2, 1234));

    EXPECT_EQ(0, MeasuredStatus());
}

TEST_F(ActivityControllerTest, ForeignUpdateDoesNoHarm)
{
    Start();
    Update(3);
    mListener->mSent.clear();

    mController->OnSensorDataUpdated(std::make_shared<HRMData>(97, 72, 800));
    mController->OnSensorDataUpdated(std::make_shared<SensorData>());

    EXPECT_EQ(3, MeasuredStatus());
}

// The start is not in force yet: the update is remembered, and the immediate reply carries it.
TEST_F(ActivityControllerTest, UpdateInsideTheRegistrationIsInTheImmediateReply)
{
    mListener->mInsideRegistration = [](ContextSensorListner &listner) {
        listner.OnSensorDataUpdated(std::make_shared<ActivityData>(2, 2, 1234));
    };

    mController->ProcessReqeust(MakeRequest(3));

    const auto reply = mListener->TakeOnly<ActivityData>();
    ASSERT_NE(nullptr, reply);
    EXPECT_EQ(2, reply->mStatus);
}

TEST_F(ActivityControllerTest, EndUnsubscribesByTheControllersAddress)
{
    const ContextSensorListner *const address = mController.get();

    mController.reset();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("UnregisterSensorListener(1)"));
    EXPECT_THAT(mListener->mUnregistered, ElementsAre(address));
}

TEST_F(ActivityControllerTest, WithoutListenerNothingIsAskedAndNothingSent)
{
    auto controller = std::make_shared<ActivityController>(nullptr);

    controller->ProcessReqeust(MakeRequest(2));
    controller->ProcessReqeust(MakeRequest(3));
    controller->OnSensorDataUpdated(std::make_shared<ActivityData>(2, 2, 1234));
    controller->OnHostDisconnected();
    controller->ProcessReqeust(MakeRequest(4));
    controller.reset();

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

} // namespace
} // namespace Parvane
