#include "ContextHRMSensor.h"

#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/context_manager.h>

#include "HRMData.h"
#include "LogMatchers.h"
#include "RecordingListner.h"
#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class OpenHRMSensor : public ContextHRMSensor
{
public:
    using ContextSensor::mChangedRequestId;
    using ContextSensor::mCurrentRequestId;
};

class ContextHRMSensorTest : public testing::Test
{
protected:
    ContextHRMSensorTest() { mSensor->AddSensorEventListener(mListner); }

    std::shared_ptr<HRMData> LastReading() const
    {
        return mListner->mUpdated.empty()
                   ? nullptr
                   : std::dynamic_pointer_cast<HRMData>(mListner->mUpdated.back());
    }

    ScriptedPlatform mPlatform;
    std::shared_ptr<OpenHRMSensor> mSensor = std::make_shared<OpenHRMSensor>();
    std::shared_ptr<RecordingListner> mListner = std::make_shared<RecordingListner>();
};

TEST_F(ContextHRMSensorTest, StartSubscribesToItemSevenWithoutOption)
{
    mPlatform.SetNextRequestId(41);

    mSensor->Start();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_set_changed_callback(7)"));
    EXPECT_EQ(41, mSensor->mChangedRequestId);
    EXPECT_EQ(mSensor.get(), mPlatform.SubscriptionOf(7).mUserData);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextHRMSensorTest, SecondStartWarnsAndSubscribesOnce)
{
    mSensor->Start();
    mSensor->Start();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_set_changed_callback(7)"));
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(LogLine{5, "Parvane",
                                    "ContextHRMSensor: Start(38) > "
                                    "\033[1;40;33malready registered\033[0;m"}));
}

TEST_F(ContextHRMSensorTest, FailedSubscriptionIsLoggedAndLeavesTheSensorIdle)
{
    mPlatform.FailNext("context_set_changed_callback", -5);

    mSensor->Start();

    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(LogLine{6, "Parvane",
                            "ContextHRMSensor: Start(44) > "
                            "\033[0;40;31mcontext_set_changed_callback FAIL [-5]\033[0;m"}));
}

TEST_F(ContextHRMSensorTest, StartAfterAFailedOneSubscribes)
{
    mPlatform.FailNext("context_set_changed_callback", -5);
    mSensor->Start();

    mSensor->Start();

    EXPECT_EQ(1, mSensor->mChangedRequestId);
    EXPECT_TRUE(mPlatform.IsSubscribed(7));
}

TEST_F(ContextHRMSensorTest, StopEndsTheSubscription)
{
    mSensor->Start();
    mPlatform.Forget();

    mSensor->Stop();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_unset_changed_callback(7)"));
    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextHRMSensorTest, StopForgetsTheIdBeforeItUnsubscribes)
{
    mSensor->Start();
    int32_t idInsideTheCall = 0;
    mPlatform.OnNextCall("context_unset_changed_callback", [this, &idInsideTheCall] {
        idInsideTheCall = mSensor->mChangedRequestId;
    });

    mSensor->Stop();

    EXPECT_EQ(-1, idInsideTheCall);
}

TEST_F(ContextHRMSensorTest, StopWithoutStartUnsubscribesAnyway)
{
    mSensor->Stop();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_unset_changed_callback(7)"));
    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextHRMSensorTest, FailedUnsubscriptionIsLoggedAndTheSensorIdle)
{
    mSensor->Start();
    mPlatform.FailNext("context_unset_changed_callback", -9);

    mSensor->Stop();

    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(LogLine{6, "Parvane",
                            "ContextHRMSensor: Stop(53) > "
                            "\033[0;40;31mcontext_unset_changed_callback FAIL [-9]\033[0;m"}));
}

TEST_F(ContextHRMSensorTest, NotificationBecomesARecordOfNow)
{
    mSensor->Start();
    mPlatform.SetTime(1234567890);

    mPlatform.DeliverContext(
        7, {{CONTEXT_HRM_SPO2, 97}, {CONTEXT_HRM_HEART_RATE, 72}, {CONTEXT_HRM_PEAK_TO_PEAK, 833}},
        1);

    const auto reading = LastReading();
    ASSERT_NE(nullptr, reading);
    EXPECT_EQ(97, reading->mSpO2);
    EXPECT_EQ(72, reading->mHeartRate);
    EXPECT_EQ(833, reading->mPeakToPeak);
    EXPECT_EQ(1234567890, reading->mTimestamp);
    EXPECT_EQ(1, reading->mRequestId);
}

TEST_F(ContextHRMSensorTest, ValuesAreReadInTheirOrder)
{
    mSensor->Start();
    mPlatform.Forget();

    mPlatform.DeliverContext(7, {});

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("context_context_data_get_int(CONTEXT_HRM_SPO2)",
                            "context_context_data_get_int(CONTEXT_HRM_HEART_RATE)",
                            "context_context_data_get_int(CONTEXT_HRM_PEAK_TO_PEAK)"));
}

