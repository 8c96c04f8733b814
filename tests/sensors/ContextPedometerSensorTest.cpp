#include "ContextPedometerSensor.h"

#include <climits>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <limits>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/context_manager.h>

#include "LogMatchers.h"
#include "PedometerData.h"
#include "RecordingListner.h"
#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class OpenPedometerSensor : public ContextPedometerSensor
{
public:
    using ContextSensor::mChangedRequestId;
    using ContextSensor::mCurrentRequestId;
};

class ContextPedometerSensorTest : public testing::Test
{
protected:
    ContextPedometerSensorTest() { mSensor->AddSensorEventListener(mListner); }

    static ContextValues Steps(double total)
    {
        return {{CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, total}};
    }

    static ContextValues Values(double total, double distance, double calorie, double walk,
                                double run, double speed)
    {
        return {{CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, total},
                {CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE, distance},
                {CONTEXT_PEDOMETER_CUMULATIVE_CALORIE, calorie},
                {CONTEXT_PEDOMETER_CUMULATIVE_WALK_STEP_COUNT, walk},
                {CONTEXT_PEDOMETER_CUMULATIVE_RUN_STEP_COUNT, run},
                {CONTEXT_PEDOMETER_SPEED, speed}};
    }

    // The totals of all updates so far.
    std::vector<int> Totals() const
    {
        std::vector<int> totals;
        for (const auto &reading : mListner->mUpdated) {
            totals.push_back(dynamic_cast<const PedometerData &>(*reading).mTotalStepCount);
        }
        return totals;
    }

    const PedometerData &Last() const
    {
        return dynamic_cast<const PedometerData &>(*mListner->mUpdated.back());
    }

    ScriptedPlatform mPlatform;
    std::shared_ptr<OpenPedometerSensor> mSensor = std::make_shared<OpenPedometerSensor>();
    std::shared_ptr<RecordingListner> mListner = std::make_shared<RecordingListner>();
};

TEST_F(ContextPedometerSensorTest, StartSubscribesToItemTwoWithoutOption)
{
    mPlatform.SetNextRequestId(41);

    mSensor->Start();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_set_changed_callback(2)"));
    EXPECT_EQ(41, mSensor->mChangedRequestId);
    EXPECT_EQ(-1, mSensor->mCurrentRequestId);
    EXPECT_EQ(mSensor.get(), mPlatform.SubscriptionOf(2).mUserData);
}

TEST_F(ContextPedometerSensorTest, SecondStartWarnsAndSubscribesOnce)
{
    mSensor->Start();
    mSensor->Start();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_set_changed_callback(2)"));
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(LogLine{5, "Parvane",
                                    "ContextPedometerSensor: Start(46) > "
                                    "\033[1;40;33malready registered\033[0;m"}));
}

TEST_F(ContextPedometerSensorTest, SecondStartKeepsTheBaseline)
{
    mSensor->Start();
    mPlatform.DeliverContext(2, Steps(1000));

    mSensor->Start();
    mPlatform.DeliverContext(2, Steps(1010));

    EXPECT_THAT(Totals(), ElementsAre(0, 10));
}

TEST_F(ContextPedometerSensorTest, FailedSubscriptionIsLoggedAndLeavesTheSensorIdle)
{
    mPlatform.FailNext("context_set_changed_callback", -5);

    mSensor->Start();

    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(LogLine{6, "Parvane",
                            "ContextPedometerSensor: Start(59) > "
                            "\033[0;40;31mcontext_set_changed_callback FAIL [-5]\033[0;m"}));
}

TEST_F(ContextPedometerSensorTest, StopEndsTheSubscription)
{
    mSensor->Start();
    mPlatform.Forget();

    mSensor->Stop();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_unset_changed_callback(2)"));
    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextPedometerSensorTest, StopWithoutStartUnsubscribesAnyway)
{
    mSensor->Stop();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_unset_changed_callback(2)"));
    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextPedometerSensorTest, FailedUnsubscriptionIsLoggedAndTheSensorIdle)
{
    mSensor->Start();
    mPlatform.FailNext("context_unset_changed_callback", -9);

    mSensor->Stop();

    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(LogLine{6, "Parvane",
                            "ContextPedometerSensor: Stop(74) > "
                            "\033[0;40;31mcontext_unset_changed_callback FAIL [-9]\033[0;m"}));
}

