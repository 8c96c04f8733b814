#include "TextPrinter.h"

#include <cstdlib>
#include <ctime>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneHost {
namespace {

using testing::ElementsAre;

constexpr std::int64_t kNowMs =
    1400000000000LL; // 2014-05-13 16:53:20 UTC; its last word is 0xF680B000

constexpr Instant kNow{std::chrono::milliseconds{kNowMs}};

Reading ReadingOf(Sensor sensor, float value, std::uint32_t timeFieldMs = 0xF680B000U)
{
    return {.mCommand = Command::MeasureOnce,
            .mFlags = 1,
            .mSensor = sensor,
            .mTimeFieldMs = timeFieldMs,
            .mValue = value};
}

/** As it was told `age` ago. */
Told::NewReading NewReading(const Reading &reading, Worn worn = Worn::Unknown,
                            std::chrono::milliseconds age = {})
{
    return {.mReading = reading,
            .mObservation = {reading.mSensor, reading.mValue, kNow - age, worn, true}};
}

/** Puts the local time zone to UTC, and back. */
class TextPrinterTest : public testing::Test
{
public:
    ~TextPrinterTest() override
    {
        if (mHadZone) {
            ::setenv("TZ", mZone.c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }

protected:
    TextPrinterTest()
    {
        const char *zone = std::getenv("TZ");
        mHadZone = zone != nullptr;
        mZone = mHadZone ? zone : "";
        ::setenv("TZ", "UTC0", 1);
        ::tzset();
    }

    void ExpectMeasured(Sensor sensor, float value, const std::string &line) const
    {
        EXPECT_THAT(mPrinter.Measured(NewReading(ReadingOf(sensor, value)), kNow, false),
                    ElementsAre(line));
    }

    std::string PacketMeaning(const Reply &reply) const
    {
        return mPrinter.Packet({0x01}, reply, kNowMs).at(1);
    }

    TextPrinter mPrinter;
    bool mHadZone = false;
    std::string mZone;
};

TEST_F(TextPrinterTest, MeasurementsAreSentencesWithUnits)
{
    ExpectMeasured(Sensor::HeartRate, 72.0F, "heart rate: 72 bpm");
    ExpectMeasured(Sensor::HeartRate, 0.0F, "heart rate: no usable reading");
    ExpectMeasured(Sensor::WearState, 1.0F, "worn: yes");
    ExpectMeasured(Sensor::WearState, 0.0F, "worn: no");
    ExpectMeasured(Sensor::Pedometer, 12345.0F, "steps: total on the wire 12345");
    ExpectMeasured(Sensor::Activity, 0.0F, "activity: still or other");
    ExpectMeasured(Sensor::Activity, 1.0F, "activity: walking");
    ExpectMeasured(Sensor::Activity, 2.0F, "activity: running");
    ExpectMeasured(Sensor::Activity, 3.0F, "activity: wrist gesture");
}

TEST_F(TextPrinterTest, StepsSayHowSureTheyAre)
{
    auto told = NewReading(ReadingOf(Sensor::Pedometer, 99999.0F));
    StepsOfDay &day = told.mSteps.emplace();
    day = {LocalDate([](auto) { return std::chrono::seconds{0}; }, kNow), DaySteps{}};
    day.mSteps->mSince = kNow;
    day.mSteps->mUntil = kNow;
    day.mSteps->mSteps = 1284;
    EXPECT_THAT(mPrinter.Measured(told, kNow, false), ElementsAre("steps: at least 1,284 today"));
    EXPECT_THAT(mPrinter.Today(day), ElementsAre("2014-05-13: at least 1,284 steps, as of 16:53"));
    day.mSteps->mIsExact = true;
    EXPECT_THAT(mPrinter.Measured(told, kNow, true),
                ElementsAre("2014-05-13 16:53:20  steps: 1,284 since 16:53, exact"));
    day.mSteps->mFromMidnight = true;
    EXPECT_THAT(mPrinter.Measured(told, kNow, false), ElementsAre("steps: 1,284 today, exact"));
    day.mSteps->mSteps = 1;
    EXPECT_THAT(mPrinter.Today(day), ElementsAre("2014-05-13: 1 step, exact, as of 16:53"));
    day.mSteps.reset();
    EXPECT_THAT(mPrinter.Measured(told, kNow, false), ElementsAre("steps: not known yet"));
    EXPECT_THAT(mPrinter.Today(day), ElementsAre("2014-05-13: no steps known"));
}

TEST_F(TextPrinterTest, ValuesWithoutAMeaningAreShownAsTheyAre)
{
    ExpectMeasured(Sensor::Activity, 7.5F, "activity: unknown (7.5)");
    ExpectMeasured(Sensor{9}, 0.1F, "sensor 9: 0.1");
    ExpectMeasured(Sensor::Pedometer, -3.0F, "steps: total on the wire -3");
    ExpectMeasured(Sensor::Pedometer, 3.4028235e38F,
                   "steps: total on the wire 340282346638528859811704183484516925440");
}

TEST_F(TextPrinterTest, ReadingsSayHowOldTheyAreAndWhetherTheWatchIsWorn)
{
    using namespace std::chrono_literals;
    const auto text = [this](float value, Worn worn, std::chrono::milliseconds age) {
        const auto told = NewReading(ReadingOf(Sensor::HeartRate, value), worn, age);
        return mPrinter.Measured(told, kNow, false).at(0);
    };
    EXPECT_EQ(text(72, Worn::Yes, 4s), "heart rate: 72 bpm, 4 s ago, worn");
    EXPECT_EQ(text(72, Worn::Yes, 999ms), "heart rate: 72 bpm, worn");
    EXPECT_EQ(text(72, Worn::No, 61min), "heart rate: 72 bpm, 1 h ago, not worn");
    EXPECT_EQ(text(72, Worn::Unknown, 1s), "heart rate: 72 bpm, 1 s ago");
    EXPECT_EQ(text(0, Worn::No, 0s), "heart rate: no reading: the watch is not worn");
    EXPECT_EQ(text(0, Worn::Yes, 0s), "heart rate: no usable reading");
    const auto steps = NewReading(ReadingOf(Sensor::Pedometer, 7), Worn::Yes, 2min);
    EXPECT_THAT(mPrinter.Measured(steps, kNow, true),
                ElementsAre("2014-05-13 16:53:20  steps: total on the wire 7, 2 min ago"));
}

TEST_F(TextPrinterTest, WatchedReadingsBeginWithTheirLocalTime)
{
    EXPECT_THAT(mPrinter.Measured(NewReading(ReadingOf(Sensor::Activity, 1.0F)),
                                  kNow + std::chrono::milliseconds{20}, true),
                ElementsAre("2014-05-13 16:53:20  activity: walking"));
    EXPECT_THAT(mPrinter.Measured(NewReading(ReadingOf(Sensor::Activity, 1.0F, 0)), kNow, true),
                ElementsAre("time unknown  activity: walking"));
}

TEST_F(TextPrinterTest, TimesForProgramsAreIsoOrUnix)
{
    ::setenv("TZ", "XYZ-02:30", 1);
    ::tzset();
    const Reading reading = ReadingOf(Sensor::Activity, 1.0F, 0xF680B007U);
    EXPECT_THAT(TextPrinter(TimeStyle::Iso).Measured(NewReading(reading), kNow, true),
                ElementsAre("2014-05-13T19:23:20.007+02:30  activity: walking"));
    EXPECT_THAT(TextPrinter(TimeStyle::Unix).Measured(NewReading(reading), kNow, true),
                ElementsAre("1400000000.007  activity: walking"));
    EXPECT_THAT(TextPrinter(TimeStyle::Unix).Measured(NewReading(reading), kNow, false),
                ElementsAre("1400000000.007  activity: walking"));
    EXPECT_THAT(TextPrinter(TimeStyle::Unix).Packet({0x01}, Reply{reading}, kNowMs).at(1),
                testing::HasSubstr("1400000000.007"));
    EXPECT_THAT(TextPrinter(TimeStyle::Iso)
                    .Measured(NewReading(ReadingOf(Sensor::Activity, 1.0F, 0)), kNow, true),
                ElementsAre("-  activity: walking"));
}

TEST_F(TextPrinterTest, WhatAReadingDoesNotTellIsRemarkedOn)
{
    using testing::HasSubstr;
    EXPECT_THAT(mPrinter.Remark(ReadingOf(Sensor::Pedometer, 10.0F)),
                ElementsAre(HasSubstr("docs/wire-format.md#the-total-of-the-day")));
    EXPECT_THAT(mPrinter.Remark(ReadingOf(Sensor::HeartRate, 0.0F)),
                ElementsAre(HasSubstr("'parvane-watch status'")));
    EXPECT_THAT(mPrinter.Remark(ReadingOf(Sensor::WearState, 0.0F)),
                ElementsAre(HasSubstr("'parvane-watch status'")));
    EXPECT_THAT(mPrinter.Remark(ReadingOf(Sensor::HeartRate, 72.0F)), testing::IsEmpty());
    EXPECT_THAT(mPrinter.Remark(ReadingOf(Sensor::WearState, 1.0F)), testing::IsEmpty());
    EXPECT_THAT(mPrinter.Remark(ReadingOf(Sensor::Activity, 0.0F)), testing::IsEmpty());
}

TEST_F(TextPrinterTest, TheListIsATableWithAlignedColumns)
{
    SensorList list;
    list.mHeader.mAddress = {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x0F};
    list.mEntries = {
        {.mSensor = Sensor::Activity,
         .mAvailable = 1,
         .mMaxRange = 2,
         .mResolution = 1,
         .mMinDelayMs = 5000},
        {.mSensor = Sensor::Pedometer,
         .mAvailable = 0,
         .mMaxRange = 300000,
         .mResolution = 0.5F,
         .mMinDelayMs = 300000},
        {.mSensor = Sensor{77},
         .mAvailable = 1,
         .mMaxRange = 1,
         .mMinValue = -1,
         .mMinDelayMs = -1},
    };

    EXPECT_THAT(mPrinter.List(list),
                ElementsAre("Bluetooth address: AA:BB:CC:DD:EE:0F",
                            "SENSOR    ID  RANGE        RESOLUTION  MINIMUM DELAY  AVAILABLE",
                            "activity  1   0 to 2       1           5000 ms        yes",
                            "steps     2   0 to 300000  0.5         300000 ms      no",
                            "unknown   77  -1 to 1      0           -1 ms          yes"));
}

TEST_F(TextPrinterTest, AnUnknownAddressIsCalledSo)
{
    EXPECT_EQ(mPrinter.List(SensorList{}).front(), "Bluetooth address: unknown");
}

TEST_F(TextPrinterTest, AStopIsConfirmed)
{
    EXPECT_THAT(mPrinter.Stopped(Sensor::HeartRate), ElementsAre("hr: stopped"));
}

TEST_F(TextPrinterTest, AStopThatTheWatchOnlyAcknowledgesIsToldSo)
{
    EXPECT_THAT(mPrinter.Stopped(Sensor::Pedometer),
                ElementsAre("steps: the stop is acknowledged; the watch goes on pushing them"));
}

TEST_F(TextPrinterTest, PacketsAreHexAndTheirMeaning)
{
    EXPECT_THAT(
        mPrinter.Packet({0x14, 0x02, 0x00, 0x03}, Reply{StopAck{1, Sensor::HeartRate}}, kNowMs),
        ElementsAre("14 02 00 03", "  stop acknowledged: hr (3), flags 1"));
    EXPECT_EQ(PacketMeaning(OptionReply{2, Sensor::Activity}),
              "  option reply: activity (1), flags 2");
    EXPECT_EQ(PacketMeaning(ReadingOf(Sensor::HeartRate, 72)),
              "  reading, heart rate: 72 bpm, 2014-05-13 16:53:20, flags 1");
    EXPECT_EQ(
        PacketMeaning(SensorListHeader{.mFlags = 0, .mAddress = {1, 2, 3, 4, 5, 6}, .mCount = 4}),
        "  sensor list: 4 sensors, address 01:02:03:04:05:06, flags 0");
    EXPECT_EQ(
        PacketMeaning(SensorEntry{.mFlags = 0,
                                  .mPosition = 3,
                                  .mSensor = Sensor::HeartRate,
                                  .mAvailable = 1,
                                  .mMaxRange = 200,
                                  .mResolution = 1,
                                  .mMinDelayMs = 15000}),
        "  sensor 3: hr (3), range 0 to 200, resolution 1, minimum delay 15000 ms, available: yes, "
        "flags 0");
}

TEST_F(TextPrinterTest, PacketsWithoutAMeaningSayWhy)
{
    EXPECT_THAT(mPrinter.Packet({0x00}, DecodeError{1, "packet size", "4", "1"}, kNowMs),
                ElementsAre("00", "  not understood: packet size (offset 1): expected 4, found 1"));
}

} // namespace
} // namespace ParvaneHost
