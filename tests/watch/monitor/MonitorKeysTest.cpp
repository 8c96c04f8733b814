#include "MonitorKeys.h"

#include <nlohmann/json.hpp>
#include <string>

#include <gtest/gtest.h>

namespace ParvaneWatch {
namespace {

using nlohmann::json;

/** What the last of some keys asks the service for; null for nothing. */
class MonitorKeysTest : public testing::Test
{
protected:
    json Type(const std::string &keys)
    {
        MonitorKeys::Wish wish;
        for (const char key : keys) {
            wish = mKeys.Take(key, mStatus);
        }
        return wish.mRequest.value_or(nullptr);
    }

    MonitorKeys mKeys;
    json mStatus;
};

TEST_F(MonitorKeysTest, NumbersAreAskedForAndEndWithTheReturnKey)
{
    EXPECT_EQ(Type("h72\n"), json({{"request", "set"}, {"item", "heart_rate"}, {"value", 72}}));
    EXPECT_EQ(Type("s110\n"), json({{"request", "set"}, {"item", "steps"}, {"add", 110}}));
    EXPECT_EQ(Type("g-3\n"), json({{"request", "set"}, {"item", "gesture"}, {"value", -3}}));
    EXPECT_EQ(Type("s12345678901\n").at("add"), 12345678901) << "not cut to what would be taken";
}

TEST_F(MonitorKeysTest, WhatIsTypedIsShownAndCanBeTakenBack)
{
    Type("h7x9");
    EXPECT_EQ(mKeys.Prompt(), "heart rate in beats per minute: 79");
    mKeys.Take(MonitorKeys::kErase, mStatus);
    EXPECT_EQ(mKeys.Prompt(), "heart rate in beats per minute: 7");
    mKeys.Take(MonitorKeys::kErase, mStatus);
    mKeys.Take(MonitorKeys::kErase, mStatus);
    EXPECT_EQ(Type("\n"), nullptr) << "nothing is no number";
    EXPECT_EQ(mKeys.Prompt(), "");

    Type("h72");
    mKeys.Take(MonitorKeys::kEscape, mStatus);
    EXPECT_EQ(mKeys.Prompt(), "");
    EXPECT_EQ(Type("\n"), nullptr);
}

TEST_F(MonitorKeysTest, ActivitiesAreALetter)
{
    const auto activity = [](const char *value) {
        return json({{"request", "set"}, {"item", "activity"}, {"value", value}});
    };
    EXPECT_EQ(Type("aw"), activity("walking"));
    EXPECT_EQ(Type("ar"), activity("running"));
    EXPECT_EQ(Type("as"), activity("still"));
    EXPECT_EQ(Type("ao"), activity("other"));
    EXPECT_EQ(Type("ax"), nullptr);
    EXPECT_EQ(mKeys.Prompt(), "");
}

TEST_F(MonitorKeysTest, WhatEndsTheServiceIsAskedForTwice)
{
    EXPECT_EQ(Type("mn"), nullptr);
    EXPECT_EQ(Type("mq"), nullptr) << "and q does not quit here";
    EXPECT_EQ(Type("my"), json({{"request", "memory"}, {"state", "low"}}));
    EXPECT_EQ(Type("by"), json({{"request", "battery"}, {"state", "low"}}));
}

TEST_F(MonitorKeysTest, TheLinkAndTheWristGoBackAndForth)
{
    mStatus = {{"link", {{"state", "up"}}}};
    EXPECT_EQ(Type("l"), json({{"request", "link"}, {"state", "down"}}));
    mStatus = {{"link", {{"state", "down"}}}};
    EXPECT_EQ(Type("l"), json({{"request", "link"}, {"state", "up"}}));

    const auto worn = [this](const json &rate) {
        mStatus = {{"items",
                    {{{"item", "heart_rate"},
                      {"last_reading", {{"values", {{"hrm/heart_rate", rate}}}}}}}}};
        return Type("w").at("value");
    };
    EXPECT_EQ(worn(72), "off-wrist");
    EXPECT_EQ(worn(-3), 70);
    mStatus = nullptr;
    EXPECT_EQ(Type("w").at("value"), 70);
    EXPECT_EQ(Type("w").at("value"), "off-wrist") << "also where no reading tells of it";
    EXPECT_EQ(Type("w").at("value"), 70);
}

TEST_F(MonitorKeysTest, HelpComesAndGoesAndQuitQuits)
{
    EXPECT_FALSE(mKeys.ShowsHelp());
    Type("?");
    EXPECT_TRUE(mKeys.ShowsHelp());
    Type("?");
    EXPECT_FALSE(mKeys.ShowsHelp());
    Type("?h");
    EXPECT_FALSE(mKeys.ShowsHelp()) << "a question is answered with the status in sight";
    mKeys.Take(MonitorKeys::kEscape, mStatus);
    EXPECT_TRUE(mKeys.Take('q', mStatus).mQuit);
    EXPECT_FALSE(mKeys.Take('x', mStatus).mQuit);
}

} // namespace
} // namespace ParvaneWatch
