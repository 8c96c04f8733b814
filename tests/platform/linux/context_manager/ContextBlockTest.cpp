#include "ContextBlock.h"

#include <cstdlib>
#include <limits>
#include <memory>
#include <set>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/context_manager.h>

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;

struct Free
{
    void operator()(void *block) const noexcept { std::free(block); }
};
using DataPtr = std::unique_ptr<context_data, Free>;
using OptionPtr = std::unique_ptr<context_option, Free>;

constexpr std::int64_t kWallMs = 1400000000123;

DataPtr MakeData()
{
    SensorReading reading;
    reading.Add("whole", 72);
    reading.Add("real", 1.5);
    reading.Add("exact", -7.0);
    reading.Add("large", 2147483648.0);
    return DataPtr(MakeContextData(kWallMs, reading));
}

} // namespace

TEST(ContextBlockTest, ValuesAreFoundByTheirKeys)
{
    const DataPtr data = MakeData();
    int whole = 0;
    double real = 0.0;
    EXPECT_EQ(context_context_data_get_int(data.get(), "whole", &whole), 0);
    EXPECT_EQ(whole, 72);
    EXPECT_EQ(context_context_data_get_double(data.get(), "real", &real), 0);
    EXPECT_EQ(real, 1.5);
}

TEST(ContextBlockTest, ValuesAreConvertedWhenNothingIsLost)
{
    const DataPtr data = MakeData();
    int whole = 0;
    double real = 0.0;
    EXPECT_EQ(context_context_data_get_double(data.get(), "whole", &real), 0);
    EXPECT_EQ(real, 72.0);
    EXPECT_EQ(context_context_data_get_int(data.get(), "exact", &whole), 0);
    EXPECT_EQ(whole, -7);
}

TEST(ContextBlockTest, ValuesThatDoNotFitStayUnread)
{
    const DataPtr data = MakeData();
    int whole = 5;
    EXPECT_EQ(context_context_data_get_int(data.get(), "real", &whole), -34);
    EXPECT_EQ(context_context_data_get_int(data.get(), "large", &whole), -34);
    EXPECT_EQ(whole, 5);

    SensorReading odd;
    odd.Add("nan", std::numeric_limits<double>::quiet_NaN());
    const DataPtr oddData(MakeContextData(0, odd));
    EXPECT_EQ(context_context_data_get_int(oddData.get(), "nan", &whole), -34);
    EXPECT_EQ(whole, 5);
}

TEST(ContextBlockTest, MissingKeysLeaveTheValueUntouched)
{
    const DataPtr data = MakeData();
    int whole = 5;
    double real = 5.0;
    EXPECT_EQ(context_context_data_get_int(data.get(), "none", &whole), -2);
    EXPECT_EQ(context_context_data_get_double(data.get(), "none", &real), -2);
    EXPECT_EQ(whole, 5);
    EXPECT_EQ(real, 5.0);
}

TEST(ContextBlockTest, TimeOfDeliveryIsRead)
{
    const DataPtr data = MakeData();
    std::int64_t wallMs = -1;
    EXPECT_EQ(context_context_data_get_timestamp(data.get(), &wallMs), 0);
    EXPECT_EQ(wallMs, 1400000000123);
}

TEST(ContextBlockTest, NullArgumentsAreRefused)
{
    const DataPtr data = MakeData();
    int whole = 5;
    double real = 5.0;
    std::int64_t wallMs = 5;
    EXPECT_EQ(context_context_data_get_int(nullptr, "whole", &whole), -22);
    EXPECT_EQ(context_context_data_get_int(data.get(), nullptr, &whole), -22);
    EXPECT_EQ(context_context_data_get_int(data.get(), "whole", nullptr), -22);
    EXPECT_EQ(context_context_data_get_double(nullptr, "real", &real), -22);
    EXPECT_EQ(context_context_data_get_double(data.get(), nullptr, &real), -22);
    EXPECT_EQ(context_context_data_get_double(data.get(), "real", nullptr), -22);
    EXPECT_EQ(context_context_data_get_timestamp(nullptr, &wallMs), -22);
    EXPECT_EQ(context_context_data_get_timestamp(data.get(), nullptr), -22);
    EXPECT_EQ(whole, 5);
    EXPECT_EQ(real, 5.0);
    EXPECT_EQ(wallMs, 5);
}

TEST(ContextBlockTest, OptionKeepsAllValuesInOrder)
{
    context_option *option = context_option_new();
    ASSERT_NE(option, nullptr);
    EXPECT_EQ(context_option_add_value_int(&option, "state", 1), 0);
    EXPECT_EQ(context_option_add_value_double(&option, "height", 1.8), 0);
    for (int value = 2; value <= 500; ++value) {
        EXPECT_EQ(context_option_add_value_int(&option, "state", value), 0);
    }
    const OptionPtr owned(option);
    const auto values = GetOptionInts(option, "state");
    ASSERT_EQ(values.size(), 500U);
    EXPECT_EQ(values.front(), 1);
    EXPECT_EQ(values.back(), 500);
    EXPECT_THAT(GetOptionInts(option, "height"), ElementsAre());
}

TEST(ContextBlockTest, BadOptionArgumentsAreRefused)
{
    context_option *option = context_option_new();
    context_option *none = nullptr;
    EXPECT_EQ(context_option_add_value_int(nullptr, "k", 1), -22);
    EXPECT_EQ(context_option_add_value_int(&none, "k", 1), -22);
    EXPECT_EQ(context_option_add_value_int(&option, nullptr, 1), -22);
    EXPECT_EQ(context_option_add_value_int(&option, "", 1), -22);
    EXPECT_EQ(context_option_add_value_double(&option, std::string(64, 'k').c_str(), 1.0), -22);
    EXPECT_EQ(context_option_add_value_double(&option, std::string(63, 'k').c_str(), 1.0), 0);
    const OptionPtr owned(option);
}

TEST(ContextBlockTest, OptionHasALimit)
{
    context_option *option = context_option_new();
    for (int value = 0; value < 1000; ++value) {
        ASSERT_EQ(context_option_add_value_int(&option, "k", value), 0);
    }
    EXPECT_EQ(context_option_add_value_int(&option, "k", 1000), -22);
    const OptionPtr owned(option);
    EXPECT_EQ(GetOptionInts(option, "k").size(), 1000U);
}

TEST(ContextBlockTest, KeysAreDistinct)
{
    const std::set<std::string> keys = {CONTEXT_HRM_SPO2,
                                        CONTEXT_HRM_HEART_RATE,
                                        CONTEXT_HRM_PEAK_TO_PEAK,
                                        CONTEXT_MOTION_ACTION,
                                        CONTEXT_ACTIVITY_STATUS,
                                        CONTEXT_ACTIVITY_ACCURACY,
                                        CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER,
                                        CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT,
                                        CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE,
                                        CONTEXT_PEDOMETER_CUMULATIVE_CALORIE,
                                        CONTEXT_PEDOMETER_CUMULATIVE_WALK_STEP_COUNT,
                                        CONTEXT_PEDOMETER_CUMULATIVE_RUN_STEP_COUNT,
                                        CONTEXT_PEDOMETER_SPEED,
                                        CONTEXT_PEDOMETER_GENDER,
                                        CONTEXT_PEDOMETER_HEIGHT,
                                        CONTEXT_PEDOMETER_WEIGHT};
    EXPECT_EQ(keys.size(), 16U);
}

} // namespace ParvanePlatform
