#pragma once

#include <cstdint>

#include "SensorData.h"

namespace Parvane {

/** A heart-rate reading. */
class HRMData : public SensorData
{
public:
    HRMData() = default;
    HRMData(int32_t spo2, int32_t heartRate, int32_t peakToPeak)
        : mSpO2(spo2), mHeartRate(heartRate), mPeakToPeak(peakToPeak)
    {}

    SensorType GetSensorType() const override { return SensorType::HRM; }

    int32_t GetHeartRate() const { return mHeartRate; }
    void SetHeartRate(int32_t heartRate) { mHeartRate = heartRate; }

    /** Blood oxygen saturation in percent. */
    int32_t mSpO2 = 0;

    /** Beats per minute; 0 and below mean no usable reading, -3 that the watch is not worn. */
    int32_t mHeartRate = 0;

    /** Interval between the last two beats in milliseconds. */
    int32_t mPeakToPeak = 0;
};

} // namespace Parvane
