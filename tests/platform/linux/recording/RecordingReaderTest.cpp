#include "RecordingReader.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StartupError.h"
#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Lt;
using testing::SizeIs;

constexpr char kNames[] = "t_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,"
                          "calories_kcal,speed,activity,gesture\n";

/** A recording of a comment, the names and `rows`; the first row is line 3. */
std::string Text(const std::string &rows)
{
    return std::string("# tz: +02:00\n") + kNames + rows;
}

/** A recording with the further columns as well; the first row is line 2. */
std::string FurtherText(const std::string &rows)
{
    const std::string names = kNames;
    return names.substr(0, names.size() - 1) + ",peak_to_peak,spo2,activity_accuracy,restart\n" +
           rows;
}

constexpr bool IsSanitized()
{
#if defined(__SANITIZE_ADDRESS__)
    return true;
#elif defined(__has_feature)
    return __has_feature(address_sanitizer);
#else
    return false;
#endif
}

/** Leaves the process `bytes` more of address space than it has now. */
void LimitMemoryTo(rlim_t bytes)
{
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t limit = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + bytes;
    const rlimit both = {limit, limit};
    setrlimit(RLIMIT_AS, &both);
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

bool HasReading(const RecordingRow &row, ContextItem item)
{
    return (row.mColumns & ColumnsOf(item)) != 0;
}

std::vector<double> PedometerOf(const RecordingRow &row)
{
    std::vector<double> fields;
    for (std::size_t field = 0; field < kPedometerFields; ++field) {
        fields.push_back(row.Pedometer(field));
    }
    return fields;
}

} // namespace

TEST(RecordingReaderTest, RowsAreReadWithWhatTheyHave)
{
    const Recording recording =
        ParseRecording("f.csv", Text("0,-3,0,,,0.00,,,1,\n1000,,7,2,5,8.25,1.5,12.74,,4\n"));
    ASSERT_EQ(recording.mRows.size(), 2U);

    const RecordingRow &first = recording.mRows[0];
    EXPECT_EQ(first.mTimeMs, 0);
    EXPECT_EQ(first.Value(kHeartRateColumn), -3);
    EXPECT_EQ(first.Value(kActivityColumn), 1);
    EXPECT_TRUE(first.Has(kHeartRateColumn) && HasReading(first, ContextItem::Pedometer) &&
                first.Has(kActivityColumn));
    EXPECT_FALSE(first.Has(kGestureColumn));
    EXPECT_EQ(first.mKnownPedometer, 0b001001);

    const RecordingRow &second = recording.mRows[1];
    EXPECT_EQ(second.mTimeMs, 1000);
    EXPECT_THAT(PedometerOf(second), ElementsAre(7.0, 2.0, 5.0, 8.25, 1.5, 12.74));
    EXPECT_EQ(second.Value(kGestureColumn), 4);
    EXPECT_TRUE(HasReading(second, ContextItem::Pedometer) && second.Has(kGestureColumn));
    EXPECT_FALSE(second.Has(kHeartRateColumn) || second.Has(kActivityColumn));
    EXPECT_EQ(second.mKnownPedometer, 0b111111);
}

TEST(RecordingReaderTest, EmptyCellKeepsTheLastValue)
{
    const Recording recording =
        ParseRecording("f.csv", Text("0,,5,,,1.5,,3.5,,\n1000,60,,,,,,,,\n2000,,9,,,,,,,\n"));
    EXPECT_FALSE(HasReading(recording.mRows[1], ContextItem::Pedometer));
    EXPECT_TRUE(HasReading(recording.mRows[2], ContextItem::Pedometer));
    EXPECT_THAT(PedometerOf(recording.mRows[2]), ElementsAre(9.0, 0.0, 0.0, 1.5, 0.0, 3.5));
    EXPECT_EQ(recording.mRows[2].mKnownPedometer, 0b101001);
}

TEST(RecordingReaderTest, OrderOfColumnsAndLineEndsAreFree)
{
    const Recording recording = ParseRecording(
        "f.csv", "#c\r\nspeed,gesture,activity,calories_kcal,distance_m,run_steps,walk_steps,"
                 "total_steps,heart_rate,t_ms\r\n1.5,,2,,,,,8,61,10\r\n,,,,,,,,62,20\r\n\r\n\n");
    ASSERT_EQ(recording.mRows.size(), 2U);
    EXPECT_EQ(recording.mRows[0].mTimeMs, 10);
    EXPECT_EQ(recording.mRows[0].Value(kHeartRateColumn), 61);
    EXPECT_EQ(recording.mRows[0].Value(kActivityColumn), 2);
    EXPECT_THAT(PedometerOf(recording.mRows[1]), ElementsAre(8.0, 0.0, 0.0, 0.0, 0.0, 1.5));
}

