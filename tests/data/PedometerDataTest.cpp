#include "PedometerData.h"

#include <climits>
#include <limits>
#include <memory>
#include <sstream>
#include <tuple>
#include <type_traits>

#include <gtest/gtest.h>

#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

class PedometerDataTest : public testing::Test
{
protected:
    // total 10, run 2, walk 8, distance 1.5, calorie 30, speed 0.5
    static PedometerData MakeSample()
    {
        PedometerData data(10, 1.5F, 30, 1000, 8, 2, 0);
        data.mSpeed = 0.5;
        return data;
    }

    static void ExpectMeasurements(const PedometerData &data, int total, int run, int walk,
                                   float distance, int calorie, double speed)
    {
        EXPECT_EQ(std::make_tuple(total, run, walk, distance, calorie, speed),
                  std::make_tuple(data.mTotalStepCount, data.mRunStepCount, data.mWalkStepCount,
                                  data.mDistance, data.mCalorie, data.mSpeed));
    }

    static std::string Written(const PedometerData &data)
    {
        std::ostringstream stream;
        stream << data;
        return stream.str();
    }

    static PedometerData Read(const std::string &text)
    {
        PedometerData data(99, 99.0F, 99, 99, 99, 99, 99); // shows what is not written
        std::istringstream stream(text);
        stream >> data;
        return data;
    }

    ScriptedPlatform mPlatform;
};

TEST_F(PedometerDataTest, NewRecordIsZeroWithTimestampZeroAndRequestIdMinusOne)
{
    const PedometerData data;

    ExpectMeasurements(data, 0, 0, 0, 0.0F, 0, 0.0);
    EXPECT_EQ(0, data.mTimestamp);
    EXPECT_EQ(-1, data.mRequestId);
}

TEST_F(PedometerDataTest, HeaderOfNewRecordHasTheHeadersDefaults)
{
    const PedometerData data;

    EXPECT_EQ(2, data.mHeaderCode);
    EXPECT_EQ(0, data.mMessageType);
    EXPECT_EQ(0, data.mMessageFlags);
    EXPECT_EQ(0, data.mCategory);
    EXPECT_EQ(6, data.mDataFormat);
    EXPECT_EQ(0, data.mDataOption);
}

TEST_F(PedometerDataTest, ConstructorTakesTotalDistanceCalorieTimestampWalkRunSpeed)
{
    const PedometerData data(1, 2.5F, 3, 4, 5, 6, 7);

    ExpectMeasurements(data, 1, 6, 5, 2.5F, 3, 7.0);
    EXPECT_EQ(4, data.mTimestamp);
}

TEST_F(PedometerDataTest, SpeedArrivesTruncatedToAWholeNumber)
{
    const double speed = 7.9;

    const PedometerData data(0, 0.0F, 0, 0, 0, 0, static_cast<int32_t>(speed));

    EXPECT_EQ(7.0, data.mSpeed);
    EXPECT_TRUE((std::is_same_v<decltype(data.mSpeed), double>));
    EXPECT_TRUE((std::is_same_v<decltype(data.mDistance), float>));
}

TEST_F(PedometerDataTest, KindIsThree)
{
    const std::shared_ptr<SensorData> data = std::make_shared<PedometerData>();

    EXPECT_EQ(SensorType(3), data->GetSensorType());
}

TEST_F(PedometerDataTest, DifferenceIsTakenFieldByField)
{
    const PedometerData difference =
        PedometerData(100, 10.5F, 50, 9, 60, 40, 5) - PedometerData(30, 4.25F, 20, 8, 25, 5, 3);

    ExpectMeasurements(difference, 70, 35, 35, 6.25F, 30, 2.0);
}

TEST_F(PedometerDataTest, SumIsTakenFieldByField)
{
    const PedometerData sum =
        PedometerData(100, 10.5F, 50, 9, 60, 40, 5) + PedometerData(30, 4.25F, 20, 8, 25, 5, 3);

    ExpectMeasurements(sum, 130, 45, 85, 14.75F, 70, 8.0);
}

TEST_F(PedometerDataTest, SumAndDifferenceHaveTheHeaderOfANewRecord)
{
    PedometerData data = MakeSample();
    data.mHeaderCode = 1;
    data.mMessageType = 3;
    data.mMessageFlags = 2;
    data.mCategory = 2;
    data.mRequestId = 12;

    for (const PedometerData &result : {data + MakeSample(), data - MakeSample()}) {
        EXPECT_EQ(std::make_tuple(2, 0, 0, 0, 0, -1),
                  std::make_tuple(result.mHeaderCode, result.mMessageType,
                                  int{result.mMessageFlags}, int{result.mCategory},
                                  result.mTimestamp, result.mRequestId));
    }
}

