#include "SensorInfo.h"

#include <type_traits>

#include <gtest/gtest.h>

namespace Parvane {
namespace {

TEST(SensorInfoTest, EveryFieldOfANewDescriptionIsZero)
{
    const SensorInfo info;

    EXPECT_EQ(0, static_cast<int>(info.mSensorType));
    EXPECT_EQ(0, info.mSensorId);
    EXPECT_EQ(0, info.mAvailable);
    EXPECT_EQ(0.0F, info.mMaxRange);
    EXPECT_EQ(0.0F, info.mResolution);
    EXPECT_EQ(0.0F, info.mMinValue);
    EXPECT_EQ(0, info.mMinDelay);
    EXPECT_EQ(0, info.mReserved);
}

TEST(SensorInfoTest, FieldsHaveTheWidthsOfTheWire)
{
    EXPECT_EQ(4U, sizeof(SensorInfo::mSensorType));
    EXPECT_TRUE((std::is_same_v<decltype(SensorInfo::mSensorId), uint8_t>));
    EXPECT_TRUE((std::is_same_v<decltype(SensorInfo::mAvailable), uint8_t>));
    EXPECT_TRUE((std::is_same_v<decltype(SensorInfo::mMaxRange), float>));
    EXPECT_TRUE((std::is_same_v<decltype(SensorInfo::mResolution), float>));
    EXPECT_TRUE((std::is_same_v<decltype(SensorInfo::mMinValue), float>));
    EXPECT_TRUE((std::is_same_v<decltype(SensorInfo::mMinDelay), int32_t>));
    EXPECT_TRUE((std::is_same_v<decltype(SensorInfo::mReserved), uint16_t>));
    EXPECT_TRUE(std::has_virtual_destructor_v<SensorInfo>);
}

} // namespace
} // namespace Parvane