TEST(RecordingReaderTest, RoundEndsOneMedianDistanceAfterTheLastRow)
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

    // Without it the bytes are printed, and those of a short text are not all initialised.
    friend void PrintTo(const Malformed &malformed, std::ostream *stream)
    {
        *stream << testing::PrintToString(malformed.mRows);
    }
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

TEST(RecordingReaderTest, ColumnNamesAreChecked)
{
    EXPECT_EQ(ErrorOf(""), "f.csv: there is no line of column names");
    EXPECT_EQ(ErrorOf("# only\n# comments\n"), "f.csv: there is no line of column names");
    EXPECT_EQ(
        ErrorOf("t_ms,pulse\n"),
        "f.csv: line 1, column 2: there is no column 'pulse'; the columns are t_ms,heart_rate,"
        "total_steps,walk_steps,run_steps,distance_m,calories_kcal,speed,activity,gesture and, where "
        "they are needed, peak_to_peak,spo2,activity_accuracy,restart");
    EXPECT_EQ(ErrorOf("#\nt_ms,speed,t_ms\n"),
              "f.csv: line 2, column 3: the column t_ms is there already");
    EXPECT_EQ(ErrorOf("t_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,calories_kcal,"
                      "speed,activity\n"),
              "f.csv: line 1: the column gesture is missing");
}

TEST(RecordingReaderTest, SpeedMayGoDown)
{
    EXPECT_EQ(ErrorOf(Text("0,,,,,,,9,,\n1,,,,,,,2,,\n")), "no error");
}

TEST(RecordingReaderTest, FileIsLoaded)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "run.csv", Text("0,60,,,,,,,,\n"));
    EXPECT_EQ(LoadRecordings({directory / "run.csv"}).mRows.size(), 1U);
}

TEST(RecordingReaderTest, FurtherColumnsAreReadWhereTheyAre)
{
    const Recording recording = ParseRecording("f.csv", FurtherText("0,60,,,,,,,1,,812.5,98,2,\n"
                                                                    "1,,,,,,,,,,-3,,,\n"
                                                                    "2,,,,,,,,,,,97.25,,\n"
                                                                    "3,,,,,,,,,,,,-1,\n"));
    const RecordingRow &whole = recording.mRows[0];
    EXPECT_TRUE(whole.Has(kPeakToPeakColumn) && whole.Has(kSpo2Column) &&
                whole.Has(kActivityAccuracyColumn));
    EXPECT_EQ(whole.Value(kPeakToPeakColumn), 812.5);
    EXPECT_EQ(whole.Value(kSpo2Column), 98.0);
    EXPECT_EQ(whole.Value(kActivityAccuracyColumn), 2);
    EXPECT_EQ(recording.mRows[1].Value(kPeakToPeakColumn), -3.0);
    EXPECT_EQ(recording.mRows[2].Value(kSpo2Column), 97.25);
    EXPECT_EQ(recording.mRows[3].Value(kActivityAccuracyColumn), -1);
}

TEST(RecordingReaderTest, AnyValueOfAnItemMakesARowItsReading)
{
    const Recording recording =
        ParseRecording("f.csv", FurtherText("0,,,,,,,,,,800,,,\n0,,,,,,,,,,,98,,\n"
                                            "0,,,,,,,,,,,,1,\n0,,,,,,,3,,,,,,\n0,,,,,,,,,,,,,1\n"));
    for (const std::size_t row : {0U, 1U}) {
        EXPECT_TRUE(HasReading(recording.mRows[row], ContextItem::HeartRate));
        EXPECT_FALSE(recording.mRows[row].Has(kHeartRateColumn));
    }
    EXPECT_TRUE(HasReading(recording.mRows[2], ContextItem::Activity));
    EXPECT_TRUE(HasReading(recording.mRows[3], ContextItem::Pedometer));
    for (const ContextItem item : {ContextItem::Gesture, ContextItem::Pedometer,
                                   ContextItem::HeartRate, ContextItem::Activity}) {
        EXPECT_FALSE(HasReading(recording.mRows[4], item));
    }
}

