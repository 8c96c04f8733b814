#include "PedometerController.h"

#include <climits>
#include <limits>
#include <locale>
#include <memory>
#include <new>
#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ControllerTest.h"
#include "HRMData.h"
#include "LogMatchers.h"
#include "PedometerData.h"
#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char *kRequested = "Parvane/data/pedometer/requested";
constexpr const char *kValue = "Parvane/data/pedometer/value";
constexpr const char *kTime = "Parvane/data/pedometer/time";

// 2014-05-13, the day on which the scripted clock begins, in UTC.
constexpr int32_t kNoon = 1399982400;
constexpr int32_t kLastSecond = 1400025599;

// While it lives, the process writes numbers as many countries do: 1.234,5.
class CommaLocale
{
public:
    CommaLocale() { std::locale::global(std::locale(std::locale::classic(), new Punctuation())); }
    CommaLocale(const CommaLocale &) = delete;
    CommaLocale &operator=(const CommaLocale &) = delete;
    ~CommaLocale() { std::locale::global(mBefore); }

private:
    class Punctuation : public std::numpunct<char>
    {
        char do_decimal_point() const override { return ','; }
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };

    std::locale mBefore;
};

class PedometerControllerTest : public ControllerTest
{
protected:
    PedometerController &Controller()
    {
        if (!mController) {
            mController = std::make_shared<PedometerController>(mListener);
        }
        return *mController;
    }

    // The controller after a restart.
    void Restart()
    {
        mController.reset();
        Controller();
    }

    // The controller of a host that has asked before.
    void StartRequested()
    {
        mPlatform.SetPreference(kRequested, true);
        Controller().Initialize();
        mPlatform.Forget();
    }

    static std::shared_ptr<PedometerData> MakeSteps(int total, int32_t timestamp = kNoon)
    {
        return std::make_shared<PedometerData>(total, 1.5F, 3, timestamp, total, 0, 2);
    }

    void Update(int total, int32_t timestamp = kNoon)
    {
        Controller().OnSensorDataUpdated(MakeSteps(total, timestamp));
    }

    static void ExpectMeasurements(const PedometerData &data, int total, int run, int walk,
                                   float distance, int calorie, double speed)
    {
        EXPECT_EQ(std::make_tuple(total, run, walk, distance, calorie, speed),
                  std::make_tuple(data.mTotalStepCount, data.mRunStepCount, data.mWalkStepCount,
                                  data.mDistance, data.mCalorie, data.mSpeed));
    }

    std::shared_ptr<PedometerController> mController;
};

// Construction and what is stored.

TEST_F(PedometerControllerTest, NewControllerReadsTotalThenOptIn)
{
    Controller();

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("preference_is_existing(Parvane/data/pedometer/value)",
                            "preference_get_boolean(Parvane/data/pedometer/requested)"));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
    EXPECT_EQ(SensorType(3), Controller().GetSensorType());
}

TEST_F(PedometerControllerTest, StoredTotalIsReadWithItsTime)
{
    mPlatform.SetPreference(kValue, "10 2 8 1.5 30 0.5");
    mPlatform.SetPreference(kTime, kNoon);

    Controller();

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("preference_is_existing(Parvane/data/pedometer/value)",
                            "preference_get_string(Parvane/data/pedometer/value)",
                            "preference_get_int(Parvane/data/pedometer/time)",
                            "preference_get_boolean(Parvane/data/pedometer/requested)"));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(PedometerControllerTest, DescriptionIsThatOfThePedometer)
{
    const auto info = Controller().GetSensorInfo();

    ASSERT_NE(nullptr, info);
    EXPECT_EQ(SensorType(3), info->mSensorType);
    EXPECT_EQ(2, info->mSensorId);
    EXPECT_EQ(1, info->mAvailable);
    EXPECT_EQ(300000.0F, info->mMaxRange);
    EXPECT_EQ(1.0F, info->mResolution);
    EXPECT_EQ(0.0F, info->mMinValue);
    EXPECT_EQ(300000, info->mMinDelay);
    EXPECT_EQ(1, info->mReserved);
}

