#include "Timeline.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneWatch {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::Le;

std::vector<PlayEvent> Events(const std::string &text, std::uint64_t seed = 1)
{
    return MakeTimeline(ParseScenario("walk.csv", text), seed);
}

PlayEvent Heart(std::int64_t ms, int value)
{
    return {ms, PlayItem::HeartRate, value};
}

PlayEvent Steps(std::int64_t ms, int value)
{
    return {ms, PlayItem::Steps, value};
}

TEST(TimelineTest, ValuesComeWhenTheyStandThereInTheOrderOfItems)
{
    EXPECT_THAT(Events("t_s,gesture,activity,steps,heart_rate\n1,4,walking,+3,72\n1,5,,,\n"),
                ElementsAre(Heart(1000, 72), Steps(1000, 3), PlayEvent{1000, PlayItem::Activity, 2},
                            PlayEvent{1000, PlayItem::Gesture, 4},
                            PlayEvent{1000, PlayItem::Gesture, 5}));
}

TEST(TimelineTest, ARampHasAValueEachSecondAndItsEnd)
{
    EXPECT_THAT(
        Events("t_s,heart_rate\n10,60 to 90 over 3\n"),
        ElementsAre(Heart(10000, 60), Heart(11000, 70), Heart(12000, 80), Heart(13000, 90)));
    EXPECT_THAT(Events("t_s,heart_rate\n0,90 to 60 over 1.5\n5,50\n"),
                ElementsAre(Heart(0, 90), Heart(1000, 70), Heart(1500, 60), Heart(5000, 50)));
    // The next value ends it.
    EXPECT_THAT(Events("t_s,heart_rate\n0,60 to 90 over 3\n2,off-wrist\n"),
                ElementsAre(Heart(0, 60), Heart(1000, 70), Heart(2000, -3)));
}

TEST(TimelineTest, ACadenceMakesWholeStepsAndLosesNone)
{
    EXPECT_THAT(Events("t_s,steps\n0,110/min\n4,\n"),
                ElementsAre(Steps(1000, 1), Steps(2000, 2), Steps(3000, 2), Steps(4000, 2)));
    // Ten minutes: 1,100 steps, however they are spread.
    int steps = 0;
    for (const PlayEvent &event : Events("t_s,steps\n0,110/min\n600,0/min\n700,\n")) {
        steps += event.mValue;
        EXPECT_LE(event.mMs, 600000);
    }
    EXPECT_EQ(steps, 1100);
    // Half a second belongs to it too.
    EXPECT_THAT(Events("t_s,steps\n0,600/min\n1.5,+7\n3,\n"),
                ElementsAre(Steps(1000, 10), Steps(1500, 5), Steps(1500, 7)));
    EXPECT_THAT(Events("t_s,steps\n0,0/min\n1,+0\n2,\n"), ElementsAre());
}

TEST(TimelineTest, NoiseIsDrawnEachSecondWithinItsBounds)
{
    const auto events = Events("t_s,heart_rate\n0,72 noise 3\n599,72 noise 3\n1000,60\n");
    ASSERT_EQ(events.size(), 1001U);
    std::vector<int> values;
    for (std::size_t i = 0; i + 1 < events.size(); ++i) {
        EXPECT_EQ(events[i].mMs, static_cast<std::int64_t>(i) * 1000);
        values.push_back(events[i].mValue);
    }
    EXPECT_THAT(values, Each(AllOf(Ge(69), Le(75))));
    for (int value = 69; value <= 75; ++value) {
        EXPECT_THAT(values, Contains(value));
    }
    for (const PlayEvent &event :
         Events("t_s,heart_rate\n0,1 noise 9\n99,65535 noise 9\n200,1\n")) {
        EXPECT_THAT(event.mValue, AllOf(Ge(0), Le(65535)));
    }
}

TEST(TimelineTest, TheSeedAloneDecidesTheNoise)
{
    const std::string text = "t_s,heart_rate\n0,60 to 150 over 100 noise 5\n";
    EXPECT_EQ(Events(text, 7), Events(text, 7));
    EXPECT_NE(Events(text, 7), Events(text, 8));
    // What a seed gives is the same on every machine: the generator's first numbers, modulo 101.
    EXPECT_THAT(Events("t_s,heart_rate\n0,100 noise 50\n2,\n", 5489),
                ElementsAre(Heart(0, 50 + 14514284786278117030U % 101),
                            Heart(1000, 50 + 4620546740167642908U % 101),
                            Heart(2000, 50 + 13109570281517897720U % 101)));
}

TEST(TimelineTest, AnEventIsTheRequestThatSetsIt)
{
    const auto request = [](PlayItem item, int value) { return RequestText({0, item, value}); };
    EXPECT_EQ(request(PlayItem::HeartRate, 72),
              R"({"item":"heart_rate","request":"set","value":72})");
    EXPECT_EQ(request(PlayItem::HeartRate, -3),
              R"({"item":"heart_rate","request":"set","value":"off-wrist"})");
    EXPECT_EQ(request(PlayItem::Steps, 2), R"({"add":2,"item":"steps","request":"set"})");
    EXPECT_EQ(request(PlayItem::Activity, 2),
              R"({"item":"activity","request":"set","value":"walking"})");
    EXPECT_EQ(request(PlayItem::Gesture, -4), R"({"item":"gesture","request":"set","value":-4})");
}

} // namespace
} // namespace ParvaneWatch