TEST(RecordingReaderTest, RestartForgetsWhatThePedometerHadTold)
{
    const Recording recording = ParseRecording(
        "f.csv", FurtherText("0,,90,,,50,,3,,,,,,\n1,,5,,,,,,,,,,,1\n2,,6,,,0.5,,,,,,,,\n"));
    EXPECT_FALSE(recording.mRows[0].mIsRestarted);
    EXPECT_TRUE(recording.mRows[1].mIsRestarted);
    EXPECT_THAT(PedometerOf(recording.mRows[1]), ElementsAre(5.0, 0.0, 0.0, 0.0, 0.0, 0.0));
    EXPECT_EQ(recording.mRows[1].mKnownPedometer, 0b000001);
    EXPECT_TRUE(recording.mRows[2].mIsRestarted);
    EXPECT_EQ(recording.mRows[2].mKnownPedometer, 0b001001);
}

TEST(RecordingReaderTest, ForgettingKeepsTheCountersGoingOn)
{
    const Recording recording = ParseRecording(
        "f.csv", FurtherText("0,,90,,,50,,3,,,,,,\n1,,95,,,,,,,,,,,2\n2,,96,,,50.5,,,,,,,,\n"));
    EXPECT_FALSE(recording.mRows[2].mIsRestarted);
    EXPECT_EQ(recording.mRows[1].mKnownPedometer, 0b000001);
    EXPECT_EQ(recording.mRows[2].mKnownPedometer, 0b001001);
    EXPECT_EQ(ErrorOf(FurtherText("0,,90,,,50,,3,,,,,,\n1,,80,,,,,,,,,,,2\n")),
              "f.csv: line 3, column 3 (total_steps): the counter goes down to 80");
    EXPECT_EQ(ErrorOf(FurtherText("0,,90,,,50,,3,,,,,,\n1,,91,,,,,,,,,,,2\n2,,,,,49,,,,,,,,\n")),
              "f.csv: line 4, column 6 (distance_m): the counter goes down to 49");
}

TEST(RecordingReaderTest, RestartCountsWhereverItsColumnIs)
{
    const std::string names = "restart,t_ms,gesture,activity,speed,calories_kcal,distance_m,"
                              "run_steps,walk_steps,total_steps,heart_rate\n";
    EXPECT_EQ(ErrorOf(names + ",0,,,,,,,,90,\n1,1,,,,,,,,5,\n"), "no error");
    EXPECT_EQ(ErrorOf(FurtherText("0,,90,,,,,,,,,,,\n1,,5,,,,,,,,,,,1\n")), "no error");
    EXPECT_EQ(ErrorOf(FurtherText("0,,90,,,,,,,,,,,\n1,,5,,,,,,,,,,,\n")),
              "f.csv: line 3, column 3 (total_steps): the counter goes down to 5");
}

TEST(RecordingReaderTest, FurtherColumnsAreCheckedToo)
{
    EXPECT_EQ(ErrorOf(FurtherText("0,,,,,,,,,,fast,,,\n")),
              "f.csv: line 2, column 11 (peak_to_peak): 'fast' is not a decimal number from "
              "-2147483648 to 2147483647");
    EXPECT_EQ(ErrorOf(FurtherText("0,,,,,,,,,,,2147483648,,\n")),
              "f.csv: line 2, column 12 (spo2): '2147483648' is not a decimal number from "
              "-2147483648 to 2147483647");
    EXPECT_EQ(
        ErrorOf(FurtherText("0,,,,,,,,,,,,0.5,\n")),
        "f.csv: line 2, column 13 (activity_accuracy): '0.5' is not a whole number of 32 bits");
    EXPECT_EQ(ErrorOf(FurtherText("0,,,,,,,,,,,,,0\n")),
              "f.csv: line 2, column 14 (restart): '0' is not 1 or 2");
    EXPECT_EQ(ErrorOf(FurtherText("0,,,,,,,,,\n")),
              "f.csv: line 2: the row has 10 cells instead of 14");
}

