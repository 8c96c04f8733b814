#include "Messages.h"

#include <limits>

#include <gtest/gtest.h>

namespace ParvaneHost {
namespace {

TEST(MessagesTest, SensorsHaveTheNamesOfTheCommandLine)
{
    EXPECT_EQ(SensorName(Sensor{1}), "activity");
    EXPECT_EQ(SensorName(Sensor{2}), "steps");
    EXPECT_EQ(SensorName(Sensor{3}), "hr");
    EXPECT_EQ(SensorName(Sensor{4}), "wear");
    EXPECT_EQ(SensorName(Sensor{0}), "unknown");
    EXPECT_EQ(SensorName(Sensor{255}), "unknown");
}

TEST(MessagesTest, NamesLeadBackToTheirSensors)
{
    EXPECT_EQ(SensorByName("activity"), Sensor::Activity);
    EXPECT_EQ(SensorByName("steps"), Sensor::Pedometer);
    EXPECT_EQ(SensorByName("hr"), Sensor::HeartRate);
    EXPECT_EQ(SensorByName("wear"), Sensor::WearState);
    EXPECT_EQ(SensorByName("unknown"), std::nullopt);
    EXPECT_EQ(SensorByName("HR"), std::nullopt);
    EXPECT_EQ(SensorByName(""), std::nullopt);
}

TEST(MessagesTest, OnlyFourValuesAreActivities)
{
    EXPECT_EQ(ActivityOf(0.0F), Activity::StillOrOther);
    EXPECT_EQ(ActivityOf(1.0F), Activity::Walking);
    EXPECT_EQ(ActivityOf(2.0F), Activity::Running);
    EXPECT_EQ(ActivityOf(3.0F), Activity::WristGesture);
    EXPECT_EQ(ActivityOf(4.0F), std::nullopt);
    EXPECT_EQ(ActivityOf(-1.0F), std::nullopt);
    EXPECT_EQ(ActivityOf(1.5F), std::nullopt);
    EXPECT_EQ(ActivityOf(std::numeric_limits<float>::quiet_NaN()), std::nullopt);
    EXPECT_EQ(ActivityOf(std::numeric_limits<float>::infinity()), std::nullopt);
}

TEST(MessagesTest, AnAddressOfZeroesIsNone)
{
    SensorListHeader header;
    EXPECT_FALSE(header.HasAddress());

    header.mAddress = {0, 0, 0, 0, 0, 0x0F};
    EXPECT_TRUE(header.HasAddress());
    EXPECT_EQ(header.AddressText(), "00:00:00:00:00:0F");

    header.mAddress = {0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};
    EXPECT_EQ(header.AddressText(), "AA:BB:CC:DD:EE:FF");
}

// 1 400 000 000 000 ms is 325 times 2^32 and 0xF680B000 ms more.
TEST(MessagesTest, ATimeOfTheWireIsCompletedFromTheTimeOfDay)
{
    EXPECT_EQ(FullTimeMs(0xF680B000U, 1400000000500LL), 1400000000000LL);
    EXPECT_EQ(FullTimeMs(0xF680B000U, 1399999999500LL), 1400000000000LL);
    EXPECT_EQ(FullTimeMs(1000000U, 0), 1000000);
    EXPECT_EQ(FullTimeMs(704U, 4294968000LL), 4294968000LL);
}

TEST(MessagesTest, TheNearestTimeWinsOnBothSidesOfAWrap)
{
    constexpr std::int64_t kWrap = 4294967296LL;
    EXPECT_EQ(FullTimeMs(0xFFFFFF00U, kWrap + 10), kWrap - 256);
    EXPECT_EQ(FullTimeMs(5U, kWrap - 10), kWrap + 5);
    EXPECT_EQ(FullTimeMs(5U, 7 * kWrap + 3), 7 * kWrap + 5);
}

TEST(MessagesTest, OfTwoEquallyNearTimesTheEarlierIsTaken)
{
    constexpr std::int64_t kWrap = 4294967296LL;
    EXPECT_EQ(FullTimeMs(0x80000000U, kWrap), kWrap - 2147483648LL);
    EXPECT_EQ(FullTimeMs(0x7FFFFFFFU, kWrap), kWrap + 2147483647LL);
}

TEST(MessagesTest, TimesBeforeTheEpochAndAtTheEndsOfTimeDoNotOverflow)
{
    EXPECT_EQ(FullTimeMs(0xFFFFFFFFU, 0), -1);
    EXPECT_EQ(FullTimeMs(0xFFFFFFFFU, std::numeric_limits<std::int64_t>::max()),
              std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(FullTimeMs(0U, std::numeric_limits<std::int64_t>::min()),
              std::numeric_limits<std::int64_t>::min());
}

} // namespace
} // namespace ParvaneHost