TEST_F(PedometerControllerTest, MissingOptInIsNoneAndNoLine)
{
    EXPECT_FALSE(Controller().IsHostRequested());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(PedometerControllerTest, StoredOptInIsRead)
{
    mPlatform.SetPreference(kRequested, true);
    EXPECT_TRUE(Controller().IsHostRequested());

    mPlatform.SetPreference(kRequested, false);
    EXPECT_FALSE(Controller().IsHostRequested());
}

TEST_F(PedometerControllerTest, OptInThatCannotBeReadIsNoneAndAnError)
{
    mPlatform.SetPreference(kRequested, true);
    mPlatform.FailNext("preference_get_boolean", -5);

    Controller().Initialize();

    EXPECT_FALSE(mListener->IsRegistered(SensorType::Pedometer));
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(IsLogLine(6, "PedometerController: IsHostRequested(*) > "
                                         "\033[0;40;31mFailed to get First host requested"
                                         "\033[0;m")));
}

TEST_F(PedometerControllerTest, OptInThatCannotBeWrittenHoldsInMemory)
{
    mPlatform.FailNext("preference_set_boolean", -8);

    Controller().SetHostRequestedStatus(true);

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(IsLogLine(6, "PedometerController: SetHostRequestedStatus(*) > "
                                         "\033[0;40;31mFailed to save the status value..[-8]"
                                         "\033[0;m")));
    EXPECT_EQ(std::nullopt, mPlatform.BooleanPreference(kRequested));
    Controller().Initialize();
    EXPECT_TRUE(mListener->IsRegistered(SensorType::Pedometer));
}

TEST_F(PedometerControllerTest, OptInIsNotInForceInsideItsWrite)
{
    Controller();
    mPlatform.Forget();
    mPlatform.OnNextCall("preference_set_boolean",
                         [this] { Controller().ProcessReqeust(MakeRequest(2)); });

    Controller().SetHostRequestedStatus(true);

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("preference_set_boolean(Parvane/data/pedometer/requested, true)",
                            "preference_set_boolean(Parvane/data/pedometer/requested, true)",
                            "RegisterSensorListener(3)", "g_timeout_add(500)"));
}

TEST_F(PedometerControllerTest, OptInIsWritten)
{
    Controller().SetHostRequestedStatus(true);

    EXPECT_EQ(true, mPlatform.BooleanPreference(kRequested));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(PedometerControllerTest, TotalIsWrittenAsTextThenItsTime)
{
    PedometerData data(10, 1.5F, 30, 1234, 8, 2, 0);
    data.mSpeed = 0.5;
    Controller();
    mPlatform.Forget();

    Controller().SavePedometerData(data);

    EXPECT_THAT(
        mPlatform.TakeCalls(),
        ElementsAre("preference_set_string(Parvane/data/pedometer/value, 10 2 8 1.5 30 0.5)",
                    "preference_set_int(Parvane/data/pedometer/time, 1234)"));
}

TEST_F(PedometerControllerTest, StoredRealsHaveSixSignificantDigits)
{
    Controller().SavePedometerData(PedometerData(1, 1234567.0F, 2, 0, 3, 4, 5));

    EXPECT_EQ("1 4 3 1.23457e+06 2 5", mPlatform.StringPreference(kValue));
}

TEST_F(PedometerControllerTest, StoredTextDoesNotFollowTheLocale)
{
    const CommaLocale comma;

    Controller().SavePedometerData(PedometerData(12345, 1.5F, 6789, 0, 0, 0, 0));

    EXPECT_EQ("12345 0 0 1.5 6789 0", mPlatform.StringPreference(kValue));
}

TEST_F(PedometerControllerTest, StoredTextIsReadTheSameInEveryLocale)
{
    const CommaLocale comma;
    mPlatform.SetPreference(kValue, "12345 0 0 1.5 6789 0.5");

    ExpectMeasurements(Controller().RestorePedometerData(), 12345, 0, 0, 1.5F, 6789, 0.5);
}

TEST_F(PedometerControllerTest, TotalThatCannotBeWrittenIsAnErrorAndTheTimeIsWrittenAllTheSame)
{
    mPlatform.FailNext("preference_set_string", -8);

    Controller().SavePedometerData(PedometerData(1, 0.0F, 0, 1234, 0, 0, 0));

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(IsLogLine(6, "PedometerController: SavePedometerData(*) > "
                                         "\033[0;40;31mFailed to save value..[-8]\033[0;m")));
    EXPECT_EQ(1234, mPlatform.IntegerPreference(kTime));
}

