#include "ContextSensor.h"

#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "LogMatchers.h"
#include "RecordingListner.h"
#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// The base with its request ids in the open.
class BareSensor : public ContextSensor
{
public:
    using ContextSensor::mChangedRequestId;
    using ContextSensor::mCurrentRequestId;
};

class ContextSensorTest : public testing::Test
{
protected:
    static std::shared_ptr<SensorData> MakeReading(int32_t requestId)
    {
        auto reading = std::make_shared<SensorData>();
        reading->mRequestId = requestId;
        return reading;
    }

    // Two listeners on a sensor that has a subscription and asked for one reading.
    void AddBoth()
    {
        mSensor->AddSensorEventListener(mFirst);
        mSensor->AddSensorEventListener(mSecond);
    }

    ScriptedPlatform mPlatform;
    std::shared_ptr<BareSensor> mSensor = std::make_shared<BareSensor>();
    std::vector<std::shared_ptr<RecordingListner>> mListners = MakeListners(3);
    std::shared_ptr<RecordingListner> mFirst = mListners[0];
    std::shared_ptr<RecordingListner> mSecond = mListners[1];
    std::shared_ptr<RecordingListner> mThird = mListners[2];
};

TEST_F(ContextSensorTest, NewSensorIsIdle)
{
    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_EQ(-1, mSensor->mCurrentRequestId);
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(ContextSensorTest, StartAndStopOfTheBaseDoNothing)
{
    mSensor->Start();
    mSensor->Stop();

    EXPECT_EQ(-1, mSensor->mChangedRequestId);
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextSensorTest, SameListenerTwiceIsOneEntryAndAnError)
{
    mSensor->AddSensorEventListener(mFirst);
    mSensor->AddSensorEventListener(mFirst);

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(LogLine{6, "Parvane",
                                    "ContextSensor: AddSensorEventListener(38) > "
                                    "\033[0;40;31mtry to register with same object\033[0;m"}));
    mSensor->UpdateSensorData(MakeReading(-1));
    EXPECT_THAT(mFirst->mUpdated, SizeIs(1));
}

TEST_F(ContextSensorTest, RemovingAnUnknownListenerIsAnError)
{
    mSensor->AddSensorEventListener(mFirst);

    mSensor->RemoveSensorEventListener(mSecond.get());

    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(LogLine{6, "Parvane",
                            "ContextSensor: RemoveSensorEventListener(77) > "
                            "\033[0;40;31mtry to remove the listener with not existed pointer"
                            "\033[0;m"}));
    mSensor->UpdateSensorData(MakeReading(-1));
    EXPECT_THAT(mFirst->mUpdated, SizeIs(1));
}

TEST_F(ContextSensorTest, RemovedListenerHearsNothingAndIsLetGo)
{
    const std::weak_ptr<RecordingListner> canary = mFirst;
    mSensor->AddSensorEventListener(mFirst);
    mListners.clear();
    mFirst.reset();
    EXPECT_FALSE(canary.expired());

    mSensor->RemoveSensorEventListener(canary.lock().get());

    EXPECT_TRUE(canary.expired());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextSensorTest, SensorsEndLetsItsListenersGo)
{
    const std::weak_ptr<RecordingListner> canary = mFirst;
    mSensor->AddSensorEventListener(mFirst);
    mListners.clear();
    mFirst.reset();

    mSensor.reset();

    EXPECT_TRUE(canary.expired());
}

