#include "SensorType.h"

#include <type_traits>

#include <gtest/gtest.h>

#include "Command.h"

namespace Parvane {
namespace {

TEST(SensorTypeTest, ValuesAreThoseOfTheRegistries)
{
    EXPECT_EQ(0, static_cast<int>(SensorType::None));
    EXPECT_EQ(1, static_cast<int>(SensorType::Activity));
    EXPECT_EQ(2, static_cast<int>(SensorType::Gesture));
    EXPECT_EQ(3, static_cast<int>(SensorType::Pedometer));
    EXPECT_EQ(4, static_cast<int>(SensorType::HRM));
    EXPECT_EQ(5, static_cast<int>(SensorType::WearState));
}

TEST(SensorTypeTest, TypeIsASigned32BitNumber)
{
    EXPECT_TRUE((std::is_same_v<std::underlying_type_t<SensorType>, int32_t>));
}

TEST(SensorTypeTest, CommandsAreTheNumbersOfTheWire)
{
    EXPECT_EQ(1, static_cast<int>(CommandSensorList));
    EXPECT_EQ(2, static_cast<int>(CommandMeasureOnce));
    EXPECT_EQ(3, static_cast<int>(CommandStart));
    EXPECT_EQ(4, static_cast<int>(CommandStop));
    EXPECT_EQ(5, static_cast<int>(CommandOption));
}

} // namespace
} // namespace Parvane
