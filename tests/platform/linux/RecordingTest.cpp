#include "context_manager/Recording.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "base/StartupError.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;

constexpr char kNames[] = "t_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,"
                          "calories_kcal,speed,activity,gesture\n";

/** A recording of a comment, the names and `rows`; the first row is line 3. */
std::string Text(const std::string &rows)
{
    return std::string("# tz: +02:00\n") + kNames + rows;
}

std::string ErrorOf(const std::string &text)
{
    try {
        ParseRecording("f.csv", text);
    } catch (const StartupError &failure) {
        return failure.what();
    }
    return "no error";
}

} // namespace

TEST(RecordingTest, RowsAreReadWithWhatTheyHave)
{
    const Recording recording =
        ParseRecording("f.csv", Text("0,-3,0,,,0.00,,,1,\n1000,,7,2,5,8.25,1.5,12.74,,4\n"));
    ASSERT_EQ(recording.mRows.size(), 2U);

    const RecordingRow &first = recording.mRows[0];
    EXPECT_EQ(first.mTimeMs, 0);
    EXPECT_EQ(first.mHeartRate, -3);
    EXPECT_EQ(first.mActivity, 1);
    EXPECT_TRUE(first.mHasHeartRate && first.mHasPedometer && first.mHasActivity);
    EXPECT_FALSE(first.mHasGesture);
    EXPECT_EQ(first.mKnownPedometer, 0b001001);

    const RecordingRow &second = recording.mRows[1];
    EXPECT_EQ(second.mTimeMs, 1000);
    EXPECT_THAT(second.mPedometer, ElementsAre(7.0, 2.0, 5.0, 8.25, 1.5, 12.74));
    EXPECT_EQ(second.mGesture, 4);
    EXPECT_TRUE(second.mHasPedometer && second.mHasGesture);
    EXPECT_FALSE(second.mHasHeartRate || second.mHasActivity);
    EXPECT_EQ(second.mKnownPedometer, 0b111111);
}

TEST(RecordingTest, EmptyCellKeepsTheLastValue)
{
    const Recording recording =
        ParseRecording("f.csv", Text("0,,5,,,1.5,,3.5,,\n1000,60,,,,,,,,\n2000,,9,,,,,,,\n"));
    EXPECT_FALSE(recording.mRows[1].mHasPedometer);
    EXPECT_TRUE(recording.mRows[2].mHasPedometer);
    EXPECT_THAT(recording.mRows[2].mPedometer, ElementsAre(9.0, 0.0, 0.0, 1.5, 0.0, 3.5));
    EXPECT_EQ(recording.mRows[2].mKnownPedometer, 0b101001);
}

TEST(RecordingTest, OrderOfColumnsAndLineEndsAreFree)
{
    const Recording recording = ParseRecording(
        "f.csv", "#c\r\nspeed,gesture,activity,calories_kcal,distance_m,run_steps,walk_steps,"
                 "total_steps,heart_rate,t_ms\r\n1.5,,2,,,,,8,61,10\r\n,,,,,,,,62,20\r\n\r\n\n");
    ASSERT_EQ(recording.mRows.size(), 2U);
    EXPECT_EQ(recording.mRows[0].mTimeMs, 10);
    EXPECT_EQ(recording.mRows[0].mHeartRate, 61);
    EXPECT_EQ(recording.mRows[0].mActivity, 2);
    EXPECT_THAT(recording.mRows[1].mPedometer, ElementsAre(8.0, 0.0, 0.0, 0.0, 0.0, 1.5));
}

TEST(RecordingTest, RoundEndsOneMedianDistanceAfterTheLastRow)
{
    EXPECT_EQ(ParseRecording("f", Text("0,1,,,,,,,,\n5000,1,,,,,,,,\n6000,1,,,,,,,,\n"
                                       "7000,1,,,,,,,,\n"))
                  .mLoopMs,
              8000);
    EXPECT_EQ(ParseRecording("f", Text("250,1,,,,,,,,")).mLoopMs, 1250);
    EXPECT_EQ(ParseRecording("f", Text("3,1,,,,,,,,\n3,2,,,,,,,,\n")).mLoopMs, 4);
}

struct Malformed
{
    std::string mRows;
    std::string mMessage;
};

class MalformedRowTest : public testing::TestWithParam<Malformed>
{};

TEST_P(MalformedRowTest, IsRefusedWithItsPlaceAndReason)
{
    EXPECT_EQ(ErrorOf(Text(GetParam().mRows)), "f.csv: " + GetParam().mMessage);
}

