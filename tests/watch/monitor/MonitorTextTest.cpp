#include "MonitorText.h"

#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneWatch {
namespace {

using nlohmann::json;
using testing::Each;
using testing::HasSubstr;
using testing::SizeIs;
using testing::StartsWith;

/** A service that measures, in a zone an hour before UTC. */
class MonitorTextTest : public testing::Test
{
protected:
    MonitorTextTest()
    {
        ::setenv("TZ", "XYZ-1", 1);
        ::tzset();
        mModel.Reset(mStatus, {});
    }

    [[nodiscard]] std::vector<std::string> Lines() const { return MonitorLines(mModel, {}, mView); }

    json mStatus = {
        {"time", "2026-01-31T11:34:59.789Z"},
        {"service", {{"pid", 11}, {"user", 1000}, {"for_ms", 5000}}},
        {"host",
         {{"pid", 5}, {"user", 0}, {"since", "2026-01-31T11:34:50.789Z"}, {"for_ms", 9000}}},
        {"link",
         {{"state", "up"},
          {"set_by", nullptr},
          {"host_state", "open"},
          {"packets_in", 1},
          {"bytes_in", 4},
          {"packets_out", 0},
          {"bytes_out", 0},
          {"refused_hosts", 2},
          {"queue_full", 0}}},
        {"power_locks",
         {{{"state", 2},
           {"held_by", "none"},
           {"since", "2026-01-31T11:34:57.789Z"},
           {"for_ms", 2000},
           {"ends_in_ms", 14000}}}},
        {"preferences", {{"a", 1}}},
        {"items",
         {{{"item", "heart_rate"},
           {"source", "manual"},
           {"subscription",
            {{"request_id", 7}, {"since", "2026-01-31T11:34:56.789Z"}, {"for_ms", 3000}}},
           {"kept_by", {{{"pid", 4711}, {"since", "2026-01-31T11:34:58.789Z"}, {"for_ms", 1000}}}},
           {"last_reading",
            {{"age_ms", 400}, {"values", {{"hrm/heart_rate", 72}, {"hrm/spo2", 97}}}}}}}}};
    MonitorModel mModel;
    MonitorView mView;
};

TEST_F(MonitorTextTest, TheScreenHasReadingsKeepersTrafficAndLocks)
{
    const auto lines = Lines();
    ASSERT_THAT(lines, SizeIs(24));
    EXPECT_EQ(lines.at(0), "Parvane: process 11, user 1000, running for 5 s");
    EXPECT_EQ(lines.at(3), "heart rate  72 /min                     0.4 s           =");
    EXPECT_THAT(lines.at(4), StartsWith("  on since 12:34:56 (3 s) by request 7, on since 12:34:58 "
                                        "(1 s) by process 4711"));
    EXPECT_EQ(lines.at(6), "host        process 5, user 0, since 12:34:50 (9 s)");
    EXPECT_EQ(lines.at(7), "link        up, host state open");
    EXPECT_EQ(lines.at(8), "traffic     in 1 packet of 4 bytes, out no packets of no bytes");
    EXPECT_EQ(lines.at(9), "            2 hosts refused, queue never full");
    EXPECT_EQ(lines.at(10),
              "power lock  state 2, kept by the service since 12:34:57 (2 s), ends in 14 s");
    EXPECT_THAT(lines.back(), HasSubstr("q quit"));
}

TEST_F(MonitorTextTest, NothingIsLongerThanTheScreenIsWideNorMoreThanItIsHigh)
{
    mStatus["service"]["pid"] = std::string(500, 'x');
    for (const bool showsHelp : {false, true}) {
        mView.mShowsHelp = showsHelp;
        mModel.Reset(mStatus, {});
        for (const std::size_t rows : {1U, 2U, 3U, 10U, 24U, 60U}) {
            for (const std::size_t columns : {1U, 20U, 80U, 200U}) {
                mView.mRows = rows;
                mView.mColumns = columns;
                const auto lines = Lines();
                EXPECT_THAT(lines, SizeIs(rows));
                EXPECT_THAT(lines, Each(SizeIs(testing::Le(columns))));
            }
        }
    }
}

TEST_F(MonitorTextTest, NotesAndQuestionsAreOnTheLineBeforeTheLast)
{
    mView.mNote = "done";
    EXPECT_EQ(Lines().at(22), "done");
    mView.mPrompt = "steps to add: 1";
    EXPECT_EQ(Lines().at(22), "steps to add: 1_");
    mView.mPrompt.clear();
    mView.mNote = std::string(70, 'x') + " is a word too long for a row";
    EXPECT_EQ(Lines().at(21), std::string(70, 'x') + " is a ");
    EXPECT_EQ(Lines().at(22), "word too long for a row");
    EXPECT_THAT(Lines().at(23), HasSubstr("q quit"));
    mView.mShowsHelp = true;
    EXPECT_EQ(Lines().at(2), "h  set the heart rate of the manual source");
}

TEST_F(MonitorTextTest, ATrendIsFromItsLowestToItsHighestValue)
{
    EXPECT_EQ(TrendText({}, false), "");
    EXPECT_EQ(TrendText({5, 5}, false), "==");
    EXPECT_EQ(TrendText({60, 130, 95, 60}, false), "_#=_");
    EXPECT_EQ(TrendText({0, 1}, true), "\u2581\u2588");
    EXPECT_EQ(Clipped(TrendText({0, 1, 0}, true), 2), "\u2581\u2588");
}

TEST_F(MonitorTextTest, EachEventIsALine)
{
    const auto text = [this](json event) {
        event["time"] = "2026-01-31T11:35:00.789Z";
        return EventText(event, mStatus);
    };
    EXPECT_EQ(
        text({{"event", "reading"}, {"item", "heart_rate"}, {"values", {{"hrm/heart_rate", -3}}}}),
        "12:35:00  heart rate  off wrist\n");
    EXPECT_EQ(text({{"event", "item"}, {"item", {{"item", "gesture"}, {"subscription", nullptr}}}}),
              "12:35:00  gesture     off\n");
    EXPECT_EQ(text({{"event", "host"}, {"host", nullptr}}), "12:35:00  host        none\n");
    json link = mStatus.at("link");
    link["packets_out"] = 1;
    EXPECT_EQ(text({{"event", "link"}, {"link", link}}),
              "12:35:00  traffic     in 1 packet of 4 bytes, out 1 packet of no bytes, 2 hosts "
              "refused, queue never full\n");
    link["state"] = "down";
    link["set_by"] = 12;
    EXPECT_EQ(text({{"event", "link"}, {"link", link}}),
              "12:35:00  link        down by process 12, host state open\n");
    json other = mStatus.at("power_locks").at(0);
    other["state"] = 3;
    EXPECT_EQ(text({{"event", "power_locks"}, {"power_locks", {other}}}),
              "12:35:00  power lock  state 3, kept by the service, taken, ends in 14 s\n"
              "12:35:00  power lock  state 2, kept by the service, released\n");
    EXPECT_EQ(text({{"event", "preferences"}, {"preferences", {{"a", 1}, {"b", true}}}}),
              "12:35:00  preference  b = true\n");
    EXPECT_EQ(text({{"event", "replay"},
                    {"replay",
                     {{"files", {"/a/run.csv", "b.csv"}},
                      {"position_ms", 12500},
                      {"length_ms", 49000},
                      {"speed", 1.0},
                      {"loop", true},
                      {"paused", true}}}}),
              "12:35:00  replay      run.csv, b.csv at 12.5 s of 49 s, speed 1, over and over, "
              "paused\n");
    EXPECT_EQ(EventText({{"event", "missed"}, {"count", 3}}, mStatus),
              "          missed      3 messages: read faster\n");
    EXPECT_EQ(text({{"event", "something new"}}), "");
    EXPECT_EQ(EventText(nullptr, nullptr), "");
}

} // namespace
} // namespace ParvaneWatch
