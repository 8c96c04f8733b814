#include "GestureController.h"

#include <memory>

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

class GestureControllerTest : public ControllerTest
{
protected:
    int MeasuredAction()
    {
        mListener->mSent.clear();
        mController->ProcessReqeust(MakeRequest(2));
        const auto reply = mListener->TakeOnly<GestureData>();
        return reply ? reply->mAction : -99;
    }

    std::shared_ptr<GestureController> mController = std::make_shared<GestureController>(mListener);
};

TEST_F(GestureControllerTest, InitializeSubscribes)
{
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());

    mController->Initialize();

    EXPECT_EQ(SensorType(2), mController->GetSensorType());
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("RegisterSensorListener(2)"));
    EXPECT_EQ(mController.get(), mListener->mRegistered[SensorType::Gesture]);
}

TEST_F(GestureControllerTest, DescriptionIsEmpty)
{
    const auto info = mController->GetSensorInfo();

    ASSERT_NE(nullptr, info);
    EXPECT_EQ(SensorType(0), info->mSensorType);
    EXPECT_EQ(0, info->mSensorId);
    EXPECT_EQ(0, info->mAvailable);
    EXPECT_EQ(0.0F, info->mMaxRange);
    EXPECT_EQ(0.0F, info->mResolution);
    EXPECT_EQ(0.0F, info->mMinValue);
    EXPECT_EQ(0, info->mMinDelay);
    EXPECT_EQ(0, info->mReserved);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(GestureControllerTest, MeasureOnceBeforeAnyGestureAnswersZeroAtOnce)
{
    mController->ProcessReqeust(MakeRequest(2, 3, 9));

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("SendSensorData(2)"));
    const auto reply = mListener->TakeOnly<GestureData>();
    ASSERT_NE(nullptr, reply);
    EXPECT_EQ(0, reply->mAction);
    ExpectReply(*reply, 2, 3, 9);
}

TEST_F(GestureControllerTest, GestureWhileStoppedIsRememberedAndNotSent)
{
    mController->OnSensorDataUpdated(std::make_shared<GestureData>(1, 0));

    EXPECT_THAT(mListener->mSent, IsEmpty());
    EXPECT_EQ(1, MeasuredAction());
}

TEST_F(GestureControllerTest, StartAnswersAtOnceAndSubscribesNothing)
{
    mController->OnSensorDataUpdated(std::make_shared<GestureData>(5, 0));

    mController->ProcessReqeust(MakeRequest(3, 2, 9));

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("SendSensorData(2)"));
    const auto reply = mListener->TakeOnly<GestureData>();
    ASSERT_NE(nullptr, reply);
    EXPECT_EQ(5, reply->mAction);
    ExpectReply(*reply, 3, 2, 9);
}

TEST_F(GestureControllerTest, GestureWhileStartedIsForwardedUnchanged)
{
    mController->ProcessReqeust(MakeRequest(3));
    mListener->mSent.clear();
    const auto gesture = std::make_shared<GestureData>(1, 1234);
    gesture->mRequestId = 8;

    mController->OnSensorDataUpdated(gesture);

    EXPECT_THAT(mListener->mSent, ElementsAre(gesture));
    EXPECT_EQ(2, gesture->mHeaderCode);
    EXPECT_EQ(0, gesture->mMessageType);
    EXPECT_EQ(0, gesture->mMessageFlags);
    EXPECT_EQ(0, gesture->mCategory);
    EXPECT_EQ(1234, gesture->mTimestamp);
    EXPECT_EQ(8, gesture->mRequestId);
}

TEST_F(GestureControllerTest, AfterAStopGesturesAreHeardAndNotForwarded)
{
    mController->Initialize();
    mController->ProcessReqeust(MakeRequest(3));
    mController->ProcessReqeust(MakeRequest(4));
    mListener->mSent.clear();

    mController->OnSensorDataUpdated(std::make_shared<GestureData>(7, 0));

    EXPECT_THAT(mListener->mSent, IsEmpty());
    EXPECT_TRUE(mListener->IsRegistered(SensorType::Gesture));
    EXPECT_EQ(7, MeasuredAction());
}

TEST_F(GestureControllerTest, StopIsAcknowledged)
{
    mController->ProcessReqeust(MakeRequest(4));

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("SendSensorData(0)"));
}

TEST_F(GestureControllerTest, LinkEventsChangeNothing)
{
    mController->Initialize();
    mPlatform.Forget();

    mController->OnHostDisconnected();
    mController->OnHostServiceTerminated();

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(GestureControllerTest, NullRequestIsAnError)
{
    mController->MeasureCurrentSensorValue(nullptr);

    EXPECT_THAT(mListener->mSent, IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(IsLogLine(6, "GestureController: MeasureCurrentSensorValue(*) > "
                                         "\033[0;40;31mNULL point error\033[0;m")));
}

TEST_F(GestureControllerTest, ReplyThatCannotBeCreatedIsAnError)
{
    const auto request = MakeRequest(2);

    mPlatform.FailAllocationOfSize(sizeof(GestureData), sizeof(GestureData) + 32);
    ScriptedPlatform::AsService([&] { mController->ProcessReqeust(request); });
    EXPECT_TRUE(mPlatform.StopFailingAllocations());

    EXPECT_THAT(mListener->mSent, IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(ErrorLine("GestureController: MeasureCurrentSensorValue(*)",
                                      "NULL point error")));
}

TEST_F(GestureControllerTest, AnswersOfQueriesAreIgnored)
{
    mController->OnSensorDataChanged(std::make_shared<GestureData>(1, 0));

    EXPECT_EQ(0, MeasuredAction());
}

TEST_F(GestureControllerTest, ForeignUpdateDoesNoHarm)
{
    mController->OnSensorDataUpdated(std::make_shared<GestureData>(1, 0));

    mController->OnSensorDataUpdated(std::make_shared<HRMData>(97, 72, 800));
    mController->OnSensorDataUpdated(nullptr);

    EXPECT_EQ(1, MeasuredAction());
}

TEST_F(GestureControllerTest, GestureInsideTheSubscriptionIsRemembered)
{
    mListener->mInsideRegistration = [](ContextSensorListner &listner) {
        listner.OnSensorDataUpdated(std::make_shared<GestureData>(3, 0));
    };

    mController->Initialize();

    EXPECT_EQ(3, MeasuredAction());
}

TEST_F(GestureControllerTest, EndUnsubscribesByTheControllersAddress)
{
    const ContextSensorListner *const address = mController.get();
    const std::weak_ptr<RecordingControlListener> canary = mListener;

    mController.reset();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("UnregisterSensorListener(2)"));
    EXPECT_THAT(mListener->mUnregistered, ElementsAre(address));
    mListener.reset();
    EXPECT_TRUE(canary.expired());
}

TEST_F(GestureControllerTest, WithoutListenerNothingIsAskedAndNothingSent)
{
    auto controller = std::make_shared<GestureController>(nullptr);

    controller->Initialize();
    controller->ProcessReqeust(MakeRequest(3));
    controller->OnSensorDataUpdated(std::make_shared<GestureData>(1, 0));
    controller.reset();

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

} // namespace
} // namespace Parvane