TEST_F(PedometerControllerTest, TimeThatCannotBeWrittenIsAnErrorOfItsOwn)
{
    mPlatform.FailNext("preference_set_string", -8);
    mPlatform.FailNext("preference_set_int", -9);

    Controller().SavePedometerData(PedometerData(1, 0.0F, 0, 1234, 0, 0, 0));

    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(
            ErrorLine("PedometerController: SavePedometerData(*)", "Failed to save value..[-8]"),
            ErrorLine("PedometerController: SavePedometerData(*)", "Failed to save value..[-9]")));
}

TEST_F(PedometerControllerTest, RestoredTotalHasItsSixFieldsAndItsTime)
{
    mPlatform.SetPreference(kValue, "10 2 8 1.5 30 0.5");
    mPlatform.SetPreference(kTime, 1234);

    const PedometerData restored = Controller().RestorePedometerData();

    ExpectMeasurements(restored, 10, 2, 8, 1.5F, 30, 0.5);
    EXPECT_EQ(1234, restored.mTimestamp);
    EXPECT_EQ(-1, restored.mRequestId);
}

TEST_F(PedometerControllerTest, MissingTotalIsADefaultRecordOfTimeZero)
{
    mPlatform.SetPreference(kTime, 1234);

    const PedometerData restored = Controller().RestorePedometerData();

    ExpectMeasurements(restored, 0, 0, 0, 0.0F, 0, 0.0);
    EXPECT_EQ(0, restored.mTimestamp);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(PedometerControllerTest, UnansweredQuestionForTheTotalCountsAsMissing)
{
    mPlatform.SetPreference(kValue, "10 2 8 1.5 30 0.5");
    Controller();
    mPlatform.Forget();
    mPlatform.FailNext("preference_is_existing", -5);

    const PedometerData restored = Controller().RestorePedometerData();

    EXPECT_EQ(0, restored.mTotalStepCount);
    EXPECT_THAT(mPlatform.TakeCalls(), SizeIs(1));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(PedometerControllerTest, TotalThatCannotBeReadIsADefaultRecordAndAnError)
{
    mPlatform.SetPreference(kValue, "10 2 8 1.5 30 0.5");
    mPlatform.SetPreference(kTime, 1234);
    Controller();
    mPlatform.Forget();
    mPlatform.FailNext("preference_get_string", -5);

    const PedometerData restored = Controller().RestorePedometerData();

    EXPECT_EQ(0, restored.mTotalStepCount);
    EXPECT_EQ(0, restored.mTimestamp);
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(IsLogLine(6, "PedometerController: RestorePedometerData(*) > "
                                         "\033[0;40;31mFailed to get saved value..[-5]\033[0;m")));
}

TEST_F(PedometerControllerTest, NullTotalIsADefaultRecordAndAnError)
{
    mPlatform.SetNullPreference(kValue);
    Controller();
    mPlatform.Forget();

    const PedometerData restored = Controller().RestorePedometerData();

    EXPECT_EQ(0, restored.mTotalStepCount);
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(ErrorLine("PedometerController: RestorePedometerData(*)",
                                      "Failed to get saved value..[0]")));
}

