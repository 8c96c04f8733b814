#include "ManualSource.h"

#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string ToText(ContextItem item, const SensorReading &reading)
{
    std::string text = std::to_string(static_cast<int>(item));
    for (const SensorValue &value : reading) {
        text.append(" ").append(value.mKey).append("=");
        text += std::to_string(std::get<int>(value.mValue));
    }
    return text;
}

} // namespace

/** Notes the readings that come. */
class ManualSourceTest : public testing::Test, public SensorListener
{
protected:
    ManualSourceTest() { mSource.SetListener(this); }

    std::vector<std::string> Take() { return std::exchange(mReadings, {}); }

    /** What comes in the next turns of the main loop. */
    std::vector<std::string> TakeAfterATurn()
    {
        RunWhileBusy();
        return Take();
    }

    std::string Latest(ContextItem item) const
    {
        const auto reading = mSource.Latest(item);
        return reading ? ToText(item, *reading) : "none";
    }

    void OnReading(ContextItem item, const SensorReading &reading) override
    {
        mReadings.push_back(ToText(item, reading));
        // Once: what it does may lead to the next reading.
        if (const auto onReading = std::exchange(mOnReading, nullptr)) {
            onReading(item);
        }
    }

    ManualSource mSource;
    std::vector<std::string> mReadings;
    std::function<void(ContextItem)> mOnReading;
};

TEST_F(ManualSourceTest, StartedItemsTellWhatIsSet)
{
    for (const ContextItem item : {ContextItem::Gesture, ContextItem::Pedometer,
                                   ContextItem::HeartRate, ContextItem::Activity}) {
        EXPECT_EQ(mSource.Start(item), 0);
    }
    TakeAfterATurn();

    mSource.SetHeartRate(72);
    mSource.SetHeartRate(ManualSource::kNotWorn);
    mSource.AddSteps(10);
    mSource.AddSteps(5);
    mSource.SetActivity(2);
    mSource.MakeGesture(4);

    EXPECT_THAT(Take(), ElementsAre("7 hrm/heart_rate=72", "7 hrm/heart_rate=-3",
                                    "2 pedometer/total_steps=10", "2 pedometer/total_steps=15",
                                    "23 activity/status=2", "1 motion/action=4"));
    EXPECT_THAT(TakeAfterATurn(), IsEmpty());
}

TEST_F(ManualSourceTest, OtherItemsAreSilentAndKeepTheirValue)
{
    mSource.SetHeartRate(72);
    mSource.AddSteps(10);
    mSource.SetActivity(2);
    mSource.MakeGesture(4);
    EXPECT_THAT(TakeAfterATurn(), IsEmpty());
    EXPECT_EQ(Latest(ContextItem::HeartRate), "7 hrm/heart_rate=72");
    EXPECT_EQ(Latest(ContextItem::Pedometer), "2 pedometer/total_steps=10");
    EXPECT_EQ(Latest(ContextItem::Activity), "23 activity/status=2");
    EXPECT_EQ(Latest(ContextItem::Gesture), "1 motion/action=4");
}

TEST_F(ManualSourceTest, OnlyThePedometerHasAValueBeforeOneIsSet)
{
    EXPECT_EQ(Latest(ContextItem::Pedometer), "2 pedometer/total_steps=0");
    EXPECT_EQ(Latest(ContextItem::HeartRate), "none");
    EXPECT_EQ(Latest(ContextItem::Activity), "none");
    EXPECT_EQ(Latest(ContextItem::Gesture), "none");
}

TEST_F(ManualSourceTest, StartedItemBeginsWithItsValueInTheNextTurn)
{
    mSource.SetHeartRate(72);
    mSource.Start(ContextItem::HeartRate);
    EXPECT_THAT(Take(), IsEmpty()); // never from inside the call
    EXPECT_THAT(TakeAfterATurn(), ElementsAre("7 hrm/heart_rate=72"));
    EXPECT_THAT(TakeAfterATurn(), IsEmpty());
}

TEST_F(ManualSourceTest, GestureIsOverWhenItHasBeenTold)
{
    mSource.MakeGesture(4);
    mSource.Start(ContextItem::Gesture);
    EXPECT_THAT(TakeAfterATurn(), IsEmpty());
}

TEST_F(ManualSourceTest, StepsRightAfterTheStartAreCountedFromTheBeginning)
{
    mSource.Start(ContextItem::Pedometer);
    mSource.AddSteps(10);
    EXPECT_THAT(Take(), ElementsAre("2 pedometer/total_steps=0", "2 pedometer/total_steps=10"));
    EXPECT_THAT(TakeAfterATurn(), IsEmpty());
}

TEST_F(ManualSourceTest, ItemThatIsStartedTwiceBeginsOnceInATurn)
{
    mSource.Start(ContextItem::Pedometer);
    mSource.Start(ContextItem::Pedometer);
    EXPECT_THAT(TakeAfterATurn(), ElementsAre("2 pedometer/total_steps=0"));
    mSource.Start(ContextItem::Pedometer);
    EXPECT_THAT(TakeAfterATurn(), ElementsAre("2 pedometer/total_steps=0"));
}

TEST_F(ManualSourceTest, StoppedItemIsSilent)
{
    mSource.SetHeartRate(72);
    mSource.Start(ContextItem::HeartRate);
    mSource.Stop(ContextItem::HeartRate);
    mSource.SetHeartRate(73);
    mSource.Stop(ContextItem::Activity); // was never started
    EXPECT_THAT(TakeAfterATurn(), IsEmpty());
}

