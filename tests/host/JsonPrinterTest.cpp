#include "JsonPrinter.h"

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneHost {
namespace {

using nlohmann::json;
using testing::ElementsAre;

constexpr std::int64_t kNowMs = 1400000000000LL; // its last word is 0xF680B000

constexpr Instant kNow{std::chrono::milliseconds{kNowMs}};

Lines Measured(Sensor sensor, float value)
{
    const Reading reading{.mCommand = Command::MeasureOnce,
                          .mFlags = 1,
                          .mSensor = sensor,
                          .mTimeFieldMs = 0xF680B000U,
                          .mValue = value};
    return JsonPrinter().Measured(
        {.mReading = reading, .mObservation = {sensor, value, kNow, Worn::Yes, true}},
        kNow + std::chrono::milliseconds{700}, false);
}

TEST(JsonPrinterTest, ReadingsHaveOneLineWithTheirKeysInOrder)
{
    EXPECT_THAT(
        Measured(Sensor::HeartRate, 72.0F),
        ElementsAre(
            R"({"type":"reading","sensor":"hr","id":3,"command":"measure","value":72,)"
            R"("unit":"bpm","usable":true,"time_ms":1400000000000,"age_ms":700,"worn":true,)"
            R"("unbroken":true})"));
    EXPECT_THAT(
        Measured(Sensor::HeartRate, 0.0F),
        ElementsAre(
            R"({"type":"reading","sensor":"hr","id":3,"command":"measure","value":0,)"
            R"("unit":"bpm","usable":false,"time_ms":1400000000000,"age_ms":700,"worn":true,)"
            R"("unbroken":true})"));
    EXPECT_THAT(
        Measured(Sensor::WearState, 1.0F),
        ElementsAre(
            R"({"type":"reading","sensor":"wear","id":4,"command":"measure","value":1,)"
            R"("unit":"worn","worn":true,"time_ms":1400000000000,"usable":true,"age_ms":700,)"
            R"("unbroken":true})"));
    EXPECT_THAT(Measured(Sensor::Pedometer, 12345.0F),
                ElementsAre(R"({"type":"reading","sensor":"steps","id":2,"command":"measure",)"
                            R"("value":12345,"unit":"steps","time_ms":1400000000000,"usable":true,)"
                            R"("age_ms":700,"worn":true,"unbroken":true})"));
}

TEST(JsonPrinterTest, NothingIsRemarkedOn)
{
    EXPECT_TRUE(JsonPrinter().Remark({.mSensor = Sensor::HeartRate}).empty());
}

TEST(JsonPrinterTest, ActivitiesAreNamedWhereTheyHaveAName)
{
    const auto walking = json::parse(Measured(Sensor::Activity, 1.0F).at(0));
    EXPECT_EQ(walking.at("activity"), "walking");
    EXPECT_EQ(walking.at("unit"), "activity");

    EXPECT_TRUE(json::parse(Measured(Sensor::Activity, 9.0F).at(0)).at("activity").is_null());
}

TEST(JsonPrinterTest, AnUnknownSensorHasNoUnit)
{
    const auto object = json::parse(Measured(Sensor{9}, 0.5F).at(0));

    EXPECT_EQ(object.at("sensor"), "unknown");
    EXPECT_EQ(object.at("id"), 9);
    EXPECT_EQ(object.at("value"), 0.5);
    EXPECT_TRUE(object.at("unit").is_null());
}

TEST(JsonPrinterTest, StepsHaveKeysOfTheirOwn)
{
    StepsOfDay day{std::chrono::local_days{std::chrono::days{16203}}, DaySteps{}};
    day.mSteps->mSteps = 25;
    day.mSteps->mIsExact = true;
    day.mSteps->mSince = Instant{std::chrono::milliseconds{5}};
    day.mSteps->mUntil = Instant{std::chrono::milliseconds{6}};
    const Reading reading{.mSensor = Sensor::Pedometer, .mValue = 60.0F};
    const auto object =
        json::parse(JsonPrinter().Measured({.mReading = reading, .mSteps = day}, kNow, true).at(0));
    EXPECT_EQ(object.at("value"), 60);
    EXPECT_EQ(object.at("steps"), 25);
    EXPECT_EQ(object.at("exact"), true);
    EXPECT_EQ(object.at("since_ms"), 5);
    EXPECT_THAT(JsonPrinter().Today(day),
                ElementsAre(R"({"type":"today","date":"2014-05-13","steps":25,"exact":true,)"
                            R"("since_ms":5,"until_ms":6})"));
    day.mSteps.reset();
    EXPECT_THAT(JsonPrinter().Today(day),
                ElementsAre(R"({"type":"today","date":"2014-05-13","steps":null,"exact":false,)"
                            R"("since_ms":null,"until_ms":null})"));
}

TEST(JsonPrinterTest, LargeValuesStayNumbers)
{
    EXPECT_EQ(json::parse(Measured(Sensor::Pedometer, 16777216.0F).at(0)).at("value"), 16777216);
    const auto huge = json::parse(Measured(Sensor::Pedometer, 3.4028235e38F).at(0));
    EXPECT_FLOAT_EQ(huge.at("value").get<float>(), 3.4028235e38F);
}

TEST(JsonPrinterTest, AWatchedReadingHasTheSameKeysAndNullForAnUnknownTime)
{
    const Reading reading{.mCommand = Command::Start, .mSensor = Sensor::Activity, .mValue = 2.0F};

    EXPECT_THAT(
        JsonPrinter().Measured({.mReading = reading,
                                .mObservation = {Sensor::Activity, 2, kNow, Worn::Unknown, false}},
                               kNow, true),
        ElementsAre(
            R"({"type":"reading","sensor":"activity","id":1,"command":"start","value":2,)"
            R"("unit":"activity","activity":"running","time_ms":null,"usable":true,"age_ms":0,)"
            R"("worn":null,"unbroken":false})"));
}

TEST(JsonPrinterTest, TheListIsALineForTheWatchAndOneForEachSensor)
{
    SensorList list;
    list.mHeader.mAddress = {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x0F};
    list.mHeader.mCount = 1;
    list.mEntries = {{.mPosition = 1,
                      .mSensor = Sensor::HeartRate,
                      .mAvailable = 1,
                      .mMaxRange = 200,
                      .mResolution = 1,
                      .mMinDelayMs = 15000}};

    EXPECT_THAT(
        JsonPrinter().List(list),
        ElementsAre(R"({"type":"list","address":"AA:BB:CC:DD:EE:0F","count":1})",
                    R"({"type":"sensor","position":1,"sensor":"hr","id":3,"available":true,)"
                    R"("range":200,"resolution":1,"minimum":0,"minimum_delay_ms":15000})"));
    EXPECT_TRUE(json::parse(JsonPrinter().List({}).at(0)).at("address").is_null());
}

TEST(JsonPrinterTest, AStopIsALine)
{
    EXPECT_THAT(JsonPrinter().Stopped(Sensor::Activity),
                ElementsAre(R"({"type":"stopped","sensor":"activity","id":1})"));
}

TEST(JsonPrinterTest, PacketsCarryTheirReply)
{
    const auto reply = [](const Reply &meaning) {
        return json::parse(JsonPrinter().Packet({0xFF, 0x00}, meaning, kNowMs).at(0));
    };

    EXPECT_EQ(reply(StopAck{1, Sensor::HeartRate}), json::parse(R"({"type":"packet","hex":"FF 00",
                              "reply":{"type":"stopped","sensor":"hr","id":3,"flags":1}})"));
    EXPECT_EQ(reply(OptionReply{2, Sensor::Activity}).at("reply"),
              json::parse(R"({"type":"option","sensor":"activity","id":1,"flags":2})"));
    EXPECT_EQ(reply(SensorListHeader{.mFlags = 3}).at("reply"),
              json::parse(R"({"type":"list","address":null,"count":0,"flags":3})"));
    EXPECT_EQ(reply(SensorEntry{.mReserved = -2}).at("reply").at("reserved"), -2);
    EXPECT_EQ(reply(Reading{.mTimeFieldMs = 4294967295U}).at("reply").at("time_field_ms"),
              4294967295U);
}

TEST(JsonPrinterTest, PacketsWithoutAMeaningCarryAnError)
{
    EXPECT_THAT(
        JsonPrinter().Packet({0x00}, DecodeError{1, "packet size", "4", "1"}, kNowMs),
        ElementsAre(R"({"type":"packet","hex":"00","error":{"offset":1,"field":"packet size",)"
                    R"("expected":"4","found":"1"}})"));
}

TEST(JsonPrinterTest, EveryKeyIsDocumented)
{
    std::string documentation;
    for (const std::string &line : JsonPrinter::Keys()) {
        EXPECT_LE(line.size(), 80U) << line;
        documentation += line + " ";
    }
    for (const char *key : {"type",
                            "address",
                            "count",
                            "position",
                            "sensor",
                            "id",
                            "available",
                            "range",
                            "resolution",
                            "minimum",
                            "minimum_delay_ms",
                            "command",
                            "value",
                            "unit",
                            "usable",
                            "worn",
                            "activity",
                            "time_ms",
                            "age_ms",
                            "unbroken",
                            "hex",
                            "reply",
                            "error",
                            "flags",
                            "reserved",
                            "time_field_ms",
                            "offset",
                            "field",
                            "expected",
                            "found"}) {
        EXPECT_THAT(documentation, testing::HasSubstr(key));
    }
}

} // namespace
} // namespace ParvaneHost