TEST_F(PedometerControllerTest, TimeThatCannotBeReadKeepsTheFields)
{
    mPlatform.SetPreference(kValue, "10 2 8 1.5 30 0.5");
    mPlatform.SetPreference(kTime, 1234);
    Controller();
    mPlatform.Forget();
    mPlatform.FailNext("preference_get_int", -5);

    const PedometerData restored = Controller().RestorePedometerData();

    ExpectMeasurements(restored, 10, 2, 8, 1.5F, 30, 0.5);
    EXPECT_EQ(0, restored.mTimestamp);
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(IsLogLine(6, "PedometerController: RestorePedometerData(*) > "
                                         "\033[0;40;31mFailed to get time value..[-5]\033[0;m")));
}

TEST_F(PedometerControllerTest, MissingTimeIsAnErrorWithItsCode)
{
    mPlatform.SetPreference(kValue, "10 2 8 1.5 30 0.5");

    Controller();

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(ErrorLine("PedometerController: RestorePedometerData(*)",
                                      "Failed to get time value..[-126]")));
}

TEST_F(PedometerControllerTest, DamagedTotalKeepsTheFieldsBeforeTheFault)
{
    mPlatform.SetPreference(kValue, "10 2 eight 1.5 30 0.5");
    mPlatform.SetPreference(kTime, 1234);

    const PedometerData restored = Controller().RestorePedometerData();

    ExpectMeasurements(restored, 10, 2, 0, 0.0F, 0, 0.0);
    EXPECT_EQ(1234, restored.mTimestamp);
}

TEST_F(PedometerControllerTest, ShortTotalKeepsItsFields)
{
    mPlatform.SetPreference(kValue, "10 2");
    mPlatform.SetPreference(kTime, 1234);

    ExpectMeasurements(Controller().RestorePedometerData(), 10, 2, 0, 0.0F, 0, 0.0);
}

TEST_F(PedometerControllerTest, EmptyTotalIsZeroWithItsTime)
{
    mPlatform.SetPreference(kValue, "");
    mPlatform.SetPreference(kTime, 1234);

    const PedometerData restored = Controller().RestorePedometerData();

    ExpectMeasurements(restored, 0, 0, 0, 0.0F, 0, 0.0);
    EXPECT_EQ(1234, restored.mTimestamp);
}

// Subscribing.

TEST_F(PedometerControllerTest, InitializeWithoutOptInDoesNothing)
{
    Controller();
    mPlatform.Forget();

    Controller().Initialize();

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(PedometerControllerTest, InitializeWithStoredOptInSubscribesWithoutAnyRequest)
{
    mPlatform.SetPreference(kRequested, true);
    Controller();
    mPlatform.Forget();

    Controller().Initialize();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("RegisterSensorListener(3)"));
    EXPECT_EQ(mController.get(), mListener->mRegistered[SensorType::Pedometer]);
}

TEST_F(PedometerControllerTest, FirstRequestOptsInSubscribesAndAsksHalfASecondLater)
{
    Controller();
    mPlatform.Forget();

    Controller().ProcessReqeust(MakeRequest(2));
    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("preference_set_boolean(Parvane/data/pedometer/requested, true)",
                            "RegisterSensorListener(3)", "g_timeout_add(500)"));

    mPlatform.AdvanceTime(499);
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    mPlatform.AdvanceTime(1);
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("RequestCurrentSensorData(3)"));
    mPlatform.AdvanceTime(60000);
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(PedometerControllerTest, FirstStartOptsInToo)
{
    Controller();
    mPlatform.Forget();

    Controller().ProcessReqeust(MakeRequest(3));

    EXPECT_EQ(true, mPlatform.BooleanPreference(kRequested));
    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("preference_set_boolean(Parvane/data/pedometer/requested, true)",
                            "RegisterSensorListener(3)", "g_timeout_add(500)"));
}

