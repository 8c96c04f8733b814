#pragma once

#include <cstdint>

#include "SensorType.h"

namespace Parvane {

/** The description of one sensor in a sensor list. */
class SensorInfo
{
public:
    SensorInfo() = default;
    SensorInfo(const SensorInfo &) = default;
    SensorInfo &operator=(const SensorInfo &) = default;
    virtual ~SensorInfo() = default;

    SensorType mSensorType = SensorType::None;

    /** The sensor's wire id (DeviceManager). */
    uint8_t mSensorId = 0;

    /** 1 when the sensor can be used. */
    uint8_t mAvailable = 0;

    /** Largest value, in the sensor's own unit. */
    float mMaxRange = 0.0F;

    /** Smallest step between two values. */
    float mResolution = 0.0F;

    /** Smallest value. */
    float mMinValue = 0.0F;

    /** Shortest time from a request to its reading, in milliseconds. */
    int32_t mMinDelay = 0;

    uint16_t mReserved = 0;
};

} // namespace Parvane