TEST_F(ContextSensorTest, IdleSensorDeliversDefaultReadingAsAnUpdateToEveryListener)
{
    AddBoth();
    const auto reading = std::make_shared<SensorData>();
    reading->mRequestId = -1;

    mSensor->UpdateSensorData(reading);

    EXPECT_THAT(mFirst->mUpdated, ElementsAre(reading));
    EXPECT_THAT(mSecond->mUpdated, ElementsAre(reading));
    EXPECT_THAT(mFirst->mChanged, IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextSensorTest, ReadingOfTheSubscriptionUpdatesEveryListener)
{
    mSensor->mChangedRequestId = 4;
    AddBoth();
    const auto reading = MakeReading(4);

    mSensor->UpdateSensorData(reading);

    EXPECT_THAT(mFirst->mUpdated, ElementsAre(reading));
    EXPECT_THAT(mSecond->mUpdated, ElementsAre(reading));
}

TEST_F(ContextSensorTest, OnlyTheFirstListenerGetsTheAnswerToAQuery)
{
    mSensor->mChangedRequestId = 4;
    mSensor->mCurrentRequestId = 9;
    AddBoth();
    const auto answer = MakeReading(9);

    mSensor->UpdateSensorData(answer);

    EXPECT_THAT(mFirst->mChanged, ElementsAre(answer));
    EXPECT_THAT(mSecond->mChanged, IsEmpty());
    EXPECT_THAT(mSecond->mUpdated, IsEmpty());
    EXPECT_EQ(-1, mSensor->mCurrentRequestId);
    EXPECT_EQ(4, mSensor->mChangedRequestId);
}

TEST_F(ContextSensorTest, SecondListenerOfAnAnswerIsWarnedAbout)
{
    mSensor->mChangedRequestId = 4;
    mSensor->mCurrentRequestId = 9;
    AddBoth();

    mSensor->UpdateSensorData(MakeReading(9));

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(WarningLine("ContextSensor: UpdateSensorData(62)",
                                        "Please specify the request ID on the data")));
}

TEST_F(ContextSensorTest, AnswerEndsTheQuery)
{
    mSensor->mChangedRequestId = 4;
    mSensor->mCurrentRequestId = 9;
    mSensor->AddSensorEventListener(mFirst);

    mSensor->UpdateSensorData(MakeReading(9));
    mSensor->UpdateSensorData(MakeReading(9));

    EXPECT_THAT(mFirst->mChanged, SizeIs(1));
    EXPECT_THAT(mPlatform.TakeLog(), SizeIs(1));
}

// While the sensor is not subscribed the second listener finds both ids at -1, which 9 is not.
TEST_F(ContextSensorTest, IdleSensorAnswersItsQueryToTheFirstListenerToo)
{
    mSensor->mCurrentRequestId = 9;
    AddBoth();

    mSensor->UpdateSensorData(MakeReading(9));

    EXPECT_THAT(mFirst->mChanged, SizeIs(1));
    EXPECT_THAT(mSecond->mUpdated, IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), SizeIs(1));
}

TEST_F(ContextSensorTest, SubscriptionIsTestedBeforeTheQuery)
{
    mSensor->mChangedRequestId = 5;
    mSensor->mCurrentRequestId = 5;
    AddBoth();

    mSensor->UpdateSensorData(MakeReading(5));

    EXPECT_THAT(mFirst->mUpdated, SizeIs(1));
    EXPECT_THAT(mSecond->mUpdated, SizeIs(1));
    EXPECT_THAT(mFirst->mChanged, IsEmpty());
    EXPECT_EQ(5, mSensor->mCurrentRequestId);
}

TEST_F(ContextSensorTest, ReadingOfNeitherRequestIsWarnedAboutOncePerListener)
{
    mSensor->mChangedRequestId = 4;
    mSensor->mCurrentRequestId = 9;
    AddBoth();

    mSensor->UpdateSensorData(MakeReading(7));

    const LogLine warning = {5, "Parvane",
                             "ContextSensor: UpdateSensorData(62) > "
                             "\033[1;40;33mPlease specify the request ID on the data\033[0;m"};
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(warning, warning));
    EXPECT_THAT(mFirst->mUpdated, IsEmpty());
    EXPECT_THAT(mFirst->mChanged, IsEmpty());
    EXPECT_EQ(9, mSensor->mCurrentRequestId);
}

TEST_F(ContextSensorTest, ReadingWithoutListenersIsDroppedInSilence)
{
    mSensor->UpdateSensorData(MakeReading(7));

    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextSensorTest, ListenersAreCalledInAscendingOrderOfTheirAddresses)
{
    std::vector<int> order;
    for (std::size_t i = 3; i-- > 0;) {
        mListners[i]->mInsideUpdated = [&order, i] { order.push_back(static_cast<int>(i)); };
        mSensor->AddSensorEventListener(mListners[i]);
    }

    mSensor->UpdateSensorData(MakeReading(-1));

    EXPECT_THAT(order, ElementsAre(0, 1, 2));
}