TEST_F(PedometerControllerTest, SecondRequestAsksAtOnceAndStartsNoTimer)
{
    Controller().ProcessReqeust(MakeRequest(2));
    mPlatform.AdvanceTime(500);
    mPlatform.Forget();

    Controller().ProcessReqeust(MakeRequest(2));
    Controller().ProcessReqeust(MakeRequest(3));

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("RequestCurrentSensorData(3)", "RequestCurrentSensorData(3)"));
}

TEST_F(PedometerControllerTest, RequestBeforeTheTimerAsksAtOnce)
{
    Controller().ProcessReqeust(MakeRequest(2));
    mPlatform.Forget();

    Controller().ProcessReqeust(MakeRequest(2));
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("RequestCurrentSensorData(3)"));

    mPlatform.AdvanceTime(500);
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("RequestCurrentSensorData(3)"));
}

TEST_F(PedometerControllerTest, RequestIsServedThoughTheOptInCannotBeWritten)
{
    Controller();
    mPlatform.FailNext("preference_set_boolean", -8);

    Controller().ProcessReqeust(MakeRequest(2));

    EXPECT_TRUE(mListener->IsRegistered(SensorType::Pedometer));
    EXPECT_THAT(mPlatform.PendingTimers(), ElementsAre(500));
}

TEST_F(PedometerControllerTest, NullRequestIsAnError)
{
    Controller();
    mPlatform.Forget();

    Controller().MeasureCurrentSensorValue(nullptr);

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(IsLogLine(6, "PedometerController: MeasureCurrentSensorValue(*) > "
                                         "\033[0;40;31mNULL point error\033[0;m")));
}

TEST_F(PedometerControllerTest, StopIsAcknowledgedAndTheSubscriptionStays)
{
    Controller().ProcessReqeust(MakeRequest(3));
    mPlatform.Forget();

    Controller().ProcessReqeust(MakeRequest(4));

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("SendSensorData(0)"));
    EXPECT_TRUE(mListener->IsRegistered(SensorType::Pedometer));
    EXPECT_EQ(true, mPlatform.BooleanPreference(kRequested));
}

TEST_F(PedometerControllerTest, LinkEventsChangeNothing)
{
    StartRequested();

    Controller().OnHostDisconnected();
    Controller().OnHostServiceTerminated();

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    Update(10);
    EXPECT_THAT(mListener->mSent, SizeIs(1)); // a push is tried whether or not anybody is there
}

// Accumulating.

TEST_F(PedometerControllerTest, UpdatesOfADayAreAdded)
{
    Update(10);
    Update(5);

    EXPECT_EQ("15 0 15 3 6 4", mPlatform.StringPreference(kValue));
    EXPECT_EQ(kNoon, mPlatform.IntegerPreference(kTime));
}

TEST_F(PedometerControllerTest, EveryUpdateIsStoredThenSent)
{
    Controller();
    mPlatform.Forget();

    Update(10);

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("preference_set_string(Parvane/data/pedometer/value, 10 0 10 1.5 3 2)",
                            "preference_set_int(Parvane/data/pedometer/time, 1399982400)",
                            "SendSensorData(3)"));
}

TEST_F(PedometerControllerTest, PushIsTheTotalUnderTheHeaderOfAMeasurement)
{
    Controller().ProcessReqeust(MakeRequest(2, 3));
    Update(10);
    mListener->mSent.clear();

    Update(5, kNoon + 60);

    const auto push = mListener->TakeOnly<PedometerData>();
    ASSERT_NE(nullptr, push);
    ExpectMeasurements(*push, 15, 0, 15, 3.0F, 6, 4.0);
    EXPECT_EQ(2, push->mMessageType);
    EXPECT_EQ(3, push->mMessageFlags);
    EXPECT_EQ(0, push->mHeaderCode);
    EXPECT_EQ(2, push->mCategory);
    EXPECT_EQ(kNoon + 60, push->mTimestamp);
}