TEST(RecordingReaderTest, ForeignTextIsQuotedInOneShortPrintableLine)
{
    EXPECT_EQ(ErrorOf(Text(std::string("0,6\0\x1b[31m\xE4\x80,,,,,,,,\n", 20))),
              "f.csv: line 3, column 2 (heart_rate): '6\\x00\\x1B[31m\\xE4\\x80' is not a whole "
              "number of 32 bits");
    const std::string longText(1000000, '0');
    for (const std::string &text :
         {Text("0," + longText + "x,,,,,,,,\n"), "t_ms," + longText + "\n",
          Text("0,,9,,,,,,,\n1,," + longText + "1,,,,,,,\n")}) {
        EXPECT_THAT(ErrorOf(text), testing::AllOf(HasSubstr("000..."), SizeIs(Lt(500U))));
    }
}

/** Several files in turn. */
class RecordingsTest : public testing::Test
{
protected:
    /** Writes a file of `text`; its path. */
    std::string Write(const std::string &text)
    {
        mPaths.push_back(mDirectory / (std::to_string(mPaths.size()) + ".csv"));
        WriteFile(mPaths.back(), text);
        return mPaths.back();
    }

    std::string Error() const
    {
        try {
            LoadRecordings(mPaths);
        } catch (const StartupError &failure) {
            return failure.what();
        }
        return "no error";
    }

    TemporaryDirectory mDirectory;
    std::vector<std::string> mPaths;
};

TEST_F(RecordingsTest, EachBeginsWhereTheRoundBeforeWouldHaveEnded)
{
    Write(Text("0,60,,,,,,,,\n1000,61,,,,,,,,\n2000,62,,,,,,,,\n")); // a round of 3000 ms
    Write(Text("100,70,,,,,,,,\n"));                                 // a round of 1100 ms
    Write(Text("0,80,,,,,,,,\n50,81,,,,,,,,\n"));                    // a round of 100 ms
    const Recording recording = LoadRecordings(mPaths);

    std::vector<std::int64_t> times;
    for (const RecordingRow &row : recording.mRows) {
        times.push_back(row.mTimeMs);
    }
    EXPECT_THAT(times, ElementsAre(0, 1000, 2000, 3100, 4100, 4150));
    EXPECT_EQ(recording.mLoopMs, 4200);
}

TEST_F(RecordingsTest, PedometerGoesOnOverTheSeams)
{
    Write(Text("0,,5,,,1.5,,3,,\n1000,,9,,,2.5,,,,\n"));
    Write(Text("0,,0,,,,4,,,\n1000,,6,,,,,2,,\n"));
    Write(Text("0,,1,,,0.25,,,,\n1000,,4,,,1,,,,\n"));
    const Recording recording = LoadRecordings(mPaths);
    EXPECT_THAT(PedometerOf(recording.mRows[2]), ElementsAre(9.0, 0.0, 0.0, 2.5, 4.0, 3.0));
    EXPECT_EQ(recording.mRows[2].mKnownPedometer, 0b111001);
    EXPECT_THAT(PedometerOf(recording.mRows[3]), ElementsAre(15.0, 0.0, 0.0, 2.5, 4.0, 2.0));
    EXPECT_THAT(PedometerOf(recording.mRows[4]), ElementsAre(15.0, 0.0, 0.0, 2.5, 4.0, 2.0));
    EXPECT_THAT(PedometerOf(recording.mRows[5]), ElementsAre(18.0, 0.0, 0.0, 3.25, 4.0, 2.0));
    EXPECT_EQ(recording.mRows[4].mKnownPedometer, 0b111001);
}

TEST_F(RecordingsTest, AfterARestartTheNextFileGoesOnFromTheNewCounts)
{
    Write(FurtherText("0,,500,,,7,,,,,,,,\n1,,20,,,,,,,,,,,1\n"));
    Write(Text("0,,3,,,,,,,\n1000,,7,,,1.5,,,,\n"));
    const Recording recording = LoadRecordings(mPaths);
    EXPECT_EQ(recording.mRows[2].Pedometer(kTotalSteps), 20.0);
    EXPECT_EQ(recording.mRows[2].mKnownPedometer, 0b000001);
    EXPECT_THAT(PedometerOf(recording.mRows[3]), ElementsAre(24.0, 0.0, 0.0, 1.5, 0.0, 0.0));
}

