#pragma once

#include <cstdint>

#include "HeaderData.h"
#include "SensorType.h"
#include "TimeUtil.h"

namespace Parvane {

/** One sensor's reading, or a request that names a sensor; used as it is, an empty reading. */
class SensorData : public HeaderData
{
public:
    /** Stands for "none given" and for every value out of range in mDataFormat. */
    static constexpr int32_t kDefaultDataFormat = 6;

    /** The kind of the record; None for a plain SensorData. */
    virtual SensorType GetSensorType() const { return SensorType::None; }

    /** The sensor's wire id (DeviceManager). */
    uint8_t mCategory = 0;

    /** The reporting format that a start request asks for, 0 to 5, else kDefaultDataFormat. */
    int32_t mDataFormat = kDefaultDataFormat;

    /** The value of an option request: 0, 1 or 2. */
    int32_t mDataOption = 0;

    /** Moment of the reading, in seconds since the epoch; first the time of construction. */
    int32_t mTimestamp = TimeUtil::GetCurrentTime();

    /** The context-manager request that this reading answers; -1 for none. */
    int32_t mRequestId = -1;
};

} // namespace Parvane
