#include "MonitorModel.h"

#include <chrono>
#include <nlohmann/json.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneWatch {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

class MonitorModelTest : public testing::Test
{
protected:
    MonitorModelTest()
    {
        mModel.Reset(
            {{"time", "2026-01-31T11:34:59.789Z"},
             {"service", {{"pid", 11}, {"for_ms", 5000}}},
             {"host", nullptr},
             {"link", {{"state", "up"}, {"packets_in", 1}}},
             {"power_locks", {{{"state", 2}, {"for_ms", 100}, {"ends_in_ms", 1500}}}},
             {"items",
              {{{"item", "heart_rate"},
                {"subscription", {{"request_id", 7}, {"for_ms", 3000}}},
                {"kept_by", json::array()},
                {"last_reading", {{"age_ms", 400}, {"values", {{"hrm/heart_rate", 72}}}}}},
               {{"item", "pedometer"}, {"subscription", nullptr}, {"last_reading", nullptr}}}}},
            mNow);
    }

    json Item(std::size_t number) { return mModel.Status(mNow).at("items").at(number); }

    void Read(const std::string &item, const json &values)
    {
        mModel.Apply({{"event", "reading"},
                      {"time", "2026-01-31T11:35:00.789Z"},
                      {"item", item},
                      {"values", values}},
                     mNow);
    }

    MonitorModel mModel;
    MonitorModel::Time mNow{};
};

TEST_F(MonitorModelTest, AgesGrowAndWhatIsLeftOfALockShrinks)
{
    mNow += milliseconds(2000);
    const json status = mModel.Status(mNow);
    EXPECT_EQ(status.at("service").at("for_ms"), 7000);
    EXPECT_EQ(status.at("power_locks").at(0).at("for_ms"), 2100);
    EXPECT_EQ(status.at("power_locks").at(0).at("ends_in_ms"), 0);
    EXPECT_EQ(Item(0).at("subscription").at("for_ms"), 5000);
    EXPECT_EQ(Item(0).at("last_reading").at("age_ms"), 2400);
}

TEST_F(MonitorModelTest, AReadingBeginsANewAge)
{
    mNow += milliseconds(2000);
    Read("heart_rate", {{"hrm/heart_rate", 80}});
    mNow += milliseconds(300);
    EXPECT_EQ(Item(0).at("last_reading").at("age_ms"), 300);
    EXPECT_EQ(Item(0).at("last_reading").at("values").at("hrm/heart_rate"), 80);
    EXPECT_EQ(Item(0).at("subscription").at("for_ms"), 5300) << "who keeps it on is as before";
}

TEST_F(MonitorModelTest, WhoKeepsAnItemOnIsWhatTheLastEventSays)
{
    mModel.Apply({{"event", "item"},
                  {"item",
                   {{"item", "heart_rate"},
                    {"subscription", nullptr},
                    {"kept_by", {{{"pid", 4711}, {"for_ms", 0}}}},
                    {"last_reading", nullptr}}}},
                 mNow);
    mNow += milliseconds(50);
    EXPECT_EQ(Item(0).at("subscription"), nullptr);
    EXPECT_EQ(Item(0).at("kept_by"), json({{{"pid", 4711}, {"for_ms", 50}}}));
    EXPECT_EQ(Item(0).at("last_reading").at("age_ms"), 450) << "readings are told by themselves";
}

TEST_F(MonitorModelTest, HostLinkLocksAndPreferencesAreReplaced)
{
    mModel.Apply({{"event", "host"}, {"host", {{"pid", 5}}}}, mNow);
    mModel.Apply({{"event", "link"}, {"link", {{"state", "down"}}}}, mNow);
    mModel.Apply({{"event", "power_locks"}, {"power_locks", json::array()}}, mNow);
    const json status = mModel.Status(mNow);
    EXPECT_EQ(status.at("host").at("pid"), 5);
    EXPECT_EQ(status.at("link"), json({{"state", "down"}}));
    EXPECT_EQ(status.at("power_locks"), json::array());
}