TEST_F(RecordingsTest, RestartInALaterFileTakesNothingFromTheOneBefore)
{
    Write(Text("0,,500,,,7,,,,\n"));
    Write(FurtherText("0,,3,,,,,,,,,,,\n1,,4,,,,,,,,,,,1\n"));
    const Recording recording = LoadRecordings(mPaths);
    EXPECT_THAT(PedometerOf(recording.mRows[1]), ElementsAre(500.0, 0.0, 0.0, 7.0, 0.0, 0.0));
    EXPECT_THAT(PedometerOf(recording.mRows[2]), ElementsAre(4.0, 0.0, 0.0, 0.0, 0.0, 0.0));
    EXPECT_EQ(recording.mRows[2].mKnownPedometer, 0b000001);
}

TEST_F(RecordingsTest, SameFileMayBePlayedAgain)
{
    Write(Text("0,,5000,,,,,,,\n1000,,5010,,,,,,,\n"));
    mPaths.push_back(mPaths.front());
    const Recording recording = LoadRecordings(mPaths);
    EXPECT_EQ(recording.mRows[2].Pedometer(kTotalSteps), 5010.0);
    EXPECT_EQ(recording.mRows[3].Pedometer(kTotalSteps), 5020.0);
}

TEST_F(RecordingsTest, CountersStopAtTheMostThatTheirColumnsAllow)
{
    Write(Text("0,,0,,,0,0,,,\n1000,,2147483640,,,999999999,999999998.5,,,\n"));
    Write(Text("0,,1,,,0,0,,,\n1000,,100,,,0.5,50,,,\n"));
    const Recording recording = LoadRecordings(mPaths);
    EXPECT_THAT(PedometerOf(recording.mRows[3]),
                ElementsAre(2147483647.0, 0.0, 0.0, 999999999.5, 1e9, 0.0));
}

TEST_F(RecordingsTest, WhatAFileHasForgottenTheNextOneTellsAgainOnlyWithAValue)
{
    Write(FurtherText("0,,5,,,2.5,,3,,,,,,\n1000,,6,,,,,,,,,,,2\n"));
    Write(Text("0,,1,,,,,,,\n1000,,2,,,0.5,,,,\n2000,,2,,,1.5,,,,\n"));
    const Recording recording = LoadRecordings(mPaths);
    EXPECT_EQ(recording.mRows[2].mKnownPedometer, 0b000001);
    EXPECT_EQ(recording.mRows[3].mKnownPedometer, 0b001001);
    EXPECT_THAT(PedometerOf(recording.mRows[3]), ElementsAre(7.0, 0.0, 0.0, 2.5, 0.0, 3.0));
    EXPECT_EQ(recording.mRows[4].Pedometer(kDistanceM), 3.5);
}

TEST_F(RecordingsTest, AFileThatForgetsDoesNotTellWhatTheOneBeforeKnew)
{
    Write(Text("0,,5,,,2.5,,3,,\n"));
    Write(FurtherText("0,,1,,,,,,,,,,,\n1000,,2,,,,,,,,,,,2\n"));
    const Recording recording = LoadRecordings(mPaths);
    EXPECT_EQ(recording.mRows[1].mKnownPedometer, 0b101001);
    EXPECT_EQ(recording.mRows[2].mKnownPedometer, 0b000001);
    EXPECT_EQ(recording.mRows[2].Pedometer(kTotalSteps), 6.0);
}

TEST_F(RecordingsTest, FileWithAMistakeIsNamed)
{
    Write(Text("0,60,,,,,,,,\n"));
    const std::string path = Write(Text("0,x,,,,,,,,\n"));
    EXPECT_EQ(Error(),
              path + ": line 3, column 2 (heart_rate): 'x' is not a whole number of 32 bits");
}

TEST_F(RecordingsTest, MissingFileIsNamed)
{
    Write(Text("0,60,,,,,,,,\n"));
    mPaths.push_back(mDirectory / "none.csv");
    EXPECT_EQ(Error(),
              "cannot read the recording " + mPaths.back() + ": No such file or directory");
}

TEST_F(RecordingsTest, AFifoInTheirPlaceIsNamedAndHoldsNobodyUp)
{
    mPaths.push_back(mDirectory / "fifo.csv");
    ASSERT_EQ(mkfifo(mPaths.back().c_str(), 0600), 0);
    EXPECT_EQ(Error(), "cannot read the recording " + mPaths.back() + ": it is not a regular file");
}

