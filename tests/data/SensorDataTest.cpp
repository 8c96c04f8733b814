#include "SensorData.h"

#include <type_traits>

#include <gtest/gtest.h>

#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

class SensorDataTest : public testing::Test
{
protected:
    ScriptedPlatform mPlatform;
};

TEST_F(SensorDataTest, NewRecordIsAnEmptyReadingOfNow)
{
    mPlatform.SetTime(1234567890);

    const SensorData data;

    EXPECT_EQ(0, data.mCategory);
    EXPECT_EQ(6, data.mDataFormat);
    EXPECT_EQ(0, data.mDataOption);
    EXPECT_EQ(1234567890, data.mTimestamp);
    EXPECT_EQ(-1, data.mRequestId);
}

TEST_F(SensorDataTest, HeaderOfNewRecordHasTheHeadersDefaults)
{
    const SensorData data;

    EXPECT_EQ(2, data.mHeaderCode);
    EXPECT_EQ(0, data.mMessageType);
    EXPECT_EQ(0, data.mMessageFlags);
}

TEST_F(SensorDataTest, PlainRecordIsOfKindZero)
{
    EXPECT_EQ(SensorType(0), SensorData().GetSensorType());
}

TEST_F(SensorDataTest, EachRecordIsStampedWithTheTimeOfItsOwnConstruction)
{
    const SensorData first;
    mPlatform.SetTime(1400000060);
    const SensorData second;

    EXPECT_EQ(1400000000, first.mTimestamp);
    EXPECT_EQ(1400000060, second.mTimestamp);
}

TEST_F(SensorDataTest, FieldsHaveTheirWidths)
{
    EXPECT_TRUE((std::is_same_v<decltype(SensorData::mCategory), uint8_t>));
    EXPECT_TRUE((std::is_same_v<decltype(SensorData::mDataFormat), int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(SensorData::mDataOption), int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(SensorData::mTimestamp), int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(SensorData::mRequestId), int32_t>));
    EXPECT_TRUE((std::is_base_of_v<HeaderData, SensorData>));
}

} // namespace
} // namespace Parvane