TEST_F(ContextPedometerSensorTest, QueryAsksThePlatformForItemTwoWithoutOption)
{
    mPlatform.SetNextRequestId(17);

    mSensor->GetCurrentSensorData();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_get_context(2)"));
    EXPECT_EQ(17, mSensor->mCurrentRequestId);
    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_THAT(mListner->mUpdated, IsEmpty());
    EXPECT_THAT(mListner->mChanged, IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextPedometerSensorTest, FailedQueryIsLogged)
{
    mPlatform.FailNext("context_get_context", -7);

    mSensor->GetCurrentSensorData();

    EXPECT_EQ(-1, mSensor->mCurrentRequestId);
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(LogLine{6, "Parvane",
                                    "ContextPedometerSensor: GetCurrentSensorData(157) > "
                                    "\033[0;40;31mcontext_get_context FAIL [-7]\033[0;m"}));
}

TEST_F(ContextPedometerSensorTest, AnswerOfAQueryGoesToOnSensorDataChanged)
{
    mSensor->Start();
    mPlatform.DeliverContext(2, Steps(1000));
    mSensor->GetCurrentSensorData();

    mPlatform.AnswerQuery(2, Steps(1010));

    ASSERT_THAT(mListner->mChanged, SizeIs(1));
    const auto &answer = dynamic_cast<const PedometerData &>(*mListner->mChanged[0]);
    EXPECT_EQ(10, answer.mTotalStepCount);
    EXPECT_EQ(2, answer.mRequestId);
    EXPECT_EQ(-1, mSensor->mCurrentRequestId);
    EXPECT_THAT(mListner->mUpdated, SizeIs(1));
}

TEST_F(ContextPedometerSensorTest, QueryBeforeAnyStartTakesTheBaseline)
{
    mSensor->GetCurrentSensorData();
    mPlatform.AnswerQuery(2, Steps(1000));
    mSensor->GetCurrentSensorData();
    mPlatform.AnswerQuery(2, Steps(1010));

    ASSERT_THAT(mListner->mChanged, SizeIs(2));
    EXPECT_EQ(0, dynamic_cast<const PedometerData &>(*mListner->mChanged[0]).mTotalStepCount);
    EXPECT_EQ(10, dynamic_cast<const PedometerData &>(*mListner->mChanged[1]).mTotalStepCount);
}

TEST_F(ContextPedometerSensorTest, TotalsAreRelativeToTheFirstReading)
{
    mSensor->Start();

    mPlatform.DeliverContext(2, Steps(1000));
    mPlatform.DeliverContext(2, Steps(1010));
    mPlatform.DeliverContext(2, Steps(1025));

    EXPECT_THAT(Totals(), ElementsAre(0, 10, 25));
}

TEST_F(ContextPedometerSensorTest, StartAfterStopTakesANewBaseline)
{
    mSensor->Start();
    mPlatform.DeliverContext(2, Steps(1000));
    mSensor->Stop();
    mSensor->Start();

    mPlatform.DeliverContext(2, Steps(1030));
    mPlatform.DeliverContext(2, Steps(1040));

    EXPECT_THAT(Totals(), ElementsAre(0, 0, 10));
}

// The baseline is asked for before the platform is, so a failed subscription renews it as well.
TEST_F(ContextPedometerSensorTest, FailedStartTakesANewBaselineToo)
{
    mSensor->GetCurrentSensorData();
    mPlatform.AnswerQuery(2, Steps(1000));
    mPlatform.FailNext("context_set_changed_callback", -5);
    mSensor->Start();

    mSensor->GetCurrentSensorData();
    mPlatform.AnswerQuery(2, Steps(1010));

    ASSERT_THAT(mListner->mChanged, SizeIs(2));
    EXPECT_EQ(0, dynamic_cast<const PedometerData &>(*mListner->mChanged[1]).mTotalStepCount);
}

TEST_F(ContextPedometerSensorTest, AllSixMeasurementsAreRelative)
{
    mSensor->Start();

    mPlatform.DeliverContext(2, Values(1000, 700.5, 40, 800, 200, 3));
    mPlatform.DeliverContext(2, Values(1100, 770.75, 45, 850, 250, 5));

    EXPECT_EQ(100, Last().mTotalStepCount);
    EXPECT_EQ(70.25F, Last().mDistance);
    EXPECT_EQ(5, Last().mCalorie);
    EXPECT_EQ(50, Last().mWalkStepCount);
    EXPECT_EQ(50, Last().mRunStepCount);
    EXPECT_EQ(2.0, Last().mSpeed);
}