TEST_F(MonitorModelTest, TheTrendOfTheHeartRateIsThatOfAWatchThatIsWorn)
{
    for (const int rate : {73, -3, 75}) {
        Read("heart_rate", {{"hrm/heart_rate", rate}});
    }
    EXPECT_THAT(mModel.Trend("heart_rate"), ElementsAre(72, 73, 75));
}

TEST_F(MonitorModelTest, TheTrendOfStepsIsWhatEachReadingAdds)
{
    for (const int steps : {1000, 1010, 1010, 5}) {
        Read("pedometer", {{"pedometer/total_steps", steps}});
    }
    EXPECT_THAT(mModel.Trend("pedometer"), ElementsAre(10, 0, 0));
}

TEST_F(MonitorModelTest, ATrendHasTheLastValuesOnly)
{
    for (int rate = 0; rate < 1000; ++rate) {
        Read("heart_rate", {{"hrm/heart_rate", rate}});
    }
    EXPECT_EQ(mModel.Trend("heart_rate").size(), MonitorModel::kTrend);
    EXPECT_EQ(mModel.Trend("heart_rate").back(), 999);
}

TEST_F(MonitorModelTest, TrendsGoOnWithTheSameProcessOnly)
{
    const json again = mModel.Status(mNow);
    Read("heart_rate", {{"hrm/heart_rate", 75}});
    mModel.Reset(again, mNow);
    EXPECT_THAT(mModel.Trend("heart_rate"), ElementsAre(72, 75));

    json other = again;
    other["service"]["pid"] = 12;
    other["items"][0]["last_reading"] = nullptr;
    Read("pedometer", {{"pedometer/total_steps", 10}});
    mModel.Reset(other, mNow);
    EXPECT_THAT(mModel.Trend("heart_rate"), IsEmpty());
    Read("pedometer", {{"pedometer/total_steps", 500}});
    EXPECT_THAT(mModel.Trend("pedometer"), IsEmpty()) << "no steps of another process's count";
}

TEST_F(MonitorModelTest, AnItemIsOnWhileSomebodyKeepsItOn)
{
    EXPECT_TRUE(mModel.IsOn("heart_rate"));
    EXPECT_FALSE(mModel.IsOn("pedometer"));
    EXPECT_FALSE(mModel.IsOn("nothing"));
    mModel.Apply(
        {{"event", "item"},
         {"item",
          {{"item", "pedometer"}, {"subscription", nullptr}, {"kept_by", {{{"pid", 4711}}}}}}},
        mNow);
    EXPECT_TRUE(mModel.IsOn("pedometer"));
}

TEST_F(MonitorModelTest, WhatWasMissedIsCountedUntilTheNextStatus)
{
    mModel.Apply({{"event", "missed"}, {"count", 3}}, mNow);
    mModel.Apply({{"event", "missed"}, {"count", 4}}, mNow);
    EXPECT_EQ(mModel.Missed(), 7U);
    mModel.Reset({{"time", "2026-01-31T11:34:59.789Z"}}, mNow);
    EXPECT_EQ(mModel.Missed(), 0U);
    EXPECT_EQ(mModel.Status(mNow).at("items"), json::array());
}

TEST_F(MonitorModelTest, NoMessageMakesItFail)
{
    for (const char *event :
         {"null", "[]", "{}", R"({"event":7})", R"({"event":"reading","item":[]})",
          R"({"event":"reading","item":"heart_rate","values":{"hrm/heart_rate":"x"}})",
          R"({"event":"item","item":"heart_rate"})", R"({"event":"missed","count":-1})",
          R"({"event":"service","service":[1]})", R"({"event":"something new"})"}) {
        mModel.Apply(json::parse(event), mNow);
        EXPECT_TRUE(mModel.Status(mNow).is_object()) << event;
    }
    for (const char *status : {"null", "[]", R"({"items":7})", R"({"items":[null,{"item":1}]})"}) {
        mModel.Reset(json::parse(status), mNow);
        EXPECT_TRUE(mModel.Status(mNow).is_object()) << status;
    }
    EXPECT_THAT(mModel.Trend("nothing"), IsEmpty());
}

} // namespace
} // namespace ParvaneWatch
