#include "StatusText.h"

#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneWatch {
namespace {

using nlohmann::json;
using testing::Contains;
using testing::ElementsAre;

/** In a time zone an hour east of Greenwich. */
class StatusTextTest : public testing::Test
{
public:
    ~StatusTextTest() override
    {
        ::unsetenv("TZ");
        ::tzset();
    }

protected:
    StatusTextTest()
    {
        ::setenv("TZ", "XYZ-1", 1);
        ::tzset();
    }

    static json Item(const json &values, const json &subscription = nullptr)
    {
        return {{"item", "heart_rate"},
                {"source", "ble"},
                {"subscription", subscription},
                {"last_reading", {{"age_ms", 400}, {"values", values}}},
                {"delivered", 3}};
    }

    /** The line of an item. */
    static std::string Line(const json &item)
    {
        const auto lines =
            StatusText({{"time", "2026-01-31T11:34:59.789Z"}, {"items", json::array({item})}});
        return lines.at(6);
    }
};

TEST_F(StatusTextTest, OneLineSaysWhatKeepsAnItemOnAndSinceWhen)
{
    const json subscription = {
        {"request_id", 7}, {"since", "2026-01-31T11:34:56.789Z"}, {"for_ms", 3000}};
    EXPECT_EQ(Line(Item({{"hrm/heart_rate", 72}}, subscription)),
              "heart rate  on since 12:34:56 (3 s) by request 7, source ble, last 72 /min 0.4 s "
              "ago, 3 readings");
}

TEST_F(StatusTextTest, AnItemThatCannotHaveReadingsSaysWhy)
{
    json item = {{"item", "heart_rate"}, {"source", "none"}, {"delivered", 0}};
    item["problem"] = "no source configured";
    EXPECT_EQ(Line(item), "heart rate  off, no source configured, no readings");
    item["problem"] = "source ble has no system bus\n";
    EXPECT_EQ(Line(item), "heart rate  off, source ble has no system bus\\x0A, no readings");
    item["problem"] = nullptr;
    EXPECT_EQ(Line(item), "heart rate  off, source none, no readings");
}

TEST_F(StatusTextTest, WhoRecordsAnItemThatIsKeptOnIsSaid)
{
    json item = Item({{"hrm/heart_rate", 72}});
    item["kept_by"] =
        json::array({{{"pid", 4711}, {"since", "2026-01-31T11:34:56.789Z"}, {"for_ms", 3000}}});
    EXPECT_THAT(Line(item), testing::StartsWith("heart rate  on since 12:34:56 (3 s) by process "
                                                "4711, which records, source ble, last"));
    item["subscription"] = {{"request_id", 7}};
    EXPECT_THAT(Line(item), testing::StartsWith("heart rate  on by request 7, on since 12:34:56 "
                                                "(3 s) by process 4711, which records, source"));
}

TEST_F(StatusTextTest, ADayThatIsNotTodayIsSaid)
{
    const json subscription = {
        {"request_id", 7}, {"since", "2026-01-30T22:59:59.789Z"}, {"for_ms", 45300000}};
    EXPECT_THAT(Line(Item({{"hrm/heart_rate", 72}}, subscription)),
                testing::HasSubstr("on since 2026-01-30 23:59:59 (12 h 35 min) by request 7"));
}

TEST_F(StatusTextTest, EveryValueOfAReadingIsShown)
{
    const auto values = [](const json &reading) {
        const std::string line = Line(Item(reading));
        const auto begin = line.find("last ") + 5;
        return line.substr(begin, line.find(" 0.4 s ago") - begin);
    };
    EXPECT_EQ(values({{"hrm/heart_rate", -3}}), "off wrist");
    EXPECT_EQ(values({{"hrm/heart_rate", 72}, {"hrm/peak_to_peak", 812}}),
              "72 /min (812 ms peak to peak)");
    EXPECT_EQ(values({{"pedometer/total_steps", 345.0},
                      {"pedometer/walk_steps", 300.0},
                      {"pedometer/run_steps", 45.0},
                      {"pedometer/distance", 251.25},
                      {"pedometer/calories", 12.5},
                      {"pedometer/speed", 6.25}}),
              "345 steps (12.5 kcal, 251.25 m, 45 running, 6.25 km/h, 300 walking)");
    EXPECT_EQ(values({{"pedometer/total_steps", 1}}), "1 step");
    EXPECT_EQ(values({{"pedometer/distance", 2.5}}), "2.5 m");
    EXPECT_EQ(values({{"pedometer/distance", 25186.329999999998}}), "25186.33 m");
    EXPECT_EQ(values({{"pedometer/distance", 300.0}}), "300 m");
    EXPECT_EQ(values({{"activity/status", 2}}), "walking");
    EXPECT_EQ(values({{"activity/status", 17}}), "activity 17");
    EXPECT_EQ(values({{"motion/action", 4}}), "gesture 4");
    EXPECT_EQ(values({{"something/new", 5}}), "something/new 5");
}

TEST_F(StatusTextTest, AWholeStatusIsAlignedAndComplete)
{
    const json status = {
        {"time", "2026-01-31T11:34:59.789Z"},
        {"service",
         {{"version", "0.2.0"},
          {"pid", 12},
          {"user", 1000},
          {"since", "2026-01-31T11:30:00.000Z"},
          {"for_ms", 299789}}},
        {"directories", {{"state", "/var/lib/parvane"}, {"runtime", "/run/parvane"}}},
        {"host",
         {{"pid", 77}, {"user", 0}, {"since", "2026-01-31T11:34:00.000Z"}, {"for_ms", 59789}}},
        {"link",
         {{"state", "up"},
          {"key", 1},
          {"host_state", "open"},
          {"packets_in", 1},
          {"bytes_in", 4},
          {"packets_out", 5},
          {"bytes_out", 90},
          {"refused_hosts", 0},
          {"queue_full", 2}}},
        {"items", json::array({{{"item", "gesture"}, {"source", "none"}, {"delivered", 0}}})},
        {"power_locks", json::array({{{"state", 2},
                                      {"held_by", "logind"},
                                      {"since", "2026-01-31T11:34:56.789Z"},
                                      {"for_ms", 3000},
                                      {"ends_in_ms", 13000}}})},
        {"preferences", {{"a/b", true}, {"c", "x\ny"}}},
        {"preferences_left_out", 1}};
    EXPECT_THAT(
        StatusText(status),
        ElementsAre("service     version 0.2.0, process 12, user 1000, since 12:30:00 (4 min 59 s)",
                    "state       /var/lib/parvane", "run-time    /run/parvane",
                    "host        process 77, user 0, since 12:34:00 (59 s)",
                    "link        up, key 1, host state open",
                    "traffic     in 1 packet of 4 bytes, out 5 packets of 90 bytes, no hosts "
                    "refused, queue full 2 times",
                    "gesture     off, source none, no readings",
                    "power lock  state 2, kept by logind since 12:34:56 (3 s), ends in 13 s",
                    "preference  a/b = true", "preference  c = \"x\\ny\"",
                    "preference  (1 more that are too long)"));
}

TEST_F(StatusTextTest, WhatAStatusDoesNotTellIsNoFailure)
{
    for (const char *text :
         {"{}", "null", "[1]", R"({"items":5,"link":[],"power_locks":{},"host":7})",
          R"({"items":[null,[],{"subscription":{},"last_reading":{"values":[]}}]})",
          R"({"service":{"since":"yesterday","for_ms":"x"},"time":3,"preferences":null})",
          R"({"items":[{"item":7,"last_reading":{"values":{"hrm/heart_rate":"x"}}}]})"}) {
        EXPECT_THAT(StatusText(json::parse(text)).size(), testing::Ge(7U)) << text;
    }
    EXPECT_THAT(StatusText({}), Contains("host        none"));
}

TEST_F(StatusTextTest, ControlCharactersOfForeignTextDoNotReachTheTerminal)
{
    EXPECT_THAT(StatusText({{"directories", {{"state", "/\033[2J\n"}}}}),
                Contains("state       /\\x1B[2J\\x0A"));
}

TEST_F(StatusTextTest, LengthsAreAsLongAsTheyNeedToBe)
{
    EXPECT_EQ(LengthText(0), "0 s");
    EXPECT_EQ(LengthText(400, true), "0.4 s");
    EXPECT_EQ(LengthText(9999, true), "9.9 s");
    EXPECT_EQ(LengthText(10000, true), "10 s");
    EXPECT_EQ(LengthText(59999), "59 s");
    EXPECT_EQ(LengthText(60000), "1 min 0 s");
    EXPECT_EQ(LengthText(3600000), "1 h 0 min");
    EXPECT_EQ(LengthText(90000000), "1 d 1 h");
}

} // namespace
} // namespace ParvaneWatch