TEST_F(ContextPedometerSensorTest, FirstReadingIsDeliveredAsZerosOfNow)
{
    mSensor->Start();
    mPlatform.SetTime(1234567890);

    mPlatform.DeliverContext(2, Values(1000, 700.5, 40, 800, 200, 3));

    EXPECT_EQ(0, Last().mTotalStepCount);
    EXPECT_EQ(0.0F, Last().mDistance);
    EXPECT_EQ(0, Last().mCalorie);
    EXPECT_EQ(0, Last().mWalkStepCount);
    EXPECT_EQ(0, Last().mRunStepCount);
    EXPECT_EQ(0.0, Last().mSpeed);
    EXPECT_EQ(1234567890, Last().mTimestamp);
    EXPECT_EQ(1, Last().mRequestId);
}

TEST_F(ContextPedometerSensorTest, EachReadingIsStampedWithItsOwnTime)
{
    mSensor->Start();
    mPlatform.DeliverContext(2, Steps(1000), 1);
    mPlatform.SetTime(1400000060);

    mPlatform.DeliverContext(2, Steps(1010), 1);

    EXPECT_EQ(1400000060, Last().mTimestamp);
}

TEST_F(ContextPedometerSensorTest, ValuesAreReadInTheirOrder)
{
    mSensor->Start();
    mPlatform.Forget();

    mPlatform.DeliverContext(2, {});

    EXPECT_THAT(
        mPlatform.TakeCalls(),
        ElementsAre(
            "context_context_data_get_double(CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT)",
            "context_context_data_get_double(CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE)",
            "context_context_data_get_double(CONTEXT_PEDOMETER_CUMULATIVE_CALORIE)",
            "context_context_data_get_double(CONTEXT_PEDOMETER_CUMULATIVE_WALK_STEP_COUNT)",
            "context_context_data_get_double(CONTEXT_PEDOMETER_CUMULATIVE_RUN_STEP_COUNT)",
            "context_context_data_get_double(CONTEXT_PEDOMETER_SPEED)"));
}

TEST_F(ContextPedometerSensorTest, MissingKeysAreZero)
{
    mSensor->Start();
    mPlatform.DeliverContext(2, Steps(1000));

    mPlatform.DeliverContext(2, {{CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, 1010.0},
                                 {CONTEXT_PEDOMETER_CUMULATIVE_CALORIE, 4.0}});

    EXPECT_EQ(10, Last().mTotalStepCount);
    EXPECT_EQ(4, Last().mCalorie);
    EXPECT_EQ(0.0F, Last().mDistance);
}

TEST_F(ContextPedometerSensorTest, FailedReadsLeaveZero)
{
    mSensor->Start();
    mPlatform.DeliverContext(2, Values(0, 0, 0, 0, 0, 0));
    mPlatform.FailCall("context_context_data_get_double", 3, -3);

    mPlatform.DeliverContext(2, Values(10, 5, 4, 8, 2, 1));

    EXPECT_EQ(10, Last().mTotalStepCount);
    EXPECT_EQ(0, Last().mCalorie);
    EXPECT_EQ(8, Last().mWalkStepCount);
}

TEST_F(ContextPedometerSensorTest, ReadingBelowTheBaselineIsAnAllZeroRecordOfTimeZero)
{
    mSensor->Start();
    mPlatform.DeliverContext(2, Values(1000, 700, 40, 800, 200, 3));

    mPlatform.DeliverContext(2, Values(5, 800, 50, 900, 300, 4));

    EXPECT_EQ(0, Last().mTotalStepCount);
    EXPECT_EQ(0.0F, Last().mDistance);
    EXPECT_EQ(0, Last().mCalorie);
    EXPECT_EQ(0.0, Last().mSpeed);
    EXPECT_EQ(0, Last().mTimestamp);
    EXPECT_EQ(1, Last().mRequestId);
}

TEST_F(ContextPedometerSensorTest, ReadingBelowTheBaselineLeavesTheBaseline)
{
    mSensor->Start();
    mPlatform.DeliverContext(2, Steps(1000));
    mPlatform.DeliverContext(2, Steps(5));

    mPlatform.DeliverContext(2, Steps(1007));

    EXPECT_THAT(Totals(), ElementsAre(0, 0, 7));
}

