#include "HRMData.h"

#include <memory>

#include <gtest/gtest.h>

#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

class HRMDataTest : public testing::Test
{
protected:
    ScriptedPlatform mPlatform;
};

TEST_F(HRMDataTest, NewRecordIsZeroAndStampedWithTheCurrentTime)
{
    const HRMData data;

    EXPECT_EQ(0, data.mSpO2);
    EXPECT_EQ(0, data.mHeartRate);
    EXPECT_EQ(0, data.mPeakToPeak);
    EXPECT_EQ(1400000000, data.mTimestamp);
}

TEST_F(HRMDataTest, ConstructorTakesOxygenThenHeartRateThenPeakToPeak)
{
    const HRMData data(97, 72, 833);

    EXPECT_EQ(97, data.mSpO2);
    EXPECT_EQ(72, data.mHeartRate);
    EXPECT_EQ(833, data.mPeakToPeak);
    EXPECT_EQ(1400000000, data.mTimestamp);
}

TEST_F(HRMDataTest, KindIsFour)
{
    const std::shared_ptr<SensorData> data = std::make_shared<HRMData>();

    EXPECT_EQ(SensorType(4), data->GetSensorType());
}

TEST_F(HRMDataTest, AccessorsReadAndWriteTheHeartRate)
{
    HRMData data;

    data.SetHeartRate(-3);

    EXPECT_EQ(-3, data.GetHeartRate());
    EXPECT_EQ(-3, data.mHeartRate);
}

} // namespace
} // namespace Parvane
