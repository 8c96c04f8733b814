#include "GestureData.h"

#include <memory>

#include <gtest/gtest.h>

#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

class GestureDataTest : public testing::Test
{
protected:
    ScriptedPlatform mPlatform;
};

TEST_F(GestureDataTest, NewRecordHasNoActionAndTheCurrentTime)
{
    const GestureData data;

    EXPECT_EQ(0, data.mAction);
    EXPECT_EQ(1400000000, data.mTimestamp);
}

TEST_F(GestureDataTest, GivenTimestampTakesThePlaceOfTheCurrentTime)
{
    const GestureData data(1, 77);

    EXPECT_EQ(1, data.mAction);
    EXPECT_EQ(77, data.mTimestamp);
}

TEST_F(GestureDataTest, KindIsTwo)
{
    const std::shared_ptr<SensorData> data = std::make_shared<GestureData>();

    EXPECT_EQ(SensorType(2), data->GetSensorType());
}

TEST_F(GestureDataTest, AccessorsReadAndWriteTheAction)
{
    GestureData data;

    data.SetAction(5);

    EXPECT_EQ(5, data.GetAction());
    EXPECT_EQ(5, data.mAction);
}

} // namespace
} // namespace Parvane