// Only the total decides whether the count went back.
TEST_F(ContextPedometerSensorTest, OtherMeasurementsMayFallBelowTheBaseline)
{
    mSensor->Start();
    mPlatform.DeliverContext(2, Values(1000, 700, 40, 800, 200, 3));

    mPlatform.DeliverContext(2, Values(1000, 600, 30, 700, 100, 1));

    EXPECT_EQ(0, Last().mTotalStepCount);
    EXPECT_EQ(-100.0F, Last().mDistance);
    EXPECT_EQ(-10, Last().mCalorie);
    EXPECT_EQ(-2.0, Last().mSpeed);
    EXPECT_EQ(1400000000, Last().mTimestamp);
}

TEST_F(ContextPedometerSensorTest, SpeedIsTruncatedBeforeTheSubtraction)
{
    mSensor->Start();
    mPlatform.DeliverContext(2, Values(0, 0, 0, 0, 0, 0.9)); // 0

    mPlatform.DeliverContext(2, Values(0, 0, 0, 0, 0, 1.9)); // 1

    EXPECT_EQ(1.0, Last().mSpeed);
}

TEST_F(ContextPedometerSensorTest, CountsAreTruncatedTowardZero)
{
    mSensor->Start();
    mPlatform.DeliverContext(2, Values(0, 0, 0, 0, 0, 0));

    mPlatform.DeliverContext(2, Values(10.9, 0.5, 4.9, -8.9, -2.9, -1.9));

    EXPECT_EQ(10, Last().mTotalStepCount);
    EXPECT_EQ(0.5F, Last().mDistance);
    EXPECT_EQ(4, Last().mCalorie);
    EXPECT_EQ(-8, Last().mWalkStepCount);
    EXPECT_EQ(-2, Last().mRunStepCount);
    EXPECT_EQ(-1.0, Last().mSpeed);
}

// What they become is nobody's promise; that the service goes on counting is.
TEST_F(ContextPedometerSensorTest, NumbersThatNoCountCanHoldDoNoHarm)
{
    mSensor->Start();
    mPlatform.DeliverContext(2, Steps(0));
    const double huge = 1e300;
    const double infinite = std::numeric_limits<double>::infinity();
    const double nan = std::nan("");

    mPlatform.DeliverContext(2, Values(huge, 1, -huge, infinite, -infinite, nan));
    mPlatform.DeliverContext(2, Values(nan, nan, nan, nan, nan, nan));
    mPlatform.DeliverContext(2, Steps(12));

    EXPECT_THAT(mListner->mUpdated, SizeIs(4));
    EXPECT_EQ(12, Last().mTotalStepCount);
}

TEST_F(ContextPedometerSensorTest, DistanceThatAFloatCannotHoldIsItsLimit)
{
    mSensor->Start();
    mPlatform.DeliverContext(2, Steps(0));

    mPlatform.DeliverContext(2, {{CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE, 1e300}});
    EXPECT_EQ(std::numeric_limits<float>::max(), Last().mDistance);

    mPlatform.DeliverContext(2, {{CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE, -1e300}});
    EXPECT_EQ(std::numeric_limits<float>::lowest(), Last().mDistance);
}

TEST_F(ContextPedometerSensorTest, DifferenceAcrossTheWholeRangeDoesNotOverflow)
{
    mSensor->Start();
    mPlatform.DeliverContext(2, Values(INT_MIN, 0, INT_MIN, INT_MIN, INT_MIN, INT_MIN));

    mPlatform.DeliverContext(2, Values(INT_MAX, 0, INT_MAX, INT_MAX, INT_MAX, INT_MAX));

    // 2^32 - 1 is -1 in 32 bits: below zero, so a record of zeros goes out.
    EXPECT_EQ(0, Last().mTotalStepCount);
    EXPECT_EQ(0, Last().mTimestamp);
}

TEST_F(ContextPedometerSensorTest, ReadingInsideTheSubscriptionIsTheBaseline)
{
    mPlatform.DeliverDuringSubscription(2, Steps(1000));

    mSensor->Start();
    mPlatform.DeliverContext(2, Steps(1010));

    EXPECT_THAT(Totals(), ElementsAre(0, 10));
}

TEST_F(ContextPedometerSensorTest, CallbackWithoutUserDataReleasesTheReading)
{
    mSensor->Start();
    ContextRequest request = mPlatform.SubscriptionOf(2);
    request.mUserData = nullptr;
    mPlatform.Forget();

    ScriptedPlatform::CallContext(request, ScriptedPlatform::MakeContextData(Steps(10)));

    EXPECT_THAT(mPlatform.TakeCalls(), SizeIs(6)); // the values are read before the check
    EXPECT_THAT(mListner->mUpdated, IsEmpty());
}

