#include "Scenario.h"

#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

namespace ParvaneWatch {
namespace {

std::string ErrorOf(const std::string &text)
{
    try {
        ParseScenario("walk.csv", text);
    } catch (const ScenarioError &error) {
        return error.what();
    }
    return "none";
}

/** What is wrong with a cell of a column, without its place. */
std::string ErrorOfCell(const std::string &column, const std::string &cell)
{
    const std::string error = ErrorOf("t_s," + column + "\n0," + cell + "\n9,\n");
    const std::string place = "walk.csv:2: ";
    return error.starts_with(place) ? error.substr(place.size()) : error;
}

TEST(ScenarioTest, RowsHaveTheCellsOfTheirColumns)
{
    const Scenario scenario = ParseScenario("walk.csv", "\xEF\xBB\xBF# a walk\r\n\r\n"
                                                        "t_s,gesture,heart_rate,steps,activity\r\n"
                                                        "0,,off-wrist,,still\r\n"
                                                        "# on\r\n"
                                                        "1.5, 4 , 72 ,+10, 2 \r\n"
                                                        "9,,,110/min,\r\n"
                                                        "20,,,,\r\n");
    ASSERT_EQ(scenario.mRows.size(), 4U);
    EXPECT_EQ(scenario.mEndMs, 20000);
    const ScenarioRow &first = scenario.mRows[0];
    EXPECT_EQ(first.mHeartRate->mFrom, HeartRateCell::kOffWrist);
    EXPECT_EQ(first.mActivity, 1);
    EXPECT_FALSE(first.mSteps || first.mGesture);
    const ScenarioRow &second = scenario.mRows[1];
    EXPECT_EQ(second.mLine, 6);
    EXPECT_EQ(second.mMs, 1500);
    EXPECT_EQ(second.mHeartRate->mFrom, 72);
    EXPECT_EQ(second.mHeartRate->mTo, 72);
    EXPECT_EQ(second.mSteps->mAdd, 10);
    EXPECT_EQ(second.mActivity, 2);
    EXPECT_EQ(second.mGesture, 4);
    EXPECT_EQ(scenario.mRows[2].mSteps->mPerMinute, 110);
}

TEST(ScenarioTest, AHeartRateMayRampAndBeNoisy)
{
    const Scenario scenario = ParseScenario("walk.csv", "t_s,heart_rate\n"
                                                        "0,72 noise 2\n"
                                                        "10,72 to  150 over 60\n"
                                                        "20,150 to 60 over 2.5 noise 3\n");
    EXPECT_EQ(scenario.mRows[0].mHeartRate->mNoise, 2);
    EXPECT_EQ(scenario.mRows[0].mHeartRate->mRampMs, 0);
    EXPECT_EQ(scenario.mRows[1].mHeartRate->mFrom, 72);
    EXPECT_EQ(scenario.mRows[1].mHeartRate->mTo, 150);
    EXPECT_EQ(scenario.mRows[1].mHeartRate->mRampMs, 60000);
    EXPECT_EQ(scenario.mRows[2].mHeartRate->mNoise, 3);
    // The ramp before is cut short, the last one goes on to its end.
    EXPECT_EQ(scenario.mEndMs, 22500);
}

TEST(ScenarioTest, ARecordingIsAScenario)
{
    std::ifstream file(PARVANE_RECORDING);
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    const Scenario scenario = ParseScenario("run.csv", text);

    EXPECT_GT(scenario.mRows.size(), 1000U);
    EXPECT_TRUE(scenario.mRows.front().mActivity);
    const Scenario small = ParseScenario("r", "t_ms,heart_rate,total_steps,speed\n"
                                              "0,-3,100,1\n5,60,100,\n9,,107,2\n");
    EXPECT_EQ(small.mRows[0].mHeartRate->mFrom, HeartRateCell::kOffWrist);
    EXPECT_EQ(small.mRows[0].mSteps->mAdd, 0);
    EXPECT_EQ(small.mRows[1].mMs, 5);
    EXPECT_EQ(small.mRows[2].mSteps->mAdd, 7);
}

TEST(ScenarioTest, ACellThatBreaksItsRuleSaysWhatIsAllowed)
{
    const std::string rates = "'; allowed: BPM from 0 to 65535, off-wrist, BPM to BPM over "
                              "SECONDS, and behind a BPM: noise BPM";
    for (const std::string cell :
         {"fast", "65536", "7.2", "72 to 80", "72 to 80 over", "72 to 80 over 0", "72 over 3",
          "72 to 80 over -1", "72 to 80 over nan", "72 noise", "72 noise -1", "noise 3",
          "72 noise 2 noise 3", "off-wrist noise 2", "+72"}) {
        EXPECT_EQ(ErrorOfCell("heart_rate", cell), "heart_rate is '" + cell + rates);
    }
    const std::string steps = "'; allowed: +N, or N/min with N from 0 to 1000";
    for (const std::string cell : {"10", "+-1", "+", "+2147483648", "1001/min", "/min", "-1/min"}) {
        EXPECT_EQ(ErrorOfCell("steps", cell), "steps is '" + cell + steps);
    }
    EXPECT_EQ(ErrorOfCell("activity", "4"),
              "activity is '4'; allowed: other, still, walking, running, or 0 to 3");
    EXPECT_EQ(ErrorOfCell("gesture", "wave"),
              "gesture is 'wave'; allowed: the number of a gesture");
    EXPECT_EQ(ErrorOfCell("gesture", "\033[2J"),
              "gesture is '\\x1B[2J'; allowed: the number of a gesture");
    EXPECT_EQ(ErrorOf("t_s,total_steps\n0,7\n1,6\n"),
              "walk.csv:3: total_steps is '6'; allowed: a whole number from 0 on, never less than "
              "before");
}

TEST(ScenarioTest, ATimeThatBreaksItsRuleSaysWhatIsAllowed)
{
    for (const std::string cell : {"", "-1", "604801", "1e9", "nan", "inf", "soon"}) {
        EXPECT_EQ(ErrorOf("t_s,gesture\n" + cell + ",1\n"),
                  "walk.csv:2: t_s is '" + cell + "'; allowed: seconds from 0 to 604800");
    }
    EXPECT_EQ(ErrorOf("t_ms,gesture\n1.5,1\n"),
              "walk.csv:2: t_ms is '1.5'; allowed: milliseconds from 0 to 604800000");
    EXPECT_EQ(ErrorOf("t_s,gesture\n2,1\n1,1\n"),
              "walk.csv:3: the time is before that of the row above; allowed: the same or a later "
              "one");
    EXPECT_EQ(ErrorOf("t_s,heart_rate\n604800,60 to 70 over 1\n"),
              "walk.csv:2: the ramp ends too late; allowed: up to 604800 seconds after the start");
}

TEST(ScenarioTest, AFormThatIsWrongSaysWhatIsAllowed)
{
    const std::string none = "there is no row; allowed: a line of column names, such as "
                             "t_s,heart_rate,steps,activity,gesture, and rows below it";
    EXPECT_EQ(ErrorOf(""), "walk.csv:1: " + none);
    EXPECT_EQ(ErrorOf("# nothing\nt_s,steps\n"), "walk.csv:3: " + none);
    EXPECT_EQ(ErrorOf("t_s,speeed\n"),
              "walk.csv:1: a column is 'speeed'; allowed: t_s or t_ms, heart_rate, steps or "
              "total_steps, activity, gesture, and those of a recording");
    EXPECT_EQ(ErrorOf("t_s,steps,steps\n"),
              "walk.csv:1: a second column is 'steps'; allowed: each column once");
    const std::string time = "walk.csv:1: the column of the time is missing, or there are two; "
                             "allowed: either t_s, in seconds, or t_ms, in milliseconds";
    EXPECT_EQ(ErrorOf("steps,gesture\n"), time);
    EXPECT_EQ(ErrorOf("t_s,t_ms\n"), time);
    EXPECT_EQ(ErrorOf("t_s,steps,total_steps\n"),
              "walk.csv:1: there are two columns of steps; allowed: either steps or total_steps");
    EXPECT_EQ(ErrorOf("t_s,steps\n0\n"),
              "walk.csv:2: there are 1 cells; allowed: 2, as many as there are columns");
    EXPECT_EQ(ErrorOf("t_s,steps\n0,\n5,110/min\n"),
              "walk.csv:3: the cadence begins where the scenario ends; allowed: with a later row "
              "behind it, which may have nothing but its time");
    EXPECT_EQ(ErrorOf("t_s,steps,heart_rate\n5,110/min,60 to 70 over 9\n"), "none");
}

} // namespace
} // namespace ParvaneWatch