TEST_F(ContextHRMSensorTest, MissingOxygenIsZeroAndTheOthersAreRead)
{
    mSensor->Start();

    mPlatform.DeliverContext(7, {{CONTEXT_HRM_HEART_RATE, 72}, {CONTEXT_HRM_PEAK_TO_PEAK, 833}});

    const auto reading = LastReading();
    ASSERT_NE(nullptr, reading);
    EXPECT_EQ(0, reading->mSpO2);
    EXPECT_EQ(72, reading->mHeartRate);
    EXPECT_EQ(833, reading->mPeakToPeak);
}

TEST_F(ContextHRMSensorTest, EachValueThatCannotBeReadIsZero)
{
    mSensor->Start();
    mPlatform.FailEvery("context_context_data_get_int", -3);

    mPlatform.DeliverContext(7, {{CONTEXT_HRM_SPO2, 97}, {CONTEXT_HRM_HEART_RATE, 72}});

    const auto reading = LastReading();
    ASSERT_NE(nullptr, reading);
    EXPECT_EQ(0, reading->mSpO2);
    EXPECT_EQ(0, reading->mHeartRate);
    EXPECT_EQ(0, reading->mPeakToPeak);
}

TEST_F(ContextHRMSensorTest, ReadingInsideTheSubscriptionIsDelivered)
{
    mPlatform.DeliverDuringSubscription(7, {{CONTEXT_HRM_HEART_RATE, 64}});

    mSensor->Start();

    ASSERT_NE(nullptr, LastReading());
    EXPECT_EQ(64, LastReading()->mHeartRate);
}

TEST_F(ContextHRMSensorTest, ReadingOfAForeignRequestIsWarnedAbout)
{
    mSensor->Start();
    ContextRequest request = mPlatform.SubscriptionOf(7);
    request.mRequestId = 99;

    ScriptedPlatform::CallContext(request, ScriptedPlatform::MakeContextData({}));

    EXPECT_THAT(mListner->mUpdated, IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(WarningLine("ContextSensor: UpdateSensorData(62)",
                                        "Please specify the request ID on the data")));
}

TEST_F(ContextHRMSensorTest, NotificationWithoutReadingIsARecordOfZeros)
{
    mSensor->Start();

    ScriptedPlatform::CallContext(mPlatform.SubscriptionOf(7), nullptr, -1);

    ASSERT_NE(nullptr, LastReading());
    EXPECT_EQ(0, LastReading()->mHeartRate);
}

TEST_F(ContextHRMSensorTest, QueryIsAnsweredAtOnceByAnEmptyReading)
{
    mSensor->Start();
    mPlatform.Forget();

    mSensor->GetCurrentSensorData();

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    ASSERT_THAT(mListner->mChanged, SizeIs(1));
    EXPECT_EQ(SensorType(0), mListner->mChanged[0]->GetSensorType());
}

TEST_F(ContextHRMSensorTest, ListenerMayStopAndDropTheSensorInsideAReading)
{
    mSensor->Start();
    const std::weak_ptr<OpenHRMSensor> canary = mSensor;
    mListner->mInsideUpdated = [this] {
        mSensor->Stop();
        mSensor.reset();
    };

    mPlatform.DeliverContext(7, {{CONTEXT_HRM_HEART_RATE, 72}});

    EXPECT_TRUE(canary.expired());
    EXPECT_FALSE(mPlatform.IsSubscribed(7));
}

TEST_F(ContextHRMSensorTest, CallbackWithoutUserDataReleasesTheReading)
{
    mSensor->Start();
    ContextRequest request = mPlatform.SubscriptionOf(7);
    request.mUserData = nullptr;

    ScriptedPlatform::CallContext(request, ScriptedPlatform::MakeContextData({}));

    EXPECT_THAT(mListner->mUpdated, IsEmpty());
}

TEST_F(ContextHRMSensorTest, ReadingIsDroppedWhenMemoryHasRunOut)
{
    mSensor->Start();

    mPlatform.FailAllocation(1);
    mPlatform.DeliverContext(7, {{CONTEXT_HRM_HEART_RATE, 72}});
    EXPECT_TRUE(mPlatform.StopFailingAllocations());
    EXPECT_THAT(mPlatform.TakeLog(), Contains(ErrorLine("ContextHRMSensor: OnContextChanged(*)",
                                                        "reading dropped [std::bad_alloc]")));

    EXPECT_THAT(mListner->mUpdated, IsEmpty());
    mPlatform.DeliverContext(7, {{CONTEXT_HRM_HEART_RATE, 73}});
    ASSERT_NE(nullptr, LastReading());
    EXPECT_EQ(73, LastReading()->mHeartRate);
}

} // namespace
} // namespace Parvane