TEST_F(ContextSensorTest, EmptyListenerIsSkipped)
{
    mSensor->AddSensorEventListener(nullptr);
    mSensor->AddSensorEventListener(mFirst);

    mSensor->UpdateSensorData(MakeReading(-1));

    EXPECT_THAT(mFirst->mUpdated, SizeIs(1));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextSensorTest, BaseAnswersAQueryAtOnceWithAnEmptyReadingOfNow)
{
    mPlatform.SetTime(1234567890);
    mSensor->AddSensorEventListener(mFirst);

    mSensor->GetCurrentSensorData();

    ASSERT_THAT(mFirst->mUpdated, SizeIs(1)); // both ids are -1: the subscription is tested first
    EXPECT_EQ(SensorType(0), mFirst->mUpdated[0]->GetSensorType());
    EXPECT_EQ(-1, mFirst->mUpdated[0]->mRequestId);
    EXPECT_EQ(1234567890, mFirst->mUpdated[0]->mTimestamp);
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(ContextSensorTest, BaseAnswersAQueryUnderTheIdOfTheOutstandingOne)
{
    mSensor->mChangedRequestId = 4;
    mSensor->mCurrentRequestId = 9;
    mSensor->AddSensorEventListener(mFirst);

    mSensor->GetCurrentSensorData();

    ASSERT_THAT(mFirst->mChanged, SizeIs(1));
    EXPECT_EQ(9, mFirst->mChanged[0]->mRequestId);
    EXPECT_EQ(-1, mSensor->mCurrentRequestId);
}

// With a subscription and no outstanding query the empty reading's -1 is the query id's own -1.
TEST_F(ContextSensorTest, BaseAnswersAQueryOfASubscribedSensorAsAQuery)
{
    mSensor->mChangedRequestId = 4;
    AddBoth();

    mSensor->GetCurrentSensorData();

    EXPECT_THAT(mFirst->mChanged, SizeIs(1));
    EXPECT_THAT(mSecond->mChanged, SizeIs(1));
    EXPECT_THAT(mFirst->mUpdated, IsEmpty());
}

// What a listener may do inside its call.

TEST_F(ContextSensorTest, ListenerMayRemoveItselfInItsCall)
{
    AddBoth();
    mFirst->mInsideUpdated = [this] { mSensor->RemoveSensorEventListener(mFirst.get()); };

    mSensor->UpdateSensorData(MakeReading(-1));
    mSensor->UpdateSensorData(MakeReading(-1));

    EXPECT_THAT(mFirst->mUpdated, SizeIs(1));
    EXPECT_THAT(mSecond->mUpdated, SizeIs(2));
}

TEST_F(ContextSensorTest, ListenerMayRemoveItselfWithTheLastReferenceToIt)
{
    const std::weak_ptr<RecordingListner> canary = mFirst;
    AddBoth();
    RecordingListner *const self = mFirst.get();
    self->mInsideUpdated = [this, self] {
        mSensor->RemoveSensorEventListener(self);
        EXPECT_EQ(1U, self->mUpdated.size()); // still there
    };
    mListners.clear();
    mFirst.reset();

    mSensor->UpdateSensorData(MakeReading(-1));

    EXPECT_TRUE(canary.expired());
    EXPECT_THAT(mSecond->mUpdated, SizeIs(1));
}

TEST_F(ContextSensorTest, ListenerThatIsRemovedBeforeItsTurnIsNotCalled)
{
    AddBoth();
    mSensor->AddSensorEventListener(mThird);
    mFirst->mInsideUpdated = [this] { mSensor->RemoveSensorEventListener(mSecond.get()); };

    mSensor->UpdateSensorData(MakeReading(-1));

    EXPECT_THAT(mSecond->mUpdated, IsEmpty());
    EXPECT_THAT(mThird->mUpdated, SizeIs(1));
}

TEST_F(ContextSensorTest, ListenerMayRemoveOneThatHasBeenCalled)
{
    AddBoth();
    mSensor->AddSensorEventListener(mThird);
    mSecond->mInsideUpdated = [this] { mSensor->RemoveSensorEventListener(mFirst.get()); };

    mSensor->UpdateSensorData(MakeReading(-1));

    EXPECT_THAT(mFirst->mUpdated, SizeIs(1));
    EXPECT_THAT(mThird->mUpdated, SizeIs(1));
}

TEST_F(ContextSensorTest, ListenerMayRemoveAll)
{
    AddBoth();
    mSensor->AddSensorEventListener(mThird);
    mFirst->mInsideUpdated = [this] {
        for (const auto &listner : mListners) {
            mSensor->RemoveSensorEventListener(listner.get());
        }
    };

    mSensor->UpdateSensorData(MakeReading(-1));

    EXPECT_THAT(mFirst->mUpdated, SizeIs(1));
    EXPECT_THAT(mSecond->mUpdated, IsEmpty());
    EXPECT_THAT(mThird->mUpdated, IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ContextSensorTest, ListenerMayAddAnotherWhichHearsTheNextReading)
{
    mSensor->AddSensorEventListener(mSecond);
    mSecond->mInsideUpdated = [this] {
        mSecond->mInsideUpdated = nullptr;
        mSensor->AddSensorEventListener(mFirst);
        mSensor->AddSensorEventListener(mThird);
    };

    mSensor->UpdateSensorData(MakeReading(-1));
    const auto next = MakeReading(-1);
    mSensor->UpdateSensorData(next);

    EXPECT_THAT(mSecond->mUpdated, SizeIs(2));
    EXPECT_EQ(next, mFirst->mUpdated.back());
    EXPECT_EQ(next, mThird->mUpdated.back());
}

TEST_F(ContextSensorTest, ListenerThatIsAddedAboveTheOneThatIsCalledIsStillCalled)
{
    mSensor->AddSensorEventListener(mSecond);
    mSecond->mInsideUpdated = [this] {
        mSensor->AddSensorEventListener(mFirst);
        mSensor->AddSensorEventListener(mThird);
    };

    mSensor->UpdateSensorData(MakeReading(-1));

    EXPECT_THAT(mFirst->mUpdated, IsEmpty());
    EXPECT_THAT(mThird->mUpdated, SizeIs(1));
}

TEST_F(ContextSensorTest, ListenerMayEndTheSensorInItsCall)
{
    AddBoth();
    const std::weak_ptr<BareSensor> canary = mSensor;
    mFirst->mInsideUpdated = [this] { mSensor.reset(); };

    std::shared_ptr<BareSensor> sensor = mSensor; // as its callback holds it
    sensor->UpdateSensorData(MakeReading(-1));
    sensor.reset();

    EXPECT_TRUE(canary.expired());
    EXPECT_THAT(mFirst->mUpdated, SizeIs(1));
}

TEST_F(ContextSensorTest, ListenerMayEndTheSensorInsideAnAnswer)
{
    mSensor->mCurrentRequestId = 9;
    AddBoth();
    mFirst->mInsideChanged = [this] { mSensor.reset(); };

    std::shared_ptr<BareSensor> sensor = mSensor; // as its callback holds it
    sensor->UpdateSensorData(MakeReading(9));

    EXPECT_THAT(mFirst->mChanged, SizeIs(1));
    EXPECT_EQ(nullptr, mSensor);
}

TEST_F(ContextSensorTest, ListenerMayAskAgainInsideAnUpdate)
{
    mSensor->mChangedRequestId = 4;
    mSensor->AddSensorEventListener(mFirst);
    mFirst->mInsideUpdated = [this] { mSensor->GetCurrentSensorData(); };

    mSensor->UpdateSensorData(MakeReading(4));

    EXPECT_THAT(mFirst->mUpdated, SizeIs(1));
    EXPECT_THAT(mFirst->mChanged, SizeIs(1));
}

} // namespace
} // namespace Parvane
