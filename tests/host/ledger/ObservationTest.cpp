#include "Observation.h"

#include <gtest/gtest.h>

using namespace ParvaneHost;
using namespace std::chrono_literals;

namespace {

constexpr Instant kThen{1773489600000ms};

class ObservationTest : public testing::Test
{
protected:
    Observation Take(Sensor sensor, float value, Instant at = kThen)
    {
        return mObservations.Take({Command::MeasureOnce, 1, sensor, 1000, value}, at);
    }

    Observations mObservations;
};

} // namespace

TEST_F(ObservationTest, HeartRateHasItsAgeAndTheWornState)
{
    Take(Sensor::WearState, 1);
    const Observation heartRate = Take(Sensor::HeartRate, 72, kThen + 1s);
    EXPECT_TRUE(heartRate.IsMeasurement());
    EXPECT_EQ(heartRate.Age(kThen + 5s), 4s);
    EXPECT_EQ(heartRate.Text(kThen + 5s), "72 bpm, 4 s ago, worn");
}

TEST_F(ObservationTest, NoReadingOfAWatchThatIsNotWornSaysSo)
{
    Take(Sensor::WearState, 0);
    const Observation heartRate = Take(Sensor::HeartRate, 0);
    EXPECT_FALSE(heartRate.IsMeasurement());
    EXPECT_EQ(heartRate.Text(kThen), "no reading: the watch is not worn");
}

TEST_F(ObservationTest, WornStateThatNobodyToldIsUnknown)
{
    EXPECT_EQ(Take(Sensor::HeartRate, 72).Text(kThen), "72 bpm, 0 s ago");
    EXPECT_EQ(Take(Sensor::HeartRate, 0).Text(kThen), "no usable reading, 0 s ago");
}

TEST_F(ObservationTest, WornStateHoldsForAMinute)
{
    Take(Sensor::WearState, 0);
    EXPECT_EQ(Take(Sensor::HeartRate, 72, kThen + 60s).mWorn, Worn::No);
    EXPECT_EQ(Take(Sensor::HeartRate, 72, kThen + 61s).mWorn, Worn::Unknown);
}

TEST_F(ObservationTest, WhatCameBeforeABreakIsNotTakenForNew)
{
    Take(Sensor::WearState, 1);
    Take(Sensor::Activity, 1);
    mObservations.Break();
    EXPECT_EQ(mObservations.Latest(Sensor::Activity)->Text(kThen + 90s),
              "walking, 1 min ago, worn, before the link was lost");
    EXPECT_EQ(Take(Sensor::HeartRate, 72).Text(kThen), "72 bpm, 0 s ago");
    EXPECT_TRUE(mObservations.Latest(Sensor::HeartRate)->mIsUnbroken);
}

TEST_F(ObservationTest, EverySensorHasItsWords)
{
    EXPECT_EQ(Take(Sensor::WearState, 1).Text(kThen + 2h), "worn, 2 h ago");
    EXPECT_EQ(Take(Sensor::WearState, 0).Text(kThen + 50h), "not worn, 2 d ago");
    mObservations.Break();
    EXPECT_EQ(Take(Sensor::Pedometer, 35).Text(kThen), "total on the wire 35, 0 s ago");
    EXPECT_EQ(Take(Sensor::Activity, 7).Text(kThen), "unknown activity 7, 0 s ago");
    EXPECT_EQ(Take(Sensor{9}, 7).Text(kThen), "7, 0 s ago");
}

TEST_F(ObservationTest, ClockThatWentBackMakesNoNegativeAge)
{
    EXPECT_EQ(Take(Sensor::HeartRate, 72).Age(kThen - 1h), 0ms);
}

TEST_F(ObservationTest, NothingIsKnownBeforeTheFirstReading)
{
    EXPECT_EQ(mObservations.Latest(Sensor::HeartRate), std::nullopt);
}