TEST_F(ManualSourceTest, WhatHasNothingToTellDoesNotWakeTheLoop)
{
    EXPECT_EQ(NextWakeMs(), -1);
    mSource.Start(ContextItem::HeartRate);
    mSource.Start(ContextItem::Gesture);
    EXPECT_EQ(NextWakeMs(), -1);
    mSource.Start(ContextItem::Pedometer);
    EXPECT_EQ(NextWakeMs(), 0);
    mSource.Stop(ContextItem::Pedometer);
    EXPECT_EQ(NextWakeMs(), -1);
    mSource.Start(ContextItem::Pedometer);
    mSource.AddSteps(1);
    EXPECT_EQ(NextWakeMs(), -1);
}

TEST_F(ManualSourceTest, StepsStopAtTheLargestInt)
{
    mSource.Start(ContextItem::Pedometer);
    TakeAfterATurn();
    mSource.AddSteps(std::numeric_limits<int>::max() - 1);
    mSource.AddSteps(std::numeric_limits<int>::max());
    mSource.AddSteps(1);
    EXPECT_THAT(Take(), ElementsAre("2 pedometer/total_steps=2147483646",
                                    "2 pedometer/total_steps=2147483647",
                                    "2 pedometer/total_steps=2147483647"));
}

TEST_F(ManualSourceTest, NegativeStepsAddNothing)
{
    mSource.AddSteps(10);
    mSource.AddSteps(-1);
    mSource.AddSteps(std::numeric_limits<int>::min());
    EXPECT_EQ(Latest(ContextItem::Pedometer), "2 pedometer/total_steps=10");
}

TEST_F(ManualSourceTest, ListenerMayStopItsItem)
{
    mSource.SetHeartRate(72);
    mSource.Start(ContextItem::HeartRate);
    mOnReading = [this](ContextItem item) { mSource.Stop(item); };
    mSource.SetHeartRate(73);
    EXPECT_THAT(Take(), ElementsAre("7 hrm/heart_rate=72"));
    EXPECT_THAT(TakeAfterATurn(), IsEmpty());
}

TEST_F(ManualSourceTest, ListenerMayStopAnItemThatIsStillToBegin)
{
    mSource.SetHeartRate(72);
    mSource.Start(ContextItem::Pedometer);
    mSource.Start(ContextItem::HeartRate);
    mOnReading = [this](ContextItem) { mSource.Stop(ContextItem::HeartRate); };
    EXPECT_THAT(TakeAfterATurn(), ElementsAre("2 pedometer/total_steps=0"));
}

TEST_F(ManualSourceTest, ItemThatIsStartedInTheCallBeginsInTheNextTurn)
{
    mSource.SetActivity(1);
    mSource.Start(ContextItem::Pedometer);
    mOnReading = [this](ContextItem) { mSource.Start(ContextItem::Activity); };
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_THAT(Take(), ElementsAre("2 pedometer/total_steps=0"));
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_THAT(Take(), ElementsAre("23 activity/status=1"));
}

TEST_F(ManualSourceTest, ItemThatIsStartedAnewBeforeItsTurnBeginsOnce)
{
    mSource.SetHeartRate(72);
    mSource.Start(ContextItem::Pedometer);
    mSource.Start(ContextItem::HeartRate);
    mOnReading = [this](ContextItem) {
        mSource.Stop(ContextItem::HeartRate);
        mSource.Start(ContextItem::HeartRate);
    };
    EXPECT_THAT(TakeAfterATurn(), ElementsAre("2 pedometer/total_steps=0", "7 hrm/heart_rate=72"));
}

TEST_F(ManualSourceTest, ItemThatIsStartedAnewByItsReadingBeginsAnew)
{
    mSource.Start(ContextItem::Pedometer);
    mOnReading = [this](ContextItem item) {
        mSource.Stop(item);
        mSource.Start(item);
    };
    EXPECT_THAT(TakeAfterATurn(),
                ElementsAre("2 pedometer/total_steps=0", "2 pedometer/total_steps=0"));
    EXPECT_EQ(NextWakeMs(), -1);
}

TEST_F(ManualSourceTest, ValueThatIsSetMeanwhileIsToldOnce)
{
    mSource.SetHeartRate(72);
    mSource.Start(ContextItem::Pedometer);
    mOnReading = [this](ContextItem) { mSource.Start(ContextItem::HeartRate); };
    mSource.SetHeartRate(73);
    EXPECT_THAT(Take(), ElementsAre("2 pedometer/total_steps=0", "7 hrm/heart_rate=73"));
    EXPECT_THAT(TakeAfterATurn(), IsEmpty());
}

TEST_F(ManualSourceTest, WithoutAListenerNothingBreaks)
{
    mSource.SetListener(nullptr);
    mSource.Start(ContextItem::Pedometer);
    mSource.AddSteps(3);
    RunWhileBusy();
    EXPECT_EQ(Latest(ContextItem::Pedometer), "2 pedometer/total_steps=3");
}

TEST_F(ManualSourceTest, EndWithItemsThatAreStillToBeginIsClean)
{
    {
        ManualSource source;
        source.SetListener(this);
        source.Start(ContextItem::Pedometer);
    }
    EXPECT_THAT(TakeAfterATurn(), IsEmpty());
}

} // namespace ParvanePlatform
