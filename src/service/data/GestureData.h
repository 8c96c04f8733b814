#pragma once

#include <cstdint>

#include "SensorData.h"

namespace Parvane {

/** A wrist gesture. */
class GestureData : public SensorData
{
public:
    GestureData() = default;

    /** `timestamp` in seconds since the epoch. */
    GestureData(int32_t action, int32_t timestamp) : mAction(action) { mTimestamp = timestamp; }

    SensorType GetSensorType() const override { return SensorType::Gesture; }

    int32_t GetAction() const { return mAction; }
    void SetAction(int32_t action) { mAction = action; }

    /** The platform's number of the gesture; 0 for none. */
    int32_t mAction = 0;
};

} // namespace Parvane