TEST_F(RecordingsTest, NamesArePrintable)
{
    mPaths.emplace_back("/no\nW such \x1b[31mfile");
    EXPECT_EQ(Error(), "cannot read the recording /no\\x0AW such \\x1B[31mfile: No such file or "
                       "directory");
    mPaths = {mDirectory / "a\nb.csv"};
    WriteFile(mPaths.back(), Text(""));
    EXPECT_EQ(Error(), (mDirectory / "a\\x0Ab.csv") + ": there are no rows");
}

TEST_F(RecordingsTest, TooLittleMemoryIsToldWithThePath)
{
    if (IsSanitized()) {
        GTEST_SKIP() << "a sanitizer does not live with a limit of the memory";
    }
    if (sizeof(void *) == 4) {
        GTEST_SKIP() << "the limit would be that of the emulator that a 32-bit program runs in";
    }
    std::string rows;
    for (int i = 0; i < 300000; ++i) {
        rows += "0,1,,,,,,,,\n";
    }
    const std::string path = Write(Text(rows));
    const auto loadWithoutMemory = [this] {
        LimitMemoryTo(12 << 20);
        const std::string error = Error();
        std::fputs(error.c_str(), stderr);
        std::_Exit(0);
    };
    EXPECT_EXIT(loadWithoutMemory(), testing::ExitedWithCode(0),
                "^cannot read the recording " + path + ": there is not enough memory for it$");
}

TEST_F(RecordingsTest, TheyMayNotLastLongerThanOneMay)
{
    Write(Text("999999998999,60,,,,,,,,\n")); // the next begins at 999999999999 ms
    Write(Text("1,60,,,,,,,,\n"));
    EXPECT_EQ(Error(), "no error");

    const std::string path = Write(Text("0,60,,,,,,,,\n"));
    EXPECT_EQ(Error(), path +
                           ": it begins at 1000000001000 ms of the recordings that are played in "
                           "turn, which would end after 1000000000000 ms");
}

TEST_F(RecordingsTest, TheyMayNotBeLargerThanOneMay)
{
    Write(Text("0,60,,,,,,,,\n"));
    const std::string path = Write("");
    std::filesystem::resize_file(path, std::uintmax_t{256} * 1024 * 1024);
    EXPECT_EQ(Error(), "cannot read the recording " + path +
                           ": the recordings have more than 256 MiB together");
}

TEST_F(RecordingsTest, AFileThatIsTooLargeIsRefusedWithoutBeingRead)
{
    const std::string path = Write("");
    std::filesystem::resize_file(path, std::uintmax_t{300} * 1000 * 1000);
    const auto readBytes = [] {
        std::ifstream io("/proc/self/io");
        std::string name;
        long bytes = -1;
        io >> name >> bytes;
        return name == "rchar:" ? bytes : -1;
    };
    const long before = readBytes();
    EXPECT_EQ(Error(), "cannot read the recording " + path + ": it is longer than 256 MiB");
    EXPECT_LT(readBytes() - before, 1000000);
}

TEST_F(RecordingsTest, AByteOrderMarkIsNoPartOfTheText)
{
    Write("\xEF\xBB\xBF" + Text("0,60,,,,,,,,\n"));
    EXPECT_THAT(LoadRecordings(mPaths).mRows, SizeIs(1));
    const std::string path = Write(std::string("\xEF\xBB\xBF") + kNames + "0,6x,,,,,,,,\n");
    EXPECT_THAT(Error(), HasSubstr(path + ": line 2, column 2 (heart_rate): '6x'"));
    WriteFile(path, "\xEF\xBB\xBF\xEF\xBB\xBF" + Text("0,60,,,,,,,,\n"));
    EXPECT_THAT(Error(), HasSubstr(": line 1, column 1: there is no column '\\xEF\\xBB\\xBF# tz"));
}

TEST_F(RecordingsTest, ThereMustBeOne)
{
    EXPECT_EQ(Error(), "there is no recording to replay");
}

TEST(RecordingReaderTest, MissingFileIsNamedWithTheReason)
{
    const TemporaryDirectory directory;
    try {
        LoadRecordings({directory / "none.csv"});
        FAIL() << "no error";
    } catch (const StartupError &failure) {
        EXPECT_EQ(failure.what(), "cannot read the recording " + (directory / "none.csv") +
                                      ": No such file or directory");
    }
}

} // namespace ParvanePlatform
