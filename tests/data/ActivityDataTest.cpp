#include "ActivityData.h"

#include <memory>

#include <gtest/gtest.h>

#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

class ActivityDataTest : public testing::Test
{
protected:
    ScriptedPlatform mPlatform;
};

TEST_F(ActivityDataTest, NewRecordHasStatusZeroNoAccuracyAndTheCurrentTime)
{
    const ActivityData data;

    EXPECT_EQ(0, data.mStatus);
    EXPECT_EQ(-1, data.mAccuracy);
    EXPECT_EQ(1400000000, data.mTimestamp);
}

TEST_F(ActivityDataTest, ConstructorTakesStatusThenAccuracyThenTimestamp)
{
    const ActivityData data(3, 2, 77);

    EXPECT_EQ(3, data.mStatus);
    EXPECT_EQ(2, data.mAccuracy);
    EXPECT_EQ(77, data.mTimestamp);
}

TEST_F(ActivityDataTest, KindIsOne)
{
    const std::shared_ptr<SensorData> data = std::make_shared<ActivityData>();

    EXPECT_EQ(SensorType(1), data->GetSensorType());
}

TEST_F(ActivityDataTest, AccessorsReadAndWriteTheStatus)
{
    ActivityData data;

    data.SetStatus(6);

    EXPECT_EQ(6, data.GetStatus());
    EXPECT_EQ(6, data.mStatus);
}

} // namespace
} // namespace Parvane
