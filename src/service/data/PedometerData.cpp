#include "PedometerData.h"

#include <algorithm>
#include <istream>
#include <limits>
#include <ostream>

namespace Parvane {

namespace {

// Counters come from outside and may be anything: they are summed unsigned, where wrapping is defined.
int32_t AddWrapping(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

int32_t SubtractWrapping(int32_t a, int32_t b)
{
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

// An infinite distance could be stored as text and not be read back: the limit stands for it.
float Finite(float distance)
{
    constexpr float kLimit = std::numeric_limits<float>::max();
    return std::clamp(distance, -kLimit, kLimit);
}

// A failed extraction may leave a limit of the type behind; here it leaves 0.
template <typename T>
void Extract(std::istream &stream, T &field)
{
    T value{};
    field = (stream >> value) ? value : T{};
}

} // namespace

PedometerData::PedometerData()
{
    mTimestamp = 0;
}

PedometerData::PedometerData(int32_t totalStepCount, float distance, int32_t calorie,
                             int32_t timestamp, int32_t walkStepCount, int32_t runStepCount,
                             int32_t speed)
    : mTotalStepCount(totalStepCount),
      mRunStepCount(runStepCount),
      mWalkStepCount(walkStepCount),
      mDistance(distance),
      mCalorie(calorie),
      mSpeed(speed)
{
    mTimestamp = timestamp;
}

PedometerData operator+(const PedometerData &a, const PedometerData &b)
{
    PedometerData sum;
    sum.mTotalStepCount = AddWrapping(a.mTotalStepCount, b.mTotalStepCount);
    sum.mRunStepCount = AddWrapping(a.mRunStepCount, b.mRunStepCount);
    sum.mWalkStepCount = AddWrapping(a.mWalkStepCount, b.mWalkStepCount);
    sum.mDistance = Finite(a.mDistance + b.mDistance);
    sum.mCalorie = AddWrapping(a.mCalorie, b.mCalorie);
    sum.mSpeed = a.mSpeed + b.mSpeed;
    return sum;
}

PedometerData operator-(const PedometerData &a, const PedometerData &b)
{
    PedometerData difference;
    difference.mTotalStepCount = SubtractWrapping(a.mTotalStepCount, b.mTotalStepCount);
    difference.mRunStepCount = SubtractWrapping(a.mRunStepCount, b.mRunStepCount);
    difference.mWalkStepCount = SubtractWrapping(a.mWalkStepCount, b.mWalkStepCount);
    difference.mDistance = Finite(a.mDistance - b.mDistance);
    difference.mCalorie = SubtractWrapping(a.mCalorie, b.mCalorie);
    difference.mSpeed = a.mSpeed - b.mSpeed;
    return difference;
}

bool operator<(const PedometerData &data, int32_t n)
{
    return data.mTotalStepCount < n;
}

std::ostream &operator<<(std::ostream &stream, const PedometerData &data)
{
    return stream << data.mTotalStepCount << " " << data.mRunStepCount << " " << data.mWalkStepCount
                  << " " << data.mDistance << " " << data.mCalorie << " " << data.mSpeed;
}

std::istream &operator>>(std::istream &stream, PedometerData &data)
{
    Extract(stream, data.mTotalStepCount);
    Extract(stream, data.mRunStepCount);
    Extract(stream, data.mWalkStepCount);
    Extract(stream, data.mDistance);
    Extract(stream, data.mCalorie);
    Extract(stream, data.mSpeed);
    return stream;
}

} // namespace Parvane
