#pragma once

#include <cstdint>

#include "SensorData.h"

namespace Parvane {

/** What the wearer is doing. */
class ActivityData : public SensorData
{
public:
    ActivityData() = default;

    /** `timestamp` in seconds since the epoch. */
    ActivityData(int32_t status, int32_t accuracy, int32_t timestamp)
        : mStatus(status), mAccuracy(accuracy)
    {
        mTimestamp = timestamp;
    }

    SensorType GetSensorType() const override { return SensorType::Activity; }

    int32_t GetStatus() const { return mStatus; }
    void SetStatus(int32_t status) { mStatus = status; }

    /** The platform's number of the activity; 6 stands for a wrist gesture. */
    int32_t mStatus = 0;

    /** The platform's confidence; -1 when it gave none. */
    int32_t mAccuracy = -1;
};

} // namespace Parvane
