#include "ContextGestureSensor.h"

#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/context_manager.h>

#include "GestureData.h"
#include "LogMatchers.h"
#include "RecordingListner.h"
#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class OpenGestureSensor : public ContextGestureSensor
{
public:
    using ContextSensor::mChangedRequestId;
};

class ContextGestureSensorTest : public testing::Test
{
protected:
    ContextGestureSensorTest() { mSensor->AddSensorEventListener(mListner); }

    std::shared_ptr<GestureData> Deliver(const ContextValues &values,
                                         std::optional<int64_t> milliseconds)
    {
        mSensor->Start();
        mPlatform.Forget();
        mPlatform.DeliverContext(1, values, milliseconds);
        return mListner->mUpdated.empty()
                   ? nullptr
                   : std::dynamic_pointer_cast<GestureData>(mListner->mUpdated.back());
    }

    ScriptedPlatform mPlatform;
    std::shared_ptr<OpenGestureSensor> mSensor = std::make_shared<OpenGestureSensor>();
    std::shared_ptr<RecordingListner> mListner = std::make_shared<RecordingListner>();
};

TEST_F(ContextGestureSensorTest, StartSubscribesToItemOneWithoutOption)
{
    mPlatform.SetNextRequestId(41);

    mSensor->Start();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_set_changed_callback(1)"));
    EXPECT_EQ(41, mSensor->mChangedRequestId);
    EXPECT_EQ(mSensor.get(), mPlatform.SubscriptionOf(1).mUserData);
}

TEST_F(ContextGestureSensorTest, SecondStartWarnsAndSubscribesOnce)
{
    mSensor->Start();
    mSensor->Start();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_set_changed_callback(1)"));
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(LogLine{5, "Parvane",
                                    "ContextGestureSensor: Start(42) > "
                                    "\033[1;40;33malready registered\033[0;m"}));
}

TEST_F(ContextGestureSensorTest, FailedSubscriptionIsLoggedAndLeavesTheSensorIdle)
{
    mPlatform.FailNext("context_set_changed_callback", -5);

    mSensor->Start();

    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(LogLine{6, "Parvane",
                            "ContextGestureSensor: Start(48) > "
                            "\033[0;40;31mcontext_set_changed_callback FAIL [-5]\033[0;m"}));
}

TEST_F(ContextGestureSensorTest, StopUnsubscribesBeforeItForgetsTheId)
{
    mSensor->Start();
    mPlatform.Forget();
    int32_t idInsideTheCall = 0;
    mPlatform.OnNextCall("context_unset_changed_callback", [this, &idInsideTheCall] {
        idInsideTheCall = mSensor->mChangedRequestId;
    });

    mSensor->Stop();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_unset_changed_callback(1)"));
    EXPECT_EQ(1, idInsideTheCall);
    EXPECT_EQ(-1, mSensor->mChangedRequestId);
}

TEST_F(ContextGestureSensorTest, StopWithoutStartUnsubscribesAnyway)
{
    mSensor->Stop();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_unset_changed_callback(1)"));
    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextGestureSensorTest, FailedUnsubscriptionIsLoggedAndTheSensorIdle)
{
    mSensor->Start();
    mPlatform.FailNext("context_unset_changed_callback", -9);

    mSensor->Stop();

    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(LogLine{6, "Parvane",
                            "ContextGestureSensor: Stop(57) > "
                            "\033[0;40;31mcontext_unset_changed_callback FAIL [-9]\033[0;m"}));
}

TEST_F(ContextGestureSensorTest, NotificationBecomesARecordStampedInSeconds)
{
    const auto reading = Deliver({{CONTEXT_MOTION_ACTION, 1}}, 1400000000123);

    ASSERT_NE(nullptr, reading);
    EXPECT_EQ(1, reading->mAction);
    EXPECT_EQ(1400000000, reading->mTimestamp);
    EXPECT_EQ(1, reading->mRequestId);
}

TEST_F(ContextGestureSensorTest, ActionIsReadBeforeTheTimestamp)
{
    Deliver({}, std::nullopt);

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("context_context_data_get_int(CONTEXT_MOTION_ACTION)",
                            "context_context_data_get_timestamp()"));
}

TEST_F(ContextGestureSensorTest, MissingActionIsZero)
{
    const auto reading = Deliver({}, 5000);

    ASSERT_NE(nullptr, reading);
    EXPECT_EQ(0, reading->mAction);
    EXPECT_EQ(5, reading->mTimestamp);
}

TEST_F(ContextGestureSensorTest, MissingTimestampIsMinusOneMillisecondAndSoSecondZero)
{
    const auto reading = Deliver({{CONTEXT_MOTION_ACTION, 1}}, std::nullopt);

    ASSERT_NE(nullptr, reading);
    EXPECT_EQ(0, reading->mTimestamp); // -1 divided by 1000
}

TEST_F(ContextGestureSensorTest, TimestampsBeforeTheEpochAreDividedTowardZero)
{
    const auto reading = Deliver({}, -1999);

    ASSERT_NE(nullptr, reading);
    EXPECT_EQ(-1, reading->mTimestamp);
}

TEST_F(ContextGestureSensorTest, QueryIsAnsweredAtOnceByAnEmptyReading)
{
    mSensor->Start();
    mPlatform.Forget();

    mSensor->GetCurrentSensorData();

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    ASSERT_THAT(mListner->mChanged, SizeIs(1));
    EXPECT_EQ(SensorType(0), mListner->mChanged[0]->GetSensorType());
}

TEST_F(ContextGestureSensorTest, ReadingInsideTheSubscriptionIsDelivered)
{
    mPlatform.DeliverDuringSubscription(1, {{CONTEXT_MOTION_ACTION, 1}}, 5000);

    mSensor->Start();

    EXPECT_THAT(mListner->mUpdated, SizeIs(1));
}

TEST_F(ContextGestureSensorTest, CallbackWithoutUserDataReleasesTheReading)
{
    mSensor->Start();
    ContextRequest request = mPlatform.SubscriptionOf(1);
    request.mUserData = nullptr;

    ScriptedPlatform::CallContext(request, ScriptedPlatform::MakeContextData({}));

    EXPECT_THAT(mListner->mUpdated, IsEmpty());
}

TEST_F(ContextGestureSensorTest, ReadingIsDroppedWhenMemoryHasRunOut)
{
    mSensor->Start();

    mPlatform.FailAllocation(1);
    mPlatform.DeliverContext(1, {{CONTEXT_MOTION_ACTION, 1}}, 5000);
    EXPECT_TRUE(mPlatform.StopFailingAllocations());
    EXPECT_THAT(mPlatform.TakeLog(), Contains(ErrorLine("ContextGestureSensor: OnContextChanged(*)",
                                                        "reading dropped [std::bad_alloc]")));

    EXPECT_THAT(mListner->mUpdated, IsEmpty());
}

} // namespace
} // namespace Parvane