TEST_F(PedometerControllerTest, PushBeforeAnyRequestHasRequestByteZero)
{
    StartRequested();

    Update(10);

    const auto push = mListener->TakeOnly<PedometerData>();
    ASSERT_NE(nullptr, push);
    EXPECT_EQ(0, push->mMessageFlags);
    EXPECT_EQ(2, push->mMessageType);
}

TEST_F(PedometerControllerTest, StartHasNoPartInTheRequestByte)
{
    Controller().ProcessReqeust(MakeRequest(2, 1));
    Controller().ProcessReqeust(MakeRequest(3, 2));
    mListener->mSent.clear();

    Update(10);

    EXPECT_EQ(1, mListener->mSent.at(0)->mMessageFlags);
}

TEST_F(PedometerControllerTest, PushIsACopy)
{
    Update(10);
    const auto first = mListener->TakeOnly<PedometerData>();

    Update(5);

    ASSERT_NE(nullptr, first);
    EXPECT_EQ(10, first->mTotalStepCount);
}

TEST_F(PedometerControllerTest, AnswersOfQueriesCountLikeUpdates)
{
    Update(10);

    Controller().OnSensorDataChanged(MakeSteps(5));

    EXPECT_EQ("15 0 15 3 6 4", mPlatform.StringPreference(kValue));
    EXPECT_THAT(mListener->mSent, SizeIs(2));
}

TEST_F(PedometerControllerTest, UpdateInTheLastSecondOfTheDayIsAdded)
{
    Update(10);

    Update(5, kLastSecond);

    EXPECT_EQ("15 0 15 3 6 4", mPlatform.StringPreference(kValue));
    EXPECT_EQ(kLastSecond, mPlatform.IntegerPreference(kTime));
}

TEST_F(PedometerControllerTest, UpdateOfTheNextDayReplacesTheTotal)
{
    Update(10);
    mListener->mSent.clear();

    Update(5, kLastSecond + 1);

    EXPECT_EQ("5 0 5 1.5 3 2", mPlatform.StringPreference(kValue));
    const auto push = mListener->TakeOnly<PedometerData>();
    ASSERT_NE(nullptr, push);
    EXPECT_EQ(5, push->mTotalStepCount);
    EXPECT_EQ(kLastSecond + 1, push->mTimestamp);
}

TEST_F(PedometerControllerTest, DayIsThatOfTheLocalTimeZone)
{
    const ScopedTimeZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
    Update(10);

    Update(5, 1400018399); // 2014-05-13 23:59:59 there
    EXPECT_EQ("15 0 15 3 6 4", mPlatform.StringPreference(kValue));
    Update(7, 1400018400);
    EXPECT_EQ("7 0 7 1.5 3 2", mPlatform.StringPreference(kValue));
}

TEST_F(PedometerControllerTest, OlderUpdateIsAddedAndTakesTheTimeBack)
{
    Update(10);

    Update(5, kNoon - 7 * 86400);

    EXPECT_EQ("15 0 15 3 6 4", mPlatform.StringPreference(kValue));
    EXPECT_EQ(kNoon - 7 * 86400, mPlatform.IntegerPreference(kTime));
}

// The sensor delivers a zero record of time zero when the platform's count went back.
TEST_F(PedometerControllerTest, ZeroRecordOfTimeZeroKeepsTheTotalUntilTheNextUpdate)
{
    Update(10);

    Controller().OnSensorDataUpdated(std::make_shared<PedometerData>());
    EXPECT_EQ("10 0 10 1.5 3 2", mPlatform.StringPreference(kValue));
    EXPECT_EQ(0, mPlatform.IntegerPreference(kTime));

    Update(5); // later than the first of January 1970
    EXPECT_EQ("5 0 5 1.5 3 2", mPlatform.StringPreference(kValue));
}