TEST_F(PedometerDataTest, SmallerTotalMinusLargerIsNegativeAndLessThanZero)
{
    const PedometerData difference = PedometerData(5, 0, 0, 0, 0, 0, 0) - MakeSample();

    EXPECT_EQ(-5, difference.mTotalStepCount);
    EXPECT_TRUE(difference < 0);
}

TEST_F(PedometerDataTest, ComparisonLooksAtTheTotalAlone)
{
    const PedometerData data(10, -1.0F, -1, -1, -1, -1, -1);

    EXPECT_TRUE(data < 11);
    EXPECT_FALSE(data < 10);
    EXPECT_FALSE(data < 9);
}

TEST_F(PedometerDataTest, SumsBeyondTheLargestCountWrap)
{
    const PedometerData most(INT_MAX, 0.0F, INT_MAX, 0, INT_MAX, INT_MAX, 0);
    const PedometerData one(1, 0.0F, 1, 0, 1, 1, 0);

    ExpectMeasurements(most + one, INT_MIN, INT_MIN, INT_MIN, 0.0F, INT_MIN, 0.0);
}

TEST_F(PedometerDataTest, DifferencesBelowTheLeastCountWrap)
{
    const PedometerData least(INT_MIN, 0.0F, INT_MIN, 0, INT_MIN, INT_MIN, 0);
    const PedometerData one(1, 0.0F, 1, 0, 1, 1, 0);

    ExpectMeasurements(least - one, INT_MAX, INT_MAX, INT_MAX, 0.0F, INT_MAX, 0.0);
}

TEST_F(PedometerDataTest, TextHasSingleBlanksAndNoneAtTheEnd)
{
    EXPECT_EQ("10 2 8 1.5 30 0.5", Written(MakeSample()));
}

TEST_F(PedometerDataTest, RealsHaveAtMostSixSignificantDigits)
{
    const PedometerData data(1, 1234567.0F, 2, 0, 3, 4, 0);

    EXPECT_EQ("1 4 3 1.23457e+06 2 0", Written(data));
}

TEST_F(PedometerDataTest, TextIsReadBack)
{
    ExpectMeasurements(Read("10 2 8 1.5 30 0.5"), 10, 2, 8, 1.5F, 30, 0.5);
}

TEST_F(PedometerDataTest, AnyWhiteSpaceSeparates)
{
    ExpectMeasurements(Read("\n10\t2  8\r\n1.5 30\v0.5\n"), 10, 2, 8, 1.5F, 30, 0.5);
}

TEST_F(PedometerDataTest, ReadingLeavesTheOtherFieldsAlone)
{
    EXPECT_EQ(99, Read("10 2 8 1.5 30 0.5").mTimestamp);
}

TEST_F(PedometerDataTest, ShortTextGivesItsFieldsAndZeros)
{
    ExpectMeasurements(Read("10 2 8"), 10, 2, 8, 0.0F, 0, 0.0);
}

TEST_F(PedometerDataTest, FaultInTheTextKeepsTheFieldsBeforeIt)
{
    ExpectMeasurements(Read("10 2 x 1.5 30 0.5"), 10, 2, 0, 0.0F, 0, 0.0);
}

TEST_F(PedometerDataTest, NumberThatDoesNotFitIsAFault)
{
    ExpectMeasurements(Read("10 99999999999 8 1.5 30 0.5"), 10, 0, 0, 0.0F, 0, 0.0);
}

TEST_F(PedometerDataTest, RealWhereACountBelongsIsAFaultAfterItsWholePart)
{
    ExpectMeasurements(Read("1.5 2 8 1.5 30 0.5"), 1, 0, 0, 0.0F, 0, 0.0);
}

TEST_F(PedometerDataTest, EmptyTextGivesZeros)
{
    ExpectMeasurements(Read(""), 0, 0, 0, 0.0F, 0, 0.0);
}

TEST_F(PedometerDataTest, DistanceStaysFiniteAndItsTextCanBeReadBack)
{
    constexpr float kLargest = std::numeric_limits<float>::max();
    const PedometerData far(1, kLargest, 2, 0, 3, 4, 5);
    const PedometerData back(1, -kLargest, 2, 0, 3, 4, 5);

    EXPECT_EQ(kLargest, (far + far).mDistance);
    EXPECT_EQ(-kLargest, (back + back).mDistance);
    EXPECT_EQ(kLargest, (far - back).mDistance);
    EXPECT_EQ(-kLargest, (back - far).mDistance);
    std::stringstream text;
    text << far + far;
    EXPECT_EQ("2 8 6 3.40282e+38 4 10", text.str());
    PedometerData restored;
    EXPECT_TRUE(text >> restored);
    EXPECT_EQ(3.40282e+38F, restored.mDistance);
    EXPECT_EQ(10.0, restored.mSpeed);
}

} // namespace
} // namespace Parvane
