#include "ContextActivitySensor.h"

#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/context_manager.h>

#include "ActivityData.h"
#include "LogMatchers.h"
#include "RecordingListner.h"
#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class OpenActivitySensor : public ContextActivitySensor
{
public:
    using ContextSensor::mChangedRequestId;
};

class ContextActivitySensorTest : public testing::Test
{
protected:
    ContextActivitySensorTest() { mSensor->AddSensorEventListener(mListner); }

    std::shared_ptr<ActivityData> Deliver(const ContextValues &values,
                                          std::optional<int64_t> milliseconds)
    {
        mSensor->Start();
        mPlatform.Forget();
        mPlatform.DeliverContext(23, values, milliseconds);
        return mListner->mUpdated.empty()
                   ? nullptr
                   : std::dynamic_pointer_cast<ActivityData>(mListner->mUpdated.back());
    }

    ScriptedPlatform mPlatform;
    std::shared_ptr<OpenActivitySensor> mSensor = std::make_shared<OpenActivitySensor>();
    std::shared_ptr<RecordingListner> mListner = std::make_shared<RecordingListner>();
};

TEST_F(ContextActivitySensorTest, StartSubscribesToItem23WithAFilterOfOneTwoThree)
{
    mSensor->Start();

    EXPECT_THAT(
        mPlatform.TakeCalls(),
        ElementsAre(
            "context_option_new()",
            "context_option_add_value_int(CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER, 1)",
            "context_option_add_value_int(CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER, 2)",
            "context_option_add_value_int(CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER, 3)",
            "context_set_changed_callback(23, {CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER=1, "
            "CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER=2, "
            "CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER=3})"));
    EXPECT_EQ(1, mSensor->mChangedRequestId);
    EXPECT_EQ(mSensor.get(), mPlatform.SubscriptionOf(23).mUserData);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextActivitySensorTest, SecondStartWarnsAndBuildsNoOption)
{
    mSensor->Start();
    mPlatform.Forget();

    mSensor->Start();

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(LogLine{5, "Parvane",
                                    "ContextActivitySensor: Start(42) > "
                                    "\033[1;40;33malready registered\033[0;m"}));
}

// That the option is released all the same is the address sanitizer's finding.
TEST_F(ContextActivitySensorTest, FailedSubscriptionIsLoggedAndLeavesTheSensorIdle)
{
    mPlatform.FailNext("context_set_changed_callback", -5);

    mSensor->Start();

    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(LogLine{6, "Parvane",
                            "ContextActivitySensor: Start(50) > "
                            "\033[0;40;31mcontext_set_changed_callback FAIL [-5]\033[0;m"}));
}

TEST_F(ContextActivitySensorTest, SubscribesWithoutAFilterWhenThereIsNoOption)
{
    mPlatform.FailNext("context_option_new", -12);

    mSensor->Start();

    EXPECT_EQ(mPlatform.TakeCalls().back(), "context_set_changed_callback(23)");
    EXPECT_TRUE(mPlatform.IsSubscribed(23));
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(testing::Field(&LogLine::mText,
                                           testing::HasSubstr("context_option_new FAIL"))));
}

TEST_F(ContextActivitySensorTest, SubscribesWithTheRestOfTheFilterWhenAPartFails)
{
    mPlatform.FailCall("context_option_add_value_int", 2, -12);

    mSensor->Start();

    EXPECT_EQ(mPlatform.TakeCalls().back(),
              "context_set_changed_callback(23, {CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER=1, "
              "CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER=3})");
}

TEST_F(ContextActivitySensorTest, StopUnsubscribesBeforeItForgetsTheId)
{
    mSensor->Start();
    mPlatform.Forget();
    int32_t idInsideTheCall = 0;
    mPlatform.OnNextCall("context_unset_changed_callback", [this, &idInsideTheCall] {
        idInsideTheCall = mSensor->mChangedRequestId;
    });

    mSensor->Stop();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_unset_changed_callback(23)"));
    EXPECT_EQ(1, idInsideTheCall);
    EXPECT_EQ(-1, mSensor->mChangedRequestId);
}

TEST_F(ContextActivitySensorTest, StopWithoutStartUnsubscribesAnyway)
{
    mSensor->Stop();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_unset_changed_callback(23)"));
    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextActivitySensorTest, FailedUnsubscriptionIsLoggedAndTheSensorIdle)
{
    mSensor->Start();
    mPlatform.FailNext("context_unset_changed_callback", -9);

    mSensor->Stop();

    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(LogLine{6, "Parvane",
                            "ContextActivitySensor: Stop(62) > "
                            "\033[0;40;31mcontext_unset_changed_callback FAIL [-9]\033[0;m"}));
}