TEST_F(PedometerControllerTest, FirstUpdateEverBeginsADay)
{
    const auto update = MakeSteps(10);
    update->mDataFormat = 3;
    update->mDataOption = 1;
    update->mRequestId = 12;

    Controller().OnSensorDataUpdated(update);

    const auto push = mListener->TakeOnly<PedometerData>();
    ASSERT_NE(nullptr, push);
    EXPECT_EQ(3, push->mDataFormat); // the whole record is taken over
    EXPECT_EQ(1, push->mDataOption);
    EXPECT_EQ(12, push->mRequestId);
    EXPECT_EQ(kNoon, push->mTimestamp);
}

TEST_F(PedometerControllerTest, SumHasTheFieldsOfANewRecordExceptTimeAndRequest)
{
    Update(10);
    mListener->mSent.clear();
    const auto update = MakeSteps(5, kNoon + 60);
    update->mDataFormat = 3;
    update->mDataOption = 1;
    update->mRequestId = 12;

    Controller().OnSensorDataUpdated(update);

    const auto push = mListener->TakeOnly<PedometerData>();
    ASSERT_NE(nullptr, push);
    EXPECT_EQ(6, push->mDataFormat);
    EXPECT_EQ(0, push->mDataOption);
    EXPECT_EQ(12, push->mRequestId);
    EXPECT_EQ(kNoon + 60, push->mTimestamp);
}

TEST_F(PedometerControllerTest, UpdateItselfIsNotTouched)
{
    const auto update = MakeSteps(10);

    Controller().OnSensorDataUpdated(update);

    EXPECT_EQ(2, update->mHeaderCode);
    EXPECT_EQ(0, update->mMessageType);
    EXPECT_EQ(0, update->mCategory);
}

TEST_F(PedometerControllerTest, SumsBeyondTheLargestCountWrap)
{
    Controller().OnSensorDataUpdated(
        std::make_shared<PedometerData>(INT_MAX, 0.0F, INT_MAX, kNoon, INT_MAX, INT_MAX, 0));

    Controller().OnSensorDataUpdated(std::make_shared<PedometerData>(1, 0.0F, 2, kNoon, 3, 4, 0));

    EXPECT_EQ("-2147483648 -2147483645 -2147483646 0 -2147483647 0",
              mPlatform.StringPreference(kValue));
}

TEST_F(PedometerControllerTest, TotalThatCannotBeStoredIsKeptAndSent)
{
    mPlatform.FailEvery("preference_set_string", -8);
    mPlatform.FailEvery("preference_set_int", -9);

    Update(10);
    Update(5);

    ASSERT_THAT(mListener->mSent, SizeIs(2));
    EXPECT_EQ(15, dynamic_cast<const PedometerData &>(*mListener->mSent[1]).mTotalStepCount);
    EXPECT_THAT(mPlatform.TakeLog(), SizeIs(4));
}

TEST_F(PedometerControllerTest, TotalOfTheLargestDistancesIsReadBackAfterARestart)
{
    constexpr float kLargest = std::numeric_limits<float>::max();
    for (int i = 0; i < 2; ++i) {
        Controller().OnSensorDataUpdated(
            std::make_shared<PedometerData>(10, kLargest, 3, kNoon, 10, 0, 2));
    }
    EXPECT_EQ("20 0 20 3.40282e+38 6 4", mPlatform.StringPreference(kValue));
    Restart();

    Update(5, kNoon + 60);

    EXPECT_EQ("25 0 25 3.40282e+38 9 6", mPlatform.StringPreference(kValue));
}

TEST_F(PedometerControllerTest, TotalGoesOnAfterARestartOnTheSameDay)
{
    Update(10);
    Restart();

    Update(5, kNoon + 60);

    EXPECT_EQ("15 0 15 3 6 4", mPlatform.StringPreference(kValue));
}

