#include "WearStateData.h"

#include <memory>
#include <type_traits>

#include <gtest/gtest.h>

#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

class WearStateDataTest : public testing::Test
{
protected:
    ScriptedPlatform mPlatform;
};

TEST_F(WearStateDataTest, KindIsFive)
{
    const std::shared_ptr<SensorData> data = std::make_shared<WearStateData>();

    EXPECT_EQ(SensorType(5), data->GetSensorType());
}

TEST_F(WearStateDataTest, NewRecordIsStampedWithTheCurrentTime)
{
    EXPECT_EQ(1400000000, WearStateData().mTimestamp);
}

TEST_F(WearStateDataTest, AccessorsReadAndWriteTheStatus)
{
    WearStateData data;

    data.SetStatus(1.0F);

    EXPECT_EQ(1.0F, data.GetStatus());
    EXPECT_EQ(1.0F, data.mStatus);
    EXPECT_TRUE((std::is_same_v<decltype(data.mStatus), float>));
}

} // namespace
} // namespace Parvane