INSTANTIATE_TEST_SUITE_P(
    Recording, MalformedRowTest,
    testing::Values(
        Malformed{"x,,,,,,,,,\n", "line 3, column 1 (t_ms): 'x' is not a time from 0 to "
                                  "1000000000000 ms"},
        Malformed{",60,,,,,,,,\n", "line 3, column 1 (t_ms): '' is not a time from 0 to "
                                   "1000000000000 ms"},
        Malformed{"-1,60,,,,,,,,\n", "line 3, column 1 (t_ms): '-1' is not a time from 0 to "
                                     "1000000000000 ms"},
        Malformed{"1000000000001,,,,,,,,,\n", "line 3, column 1 (t_ms): '1000000000001' is not a "
                                              "time from 0 to 1000000000000 ms"},
        Malformed{"5000,60,,,,,,,,\n4000,60,,,,,,,,\n",
                  "line 4, column 1 (t_ms): the time goes back from 5000 to 4000 ms"},
        Malformed{"0,6.5,,,,,,,,\n",
                  "line 3, column 2 (heart_rate): '6.5' is not a whole number of 32 bits"},
        Malformed{"0,2147483648,,,,,,,,\n",
                  "line 3, column 2 (heart_rate): '2147483648' is not a whole number of 32 bits"},
        Malformed{"0, 60,,,,,,,,\n",
                  "line 3, column 2 (heart_rate): ' 60' is not a whole number of 32 bits"},
        Malformed{
            "0,,-1,,,,,,,\n",
            "line 3, column 3 (total_steps): '-1' is not a whole number from 0 to 2147483647"},
        Malformed{
            "0,,,1.5,,,,,,\n",
            "line 3, column 4 (walk_steps): '1.5' is not a whole number from 0 to 2147483647"},
        Malformed{
            "0,,,,2147483648,,,,,\n",
            "line 3, column 5 (run_steps): '2147483648' is not a whole number from 0 to 2147483647"},
        Malformed{"0,,,,,-0.5,,,,\n",
                  "line 3, column 6 (distance_m): '-0.5' is not a decimal number from 0 to "
                  "1000000000"},
        Malformed{"0,,,,,1e3,,,,\n",
                  "line 3, column 6 (distance_m): '1e3' is not a decimal number from 0 to "
                  "1000000000"},
        Malformed{"0,,,,,,inf,,,\n",
                  "line 3, column 7 (calories_kcal): 'inf' is not a decimal number from 0 to "
                  "1000000000"},
        Malformed{"0,,,,,,,nan,,\n",
                  "line 3, column 8 (speed): 'nan' is not a decimal number from 0 to 1000000000"},
        Malformed{"0,,,,,,,-1,,\n",
                  "line 3, column 8 (speed): '-1' is not a decimal number from 0 to 1000000000"},
        Malformed{"0,,,,,,,,4,\n",
                  "line 3, column 9 (activity): '4' is not an activity from 0 to 3"},
        Malformed{"0,,,,,,,,-1,\n",
                  "line 3, column 9 (activity): '-1' is not an activity from 0 to 3"},
        Malformed{"0,,,,,,,,,up\n",
                  "line 3, column 10 (gesture): 'up' is not a whole number of 32 bits"},
        Malformed{"0,,10,,,,,,,\n1,,,,,,,,,\n2,,9,,,,,,,\n",
                  "line 5, column 3 (total_steps): the counter goes down to 9"},
        Malformed{"0,,,,,2.50,,,,\n1,,,,,2.49,,,,\n",
                  "line 4, column 6 (distance_m): the counter goes down to 2.49"},
        Malformed{"0,60,,,,,,,\n", "line 3: the row has 9 cells instead of 10"},
        Malformed{"0,60,,,,,,,,,\n", "line 3: the row has 11 cells instead of 10"},
        Malformed{"# late\n", "line 3: the row has 1 cells instead of 10"},
        Malformed{"0,60,,,,,,,,\n\n1,60,,,,,,,,\n", "line 4: the line is empty"},
        Malformed{"", "there are no rows"}));

TEST(RecordingTest, ColumnNamesAreChecked)
{
    EXPECT_EQ(ErrorOf(""), "f.csv: there is no line of column names");
    EXPECT_EQ(ErrorOf("# only\n# comments\n"), "f.csv: there is no line of column names");
    EXPECT_EQ(
        ErrorOf("t_ms,pulse\n"),
        "f.csv: line 1, column 2: there is no column 'pulse'; the columns are t_ms,heart_rate,"
        "total_steps,walk_steps,run_steps,distance_m,calories_kcal,speed,activity,gesture");
    EXPECT_EQ(ErrorOf("#\nt_ms,speed,t_ms\n"),
              "f.csv: line 2, column 3: the column t_ms is there already");
    EXPECT_EQ(ErrorOf("t_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,calories_kcal,"
                      "speed,activity\n"),
              "f.csv: line 1: the column gesture is missing");
}

TEST(RecordingTest, SpeedMayGoDown)
{
    EXPECT_EQ(ErrorOf(Text("0,,,,,,,9,,\n1,,,,,,,2,,\n")), "no error");
}

TEST(RecordingTest, FileIsLoaded)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "run.csv", Text("0,60,,,,,,,,\n"));
    EXPECT_EQ(LoadRecording(directory / "run.csv").mRows.size(), 1U);
}

TEST(RecordingTest, MissingFileIsNamedWithTheReason)
{
    const TemporaryDirectory directory;
    try {
        LoadRecording(directory / "none.csv");
        FAIL() << "no error";
    } catch (const StartupError &failure) {
        EXPECT_EQ(failure.what(), "cannot read the recording " + (directory / "none.csv") +
                                      ": No such file or directory");
    }
}

} // namespace ParvanePlatform