TEST_F(PedometerControllerTest, TotalOfAnEarlierDayIsReplacedAfterARestart)
{
    Update(10);
    Restart();

    Update(5, kNoon + 86400);

    EXPECT_EQ("5 0 5 1.5 3 2", mPlatform.StringPreference(kValue));
}

TEST_F(PedometerControllerTest, FirstUpdateAfterALostTimeBeginsADay)
{
    mPlatform.SetPreference(kValue, "10 2 8 1.5 30 0.5");

    Update(5);

    EXPECT_EQ("5 0 5 1.5 3 2", mPlatform.StringPreference(kValue));
}

TEST_F(PedometerControllerTest, ForeignRecordDoesNoHarm)
{
    Update(10);

    Controller().OnSensorDataUpdated(std::make_shared<HRMData>(97, 72, 800));
    Controller().OnSensorDataUpdated(nullptr);
    Update(5);

    EXPECT_EQ("15 0 15 3 6 4", mPlatform.StringPreference(kValue));
}

TEST_F(PedometerControllerTest, UpdateInsideTheSubscriptionIsCountedAndSent)
{
    mListener->mInsideRegistration = [](ContextSensorListner &listner) {
        listner.OnSensorDataUpdated(MakeSteps(0));
    };

    Controller().ProcessReqeust(MakeRequest(2, 3));

    const auto push = mListener->TakeOnly<PedometerData>();
    ASSERT_NE(nullptr, push);
    EXPECT_EQ(0, push->mMessageFlags); // the base keeps the request when its measuring has returned
}

// Lifetimes.

TEST_F(PedometerControllerTest, TimerKeepsTheControllerAliveAndThenLetsItGo)
{
    Controller().ProcessReqeust(MakeRequest(2));
    const std::weak_ptr<PedometerController> canary = mController;
    mController.reset();
    EXPECT_FALSE(canary.expired());

    mPlatform.AdvanceTime(500);

    EXPECT_TRUE(canary.expired());
}

TEST_F(PedometerControllerTest, TimerWithoutTargetDoesNothing)
{
    EXPECT_EQ(FALSE, PedometerController::OnTimerFired(nullptr));
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(PedometerControllerTest, FirstQueryThatRunsOutOfMemoryEndsAtTheTimer)
{
    mListener->mInsideQuery = [] { throw std::bad_alloc(); };
    Controller().ProcessReqeust(MakeRequest(2));

    mPlatform.AdvanceTime(500);
    mPlatform.AdvanceTime(500);

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(ErrorLine("PedometerController: OnTimerFired(*)",
                                      "first query dropped [std::bad_alloc]")));
}

TEST_F(PedometerControllerTest, EndUnsubscribesByTheControllersAddress)
{
    const ContextSensorListner *const address = &Controller();
    mPlatform.Forget();

    mController.reset();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("UnregisterSensorListener(3)"));
    EXPECT_THAT(mListener->mUnregistered, ElementsAre(address));
}

TEST_F(PedometerControllerTest, EndReleasesBothReferencesToTheListener)
{
    Controller();
    const std::weak_ptr<RecordingControlListener> canary = mListener;
    mListener.reset();
    EXPECT_FALSE(canary.expired());

    mController.reset();

    EXPECT_TRUE(canary.expired());
}

TEST_F(PedometerControllerTest, WithoutListenerTotalsAreStillStored)
{
    auto controller = std::make_shared<PedometerController>(nullptr);
    controller->Initialize();

    controller->OnSensorDataUpdated(MakeSteps(10));
    controller->ProcessReqeust(MakeRequest(2));
    controller->ProcessReqeust(MakeRequest(2));
    mPlatform.AdvanceTime(500);
    controller.reset();

    EXPECT_EQ("10 0 10 1.5 3 2", mPlatform.StringPreference(kValue));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

} // namespace
} // namespace Parvane
