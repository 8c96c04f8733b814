#include <bit>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ExportText.h"
#include "ReadingLog.h"
#include "Tcx.h"

namespace ParvaneHost {
namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// 2026-01-31 12:34:56 UTC.
constexpr seconds kBegin{1769862896};

seconds OneHourAhead(std::chrono::sys_seconds /*instant*/)
{
    return std::chrono::hours(1);
}

Instant At(milliseconds since)
{
    return Instant(kBegin + since);
}

/** A reading as the watch sends it. */
CapturedMessage Pushed(milliseconds since, Sensor sensor, float value)
{
    Bytes bytes{0x12, 0x00, 0x0E, static_cast<std::uint8_t>(sensor), 0x11, 0, 0, 0, 0};
    const auto time = static_cast<std::uint32_t>(At(since).time_since_epoch().count());
    for (const std::uint32_t word : {time, std::bit_cast<std::uint32_t>(value)}) {
        for (const unsigned shift : {24U, 16U, 8U, 0U}) {
            bytes.push_back(static_cast<std::uint8_t>(word >> shift));
        }
    }
    bytes.push_back(0);
    return {At(since), Parvane::Sender::Watch, bytes, {}};
}

LogEntry Entry(milliseconds since, Sensor sensor, float value)
{
    return {At(since), sensor, value};
}

LogEntry Steps(milliseconds since, std::int64_t steps, bool isExact = true)
{
    return {At(since), Sensor::Pedometer, 0, steps, isExact, steps};
}

TEST(ReadingLogTest, StepsAreThoseWalkedAndOthersAreAsTheyCame)
{
    ReadingLog log(OneHourAhead);
    CapturedMessage asked = Pushed(seconds(1), Sensor::HeartRate, 99);
    asked.mSender = Parvane::Sender::Phone; // whose packets are no readings
    log.Add({Pushed(seconds(0), Sensor::Pedometer, 1000),
             Pushed(seconds(1), Sensor::Pedometer, 1000), asked,
             Pushed(seconds(2), Sensor::HeartRate, 72), Pushed(seconds(3), Sensor::Pedometer, 1010),
             Pushed(seconds(4), Sensor::Pedometer, 1035), Pushed(seconds(5), Sensor{9}, 1)});

    std::vector<std::int64_t> steps;
    for (const LogEntry &entry : log.Entries()) {
        steps.push_back(entry.mSensor == Sensor::Pedometer ? entry.mStepsInAll : -1);
    }
    EXPECT_THAT(steps, ElementsAre(0, 0, -1, 10, 25));
    EXPECT_EQ(log.Entries()[2], Entry(seconds(2), Sensor::HeartRate, 72));
    EXPECT_TRUE(log.Entries().back().mIsExact);
}

TEST(ReadingLogTest, NothingIsCountedAcrossALinkOrAGapOfTheCapture)
{
    // The totals 150, 300: the difference were 150 steps if nothing had been missed between them.
    const auto stepsWith = [](const std::string &comment) {
        ReadingLog log(OneHourAhead);
        std::vector<CapturedMessage> capture{
            Pushed(seconds(0), Sensor::Pedometer, 100), Pushed(seconds(1), Sensor::Pedometer, 120),
            Pushed(seconds(2), Sensor::Pedometer, 150), Pushed(seconds(3), Sensor::Pedometer, 300)};
        if (!comment.empty()) {
            capture.back().mComments.push_back(comment);
        }
        log.Add(capture);
        return log.Entries().back();
    };
    EXPECT_EQ(stepsWith("").mSteps, 130); // counts of 20, 30, 150
    for (const char *comment :
         {"link begins", "link begins, run 7:12", "packets are missing here"}) {
        const LogEntry entry = stepsWith(comment);
        EXPECT_EQ(entry.mSteps, 10) << comment;
        EXPECT_FALSE(entry.mIsExact) << comment;
    }
    EXPECT_EQ(stepsWith("my remark").mSteps, 130);
}

TEST(ReadingLogTest, APacketThatIsNoneMayHaveBeenSteps)
{
    CapturedMessage broken = Pushed(seconds(2), Sensor::Pedometer, 100);
    broken.mBytes.pop_back();
    ReadingLog log(OneHourAhead);
    log.Add({Pushed(seconds(0), Sensor::Pedometer, 100), Pushed(seconds(1), Sensor::Pedometer, 120),
             broken, Pushed(seconds(3), Sensor::Pedometer, 300)});

    EXPECT_EQ(log.Entries().back().mSteps, 0);
    EXPECT_FALSE(log.Entries().back().mIsExact);
}

const std::vector<LogEntry> kSome{Entry(milliseconds(0), Sensor::Activity, 1),
                                  Entry(milliseconds(1500), Sensor::HeartRate, 72),
                                  Entry(milliseconds(2000), Sensor::HeartRate, 0),
                                  Entry(milliseconds(2500), Sensor::WearState, 0),
                                  Steps(milliseconds(3004), 1284),
                                  Entry(milliseconds(4000), Sensor::WearState, 1)};

TEST(ExportTextTest, ATableHasALineForEachReadingThatSaysSomething)
{
    EXPECT_EQ(CsvText(kSome, OneHourAhead),
              "utc,local,heart_rate_bpm,steps,steps_exact,activity,worn\n"
              "2026-01-31T12:34:56.000Z,2026-01-31T13:34:56.000+01:00,,,,walking,\n"
              "2026-01-31T12:34:57.500Z,2026-01-31T13:34:57.500+01:00,72,,,,\n"
              "2026-01-31T12:34:58.500Z,2026-01-31T13:34:58.500+01:00,,,,,no\n"
              "2026-01-31T12:34:59.004Z,2026-01-31T13:34:59.004+01:00,,1284,yes,,\n"
              "2026-01-31T12:35:00.000Z,2026-01-31T13:35:00.000+01:00,,,,,yes\n");
}

TEST(ExportTextTest, EachReadingIsAnObject)
{
    const auto behindWest = [](std::chrono::sys_seconds) { return -minutes(210); };
    EXPECT_EQ(
        JsonLinesText(kSome, behindWest),
        R"({"utc":"2026-01-31T12:34:56.000Z","local":"2026-01-31T09:04:56.000-03:30","sensor":"activity","activity":"walking"})"
        "\n"
        R"({"utc":"2026-01-31T12:34:57.500Z","local":"2026-01-31T09:04:57.500-03:30","sensor":"hr","bpm":72})"
        "\n"
        R"({"utc":"2026-01-31T12:34:58.000Z","local":"2026-01-31T09:04:58.000-03:30","sensor":"hr","bpm":null})"
        "\n"
        R"({"utc":"2026-01-31T12:34:58.500Z","local":"2026-01-31T09:04:58.500-03:30","sensor":"wear","worn":false})"
        "\n"
        R"({"utc":"2026-01-31T12:34:59.004Z","local":"2026-01-31T09:04:59.004-03:30","sensor":"steps","steps":1284,"exact":true})"
        "\n"
        R"({"utc":"2026-01-31T12:35:00.000Z","local":"2026-01-31T09:05:00.000-03:30","sensor":"wear","worn":true})"
        "\n");
}

TEST(ExportTextTest, ARecordingHasWhatTheServiceCanReplay)
{
    EXPECT_EQ(RecordingText(kSome, OneHourAhead),
              "# recording: what a phone was told of a day\n"
              "# start_epoch_s: 1769862896\n"
              "# tz: +01:00\n"
              "t_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,calories_kcal,speed,"
              "activity,gesture\n"
              "0,,,,,,,,2,\n"
              "1500,72,,,,,,,,\n"
              "2500,-3,,,,,,,,\n"
              "3004,,1284,,,,,,,\n");
    EXPECT_EQ(RecordingText({Entry(seconds(0), Sensor::HeartRate, 0)}, OneHourAhead), "");
}

TEST(TcxTest, ATrainingIsWalkingAndRunningWithItsShortRests)
{
    const float still = 0;
    const float walking = 1;
    const float running = 2;
    std::vector<LogEntry> log;
    const auto add = [&log](minutes since, float activity) {
        log.push_back(Entry(since, Sensor::Activity, activity));
    };
    add(minutes(0), still);
    add(minutes(5), walking);
    add(minutes(9), walking); // and on
    add(minutes(15), running);
    add(minutes(20), still);
    add(minutes(24), running);
    add(minutes(30), still); // for too long
    for (int i = 31; i < 45; ++i) {
        log.push_back(Entry(minutes(i), Sensor::HeartRate, 60));
    }
    add(minutes(45), walking);
    log.push_back(Entry(minutes(50), Sensor::HeartRate, 90));
    add(minutes(70), walking); // nothing was heard before for too long
    log.push_back(Entry(minutes(75), Sensor::HeartRate, 90));

    EXPECT_THAT(FindTrainings(log),
                ElementsAre(Training{{Activity::Walking, At(minutes(5)), At(minutes(15))},
                                     {Activity::Running, At(minutes(15)), At(minutes(20))},
                                     {Activity::StillOrOther, At(minutes(20)), At(minutes(24))},
                                     {Activity::Running, At(minutes(24)), At(minutes(30))}},
                            Training{{Activity::Walking, At(minutes(45)), At(minutes(50))}},
                            Training{{Activity::Walking, At(minutes(70)), At(minutes(75))}}));
}

TEST(TcxTest, ALogWithoutActivitiesIsOneTrainingAndOneWithoutMovementNone)
{
    EXPECT_THAT(FindTrainings({Entry(minutes(0), Sensor::HeartRate, 60),
                               Entry(minutes(60), Sensor::HeartRate, 60)}),
                ElementsAre(Training{{Activity::Walking, At(minutes(0)), At(minutes(60))}}));
    EXPECT_THAT(FindTrainings({Entry(minutes(0), Sensor::Activity, 0),
                               Entry(minutes(60), Sensor::HeartRate, 60)}),
                IsEmpty());
    EXPECT_THAT(FindTrainings({}), IsEmpty());
}

TEST(TcxTest, ALapHasItsStepsAndTheHeartRatesThatADocumentCanHold)
{
    const std::string text = TcxText(
        {Entry(seconds(0), Sensor::Activity, 2), Steps(seconds(1), 100),
         Entry(seconds(10), Sensor::HeartRate, 150), Entry(seconds(11), Sensor::HeartRate, 0),
         Entry(seconds(12), Sensor::HeartRate, 300), Entry(seconds(20), Sensor::HeartRate, 161),
         Steps(milliseconds(30500), 180)});

    EXPECT_THAT(text, HasSubstr("<Activity Sport=\"Running\">"));
    EXPECT_THAT(text, HasSubstr("<Id>2026-01-31T12:34:56.000Z</Id>"));
    EXPECT_THAT(text, HasSubstr("<TotalTimeSeconds>30.500</TotalTimeSeconds>"));
    EXPECT_THAT(text, HasSubstr("<AverageHeartRateBpm><Value>156</Value>"));
    EXPECT_THAT(text, HasSubstr("<MaximumHeartRateBpm><Value>161</Value>"));
    EXPECT_THAT(text, HasSubstr("<Time>2026-01-31T12:35:06.000Z</Time>"
                                "<HeartRateBpm><Value>150</Value></HeartRateBpm>"));
    EXPECT_THAT(text, Not(HasSubstr("300")));
    EXPECT_THAT(text, HasSubstr("<Steps>180</Steps>"));
}

} // namespace
} // namespace ParvaneHost
