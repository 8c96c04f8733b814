#pragma once

#include "SensorData.h"

namespace Parvane {

/** Whether the watch is worn. */
class WearStateData : public SensorData
{
public:
    SensorType GetSensorType() const override { return SensorType::WearState; }

    float GetStatus() const { return mStatus; }
    void SetStatus(float status) { mStatus = status; }

    /** 1.0 worn, 0.0 not worn. */
    float mStatus = 0.0F;
};

} // namespace Parvane
