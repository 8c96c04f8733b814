#pragma once

#include <cstdint>
#include <iosfwd>

#include "SensorData.h"

namespace Parvane {

/**
 * Step counts, either of one stretch of time or summed over a day.
 *
 * Sums and differences of the counts wrap at 32 bits.
 */
class PedometerData : public SensorData
{
public:
    /** All zero, the time stamp too: older than every real reading. */
    PedometerData();

    /**
     * @param totalStepCount  steps
     * @param distance  metres
     * @param calorie  kilocalories
     * @param timestamp  seconds since the epoch
     * @param walkStepCount  steps counted as walking
     * @param runStepCount  steps counted as running
     * @param speed  km/h, whole
     */
    PedometerData(int32_t totalStepCount, float distance, int32_t calorie, int32_t timestamp,
                  int32_t walkStepCount, int32_t runStepCount, int32_t speed);

    SensorType GetSensorType() const override { return SensorType::Pedometer; }

    int32_t mTotalStepCount = 0;
    int32_t mRunStepCount = 0;
    int32_t mWalkStepCount = 0;

    /** Metres. */
    float mDistance = 0.0F;

    /** Kilocalories. */
    int32_t mCalorie = 0;

    /** km/h. */
    double mSpeed = 0.0;
};

/** The six measurements added; header, time stamp and request id are those of a new record. */
PedometerData operator+(const PedometerData &a, const PedometerData &b);

/** The six measurements subtracted; header, time stamp and request id are those of a new record. */
PedometerData operator-(const PedometerData &a, const PedometerData &b);

/** Whether the total step count is less than `n`. */
bool operator<(const PedometerData &data, int32_t n);

/**
 * Writes the six measurements in the order of their declaration, one blank between two.
 *
 * This is the form in which the day's total is stored (docs/storage.md).
 */
std::ostream &operator<<(std::ostream &stream, const PedometerData &data);

/**
 * Reads what operator<< writes; any white space separates.
 *
 * Text that cannot be read to its end leaves the measurements before the fault as read, makes the
 * others 0 and sets the stream's fail bit.
 */
std::istream &operator>>(std::istream &stream, PedometerData &data);

} // namespace Parvane
