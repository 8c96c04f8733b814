#include "control/RecordingText.h"

#include <gtest/gtest.h>

#include <platform/context_manager.h>

namespace ParvanePlatform {

TEST(RecordingTextTest, AReadingIsARowWithItsValuesInTheirColumns)
{
    const auto text = MakeRecordingText();
    EXPECT_EQ(text->Header(1769862896789),
              "# Recorded from 2026-01-31T12:34:56Z on\n"
              "t_ms,heart_rate,total_steps,walk_steps,run_steps,distance_m,calories_kcal,speed,"
              "activity,gesture\n");

    SensorReading steps;
    steps.Add(CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, 12.0);
    steps.Add(CONTEXT_PEDOMETER_SPEED, 3.25);
    EXPECT_EQ(text->MakeRow(0, ContextItem::Pedometer, steps).mText, "0,,12,,,,,3.25,,\n");
    SensorReading activity;
    activity.Add(CONTEXT_ACTIVITY_STATUS, 2);
    EXPECT_EQ(text->MakeRow(1500, ContextItem::Activity, activity).mText, "1500,,,,,,,,2,\n");
}

TEST(RecordingTextTest, AValueWithoutAColumnIsNamedNotDropped)
{
    SensorReading reading;
    reading.Add(CONTEXT_HRM_HEART_RATE, 72);
    reading.Add(CONTEXT_HRM_PEAK_TO_PEAK, 812);
    const auto row = MakeRecordingText()->MakeRow(0, ContextItem::HeartRate, reading);
    EXPECT_EQ(row.mText, "");
    EXPECT_EQ(row.mError, "a reading of item 7 has a value that a recording has no column for");
}

} // namespace ParvanePlatform