TEST_F(ContextActivitySensorTest, NotificationBecomesARecord)
{
    const auto reading =
        Deliver({{CONTEXT_ACTIVITY_STATUS, 3}, {CONTEXT_ACTIVITY_ACCURACY, 2}}, 77000);

    ASSERT_NE(nullptr, reading);
    EXPECT_EQ(3, reading->mStatus);
    EXPECT_EQ(2, reading->mAccuracy);
    EXPECT_EQ(77, reading->mTimestamp);
    EXPECT_EQ(1, reading->mRequestId);
}

TEST_F(ContextActivitySensorTest, StatusThenAccuracyThenTimestampAreRead)
{
    Deliver({}, std::nullopt);

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("context_context_data_get_int(CONTEXT_ACTIVITY_STATUS)",
                            "context_context_data_get_int(CONTEXT_ACTIVITY_ACCURACY)",
                            "context_context_data_get_timestamp()"));
}

TEST_F(ContextActivitySensorTest, MissingAccuracyIsMinusOne)
{
    const auto reading = Deliver({{CONTEXT_ACTIVITY_STATUS, 3}}, 77000);

    ASSERT_NE(nullptr, reading);
    EXPECT_EQ(-1, reading->mAccuracy);
    EXPECT_EQ(3, reading->mStatus);
}

TEST_F(ContextActivitySensorTest, MissingStatusIsZero)
{
    const auto reading = Deliver({{CONTEXT_ACTIVITY_ACCURACY, 1}}, 77000);

    ASSERT_NE(nullptr, reading);
    EXPECT_EQ(0, reading->mStatus);
}

// 1400000000123 milliseconds are 0x145F680B07B; their low 32 bits are -159338373.
TEST_F(ContextActivitySensorTest, TimestampIsCutTo32BitsBeforeItIsDivided)
{
    const auto reading = Deliver({{CONTEXT_ACTIVITY_STATUS, 3}}, 1400000000123);

    ASSERT_NE(nullptr, reading);
    EXPECT_EQ(-159338, reading->mTimestamp);
}

TEST_F(ContextActivitySensorTest, MissingTimestampIsMinusOneMillisecondAndSoSecondZero)
{
    const auto reading = Deliver({{CONTEXT_ACTIVITY_STATUS, 3}}, std::nullopt);

    ASSERT_NE(nullptr, reading);
    EXPECT_EQ(0, reading->mTimestamp);
}

TEST_F(ContextActivitySensorTest, QueryIsAnsweredAtOnceByAnEmptyReading)
{
    mSensor->Start();
    mPlatform.Forget();

    mSensor->GetCurrentSensorData();

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    ASSERT_THAT(mListner->mChanged, SizeIs(1));
    EXPECT_EQ(SensorType(0), mListner->mChanged[0]->GetSensorType());
}

// The option is still the sensor's then, and is released after the call.
TEST_F(ContextActivitySensorTest, ReadingInsideTheSubscriptionIsDelivered)
{
    mPlatform.DeliverDuringSubscription(23, {{CONTEXT_ACTIVITY_STATUS, 2}}, 5000);

    mSensor->Start();

    EXPECT_THAT(mListner->mUpdated, SizeIs(1));
}

TEST_F(ContextActivitySensorTest, CallbackWithoutUserDataReleasesTheReading)
{
    mSensor->Start();
    ContextRequest request = mPlatform.SubscriptionOf(23);
    request.mUserData = nullptr;

    ScriptedPlatform::CallContext(request, ScriptedPlatform::MakeContextData({}));

    EXPECT_THAT(mListner->mUpdated, IsEmpty());
}

TEST_F(ContextActivitySensorTest, ReadingIsDroppedWhenMemoryHasRunOut)
{
    mSensor->Start();

    mPlatform.FailAllocation(1);
    mPlatform.DeliverContext(23, {{CONTEXT_ACTIVITY_STATUS, 2}}, 5000);
    EXPECT_TRUE(mPlatform.StopFailingAllocations());
    EXPECT_THAT(mPlatform.TakeLog(),
                Contains(ErrorLine("ContextActivitySensor: OnContextChanged(*)",
                                   "reading dropped [std::bad_alloc]")));

    EXPECT_THAT(mListner->mUpdated, IsEmpty());
}

} // namespace
} // namespace Parvane
