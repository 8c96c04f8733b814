#include "IioPedometer.h"

#include <cmath>

#include <platform/context_manager.h>

#include "RuntimeLog.h"

namespace ParvanePlatform {

namespace {

constexpr char kSteps[] = "in_steps_input";
constexpr char kDistance[] = "in_distance_input";
constexpr char kEnergy[] = "in_energy_input";
constexpr char kMagnitude[] = "in_velocity_sqrt(x^2+y^2+z^2)_input";
constexpr char kPlaneMagnitude[] = "in_velocity_sqrt(x^2+y^2)_input";
constexpr char kVelocityX[] = "in_velocity_x_input";
constexpr char kVelocityY[] = "in_velocity_y_input";
constexpr char kVelocityZ[] = "in_velocity_z_input";

constexpr double kJoulesPerKilocalorie = 4184.0;

// The limits of a reading are those of a recording, so that each reading can be recorded.
constexpr double kMaxSteps = 2147483647.0;
constexpr double kMaxMetres = 1e9;
constexpr double kMaxJoules = 1e9 * kJoulesPerKilocalorie;
constexpr double kMaxMetresPerSecond = 1e8;

constexpr IioChannel::Range kStepRange = {0.0, kMaxSteps, IioChannel::Kind::WholeNumber};
constexpr IioChannel::Range kMagnitudeRange = {0.0, kMaxMetresPerSecond};
constexpr IioChannel::Range kAxisRange = {-kMaxMetresPerSecond, kMaxMetresPerSecond};

double KilometresPerHour(double metresPerSecond)
{
    return metresPerSecond * 18.0 / 5.0;
}

} // namespace

IioPedometer::IioPedometer(const IioSettings &settings, IioSwitches &switches)
    : mDevice(
          settings,
          {kSteps,
           {kSteps},
           {kDistance, kEnergy, kMagnitude, kPlaneMagnitude, kVelocityX, kVelocityY, kVelocityZ}},
          switches),
      mSteps{{kSteps, kStepRange}, IioCounter(kMaxSteps)},
      mDistance{{kDistance, {0.0, kMaxMetres}}, IioCounter(kMaxMetres)},
      mEnergy{{kEnergy, {0.0, kMaxJoules}}, IioCounter(kMaxJoules)},
      mMagnitudes{IioChannel(kMagnitude, kMagnitudeRange),
                  IioChannel(kPlaneMagnitude, kMagnitudeRange)},
      mAxes{IioChannel(kVelocityX, kAxisRange), IioChannel(kVelocityY, kAxisRange),
            IioChannel(kVelocityZ, kAxisRange)}
{}

std::optional<SensorReading> IioPedometer::Read()
{
    const IioDevice::Presence presence = mDevice.Look();
    if (presence == IioDevice::Presence::Absent) {
        return std::nullopt;
    }
    if (presence == IioDevice::Presence::Replaced) {
        for (Counted *counted : {&mSteps, &mDistance, &mEnergy}) {
            counted->mCounter.Rebase();
        }
    }
    const IioChannel::Value steps = mSteps.mChannel.Read(mDevice.Path());
    if (steps.mState == IioChannel::State::Missing) {
        mDevice.Lose(kSteps);
    }
    if (steps.mState != IioChannel::State::Good) {
        return std::nullopt;
    }
    Take(mSteps, steps.mNumber);
    if (!mSteps.mCounter.Count()) {
        return std::nullopt;
    }
    TakeOptional(mDistance);
    TakeOptional(mEnergy);

    SensorReading reading;
    reading.Add(CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT,
                static_cast<int>(*mSteps.mCounter.Count()));
    if (const auto metres = mDistance.mCounter.Count()) {
        reading.Add(CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE, *metres);
    }
    if (const auto joules = mEnergy.mCounter.Count()) {
        reading.Add(CONTEXT_PEDOMETER_CUMULATIVE_CALORIE, *joules / kJoulesPerKilocalorie);
    }
    if (const auto speed = Speed()) {
        reading.Add(CONTEXT_PEDOMETER_SPEED, KilometresPerHour(*speed));
    }
    return reading;
}

void IioPedometer::SetPolled(bool isPolled)
{
    mIsPolled = isPolled;
    mDevice.SetEnabled(isPolled);
}

void IioPedometer::Take(Counted &counted, double value) const
{
    if (!mIsPolled && mDevice.IsOff(counted.mChannel.File())) {
        return;
    }
    const double last = counted.mCounter.Last();
    if (counted.mCounter.Take(value) == IioCounter::Step::Back) {
        LogWarning("iio: %s/%s has gone back from %.15g to %.15g: that counts nothing",
                   mDevice.Path().c_str(), counted.mChannel.File().c_str(), last, value);
    }
}

void IioPedometer::TakeOptional(Counted &counted)
{
    const IioChannel::Value value = counted.mChannel.ReadOptional(mDevice.Path());
    if (value.mState == IioChannel::State::Good) {
        Take(counted, value.mNumber);
    }
    if (!counted.mCounter.Count()) {
        counted.mCounter.BeginAtZero();
    }
}

std::optional<double> IioPedometer::Speed()
{
    for (IioChannel &magnitude : mMagnitudes) {
        const IioChannel::Value value = magnitude.ReadOptional(mDevice.Path());
        if (value.mState == IioChannel::State::Good) {
            return value.mNumber;
        }
        if (value.mState != IioChannel::State::Missing) {
            return std::nullopt;
        }
    }
    return SpeedOfAxes();
}

std::optional<double> IioPedometer::SpeedOfAxes()
{
    std::optional<double> speed;
    bool isKnown = true;
    for (IioChannel &axis : mAxes) {
        const IioChannel::Value value = axis.ReadOptional(mDevice.Path());
        if (value.mState == IioChannel::State::Good) {
            speed = std::hypot(speed.value_or(0.0), value.mNumber);
        } else if (value.mState != IioChannel::State::Missing) {
            isKnown = false;
        }
    }
    return isKnown ? speed : std::nullopt;
}

} // namespace ParvanePlatform