TEST_F(ContextPedometerSensorTest, ReadingIsDroppedWhenMemoryHasRunOut)
{
    mSensor->Start();

    mPlatform.FailAllocation(1);
    mPlatform.DeliverContext(2, Steps(1000));
    EXPECT_TRUE(mPlatform.StopFailingAllocations());
    EXPECT_THAT(mPlatform.TakeLog(),
                Contains(ErrorLine("ContextPedometerSensor: OnContextChanged(*)",
                                   "reading dropped [std::bad_alloc]")));

    EXPECT_THAT(mListner->mUpdated, IsEmpty());
}

// The option for the wearer.

TEST_F(ContextPedometerSensorTest, OptionHoldsGenderHeightAndWeight)
{
    ContextManagerOptionType *const option =
        mSensor->CreateContextManagerOption(CONTEXT_PEDOMETER_GENDER_FEMALE, 171.5, 63.25);

    EXPECT_NE(nullptr, option);
    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("context_option_new()",
                            "context_option_add_value_int(CONTEXT_PEDOMETER_GENDER, 2)",
                            "context_option_add_value_double(CONTEXT_PEDOMETER_HEIGHT, 171.5)",
                            "context_option_add_value_double(CONTEXT_PEDOMETER_WEIGHT, 63.25)"));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
    std::free(option);
}

// The option moves at every addition: the one returned has to be the last.
TEST_F(ContextPedometerSensorTest, OptionThatIsReturnedHasAllThreeValues)
{
    ContextManagerOptionType *const option =
        mSensor->CreateContextManagerOption(CONTEXT_PEDOMETER_GENDER_MALE, 180, 80);
    mPlatform.Forget();

    int id = 0;
    context_set_changed_callback(2, option, nullptr, nullptr, &id);

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("context_set_changed_callback(2, {CONTEXT_PEDOMETER_GENDER=1, "
                            "CONTEXT_PEDOMETER_HEIGHT=180, CONTEXT_PEDOMETER_WEIGHT=80})"));
    std::free(option);
}

TEST_F(ContextPedometerSensorTest, FailuresOfTheOptionAreLoggedWithTheirCodes)
{
    mPlatform.FailNext("context_option_add_value_int", -12);
    mPlatform.FailCall("context_option_add_value_double", 1, -13);
    mPlatform.FailCall("context_option_add_value_double", 2, -14);

    std::free(mSensor->CreateContextManagerOption(CONTEXT_PEDOMETER_GENDER_MALE, 180, 80));

    const std::vector<LogLine> log = mPlatform.TakeLog();
    ASSERT_THAT(log, SizeIs(3));
    EXPECT_THAT(log[0].mText, testing::HasSubstr("mcontext_option_add_value_int FAIL [-12]"));
    EXPECT_THAT(log[1].mText, testing::HasSubstr("mcontext_option_add_value_double FAIL [-13]"));
    EXPECT_THAT(log[2].mText, testing::HasSubstr("mcontext_option_add_value_double FAIL [-14]"));
}

TEST_F(ContextPedometerSensorTest, NoOptionGivesNoOption)
{
    mPlatform.FailNext("context_option_new", -12);

    EXPECT_EQ(nullptr, mSensor->CreateContextManagerOption(1, 180, 80));
}

// The log of the process that ends is written where the death test can see it.
void CreateWithGender(ScriptedPlatform &platform, ContextPedometerSensor &sensor, int gender)
{
    platform.PrintLog();
    std::free(sensor.CreateContextManagerOption(gender, 180, 80));
}

using ContextPedometerSensorDeathTest = ContextPedometerSensorTest;

TEST_F(ContextPedometerSensorDeathTest, UnknownGenderIsLoggedAndAborts)
{
    EXPECT_EXIT(CreateWithGender(mPlatform, *mSensor, 3), testing::KilledBySignal(SIGABRT),
                "CreateContextManagerOption\\(86\\) > .*Assert "
                "\\[gender==CONTEXT_PEDOMETER_GENDER_MALE \\|\\| "
                "gender==CONTEXT_PEDOMETER_GENDER_FEMALE\\] fail");
    EXPECT_EXIT(CreateWithGender(mPlatform, *mSensor, 0), testing::KilledBySignal(SIGABRT),
                "Assert");
}

} // namespace
} // namespace Parvane
