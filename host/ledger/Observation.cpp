#include "Observation.h"

#include <algorithm>
#include <cmath>

namespace ParvaneHost {

namespace {

using std::chrono::milliseconds;

std::string ValueText(Sensor sensor, float value)
{
    std::string number = std::to_string(std::llround(value));
    switch (sensor) {
    case Sensor::Activity: {
        const auto activity = ActivityOf(value);
        return activity ? std::string(ActivityName(*activity)) : "unknown activity " + number;
    }
    case Sensor::Pedometer:
        return "total on the wire " + number;
    case Sensor::HeartRate:
        return number + " bpm";
    case Sensor::WearState:
        return value > 0 ? "worn" : "not worn";
    }
    return number;
}

} // namespace

std::string AgeText(milliseconds age)
{
    using namespace std::chrono;
    if (age < 1min) {
        return std::to_string(duration_cast<seconds>(age).count()) + " s ago";
    }
    if (age < 1h) {
        return std::to_string(duration_cast<minutes>(age).count()) + " min ago";
    }
    if (age < days(1)) {
        return std::to_string(duration_cast<hours>(age).count()) + " h ago";
    }
    return std::to_string(duration_cast<days>(age).count()) + " d ago";
}

bool Observation::IsMeasurement() const
{
    return mSensor != Sensor::HeartRate || mValue > 0;
}

milliseconds Observation::Age(Instant now) const
{
    return std::max(now - mAt, milliseconds{0});
}

std::string Observation::Text(Instant now) const
{
    if (!IsMeasurement() && mWorn == Worn::No) {
        return "no reading: the watch is not worn";
    }
    std::string text = IsMeasurement() ? ValueText(mSensor, mValue) : "no usable reading";
    text += ", " + AgeText(Age(now));
    if (mWorn != Worn::Unknown && mSensor != Sensor::WearState) {
        text += mWorn == Worn::Yes ? ", worn" : ", not worn";
    }
    return mIsUnbroken ? text : text + ", before the link was lost";
}

Observation Observations::Take(const Reading &reading, Instant at)
{
    Observation observation{reading.mSensor, reading.mValue, at, Worn::Unknown, true};
    if (reading.mSensor == Sensor::WearState) {
        observation.mWorn = reading.mValue > 0 ? Worn::Yes : Worn::No;
    } else {
        observation.mWorn = WornAt(at);
    }
    mLatest.insert_or_assign(reading.mSensor, observation);
    return observation;
}

void Observations::Break()
{
    for (auto &[sensor, observation] : mLatest) {
        observation.mIsUnbroken = false;
    }
}

std::optional<Observation> Observations::Latest(Sensor sensor) const
{
    const auto found = mLatest.find(sensor);
    return found == mLatest.end() ? std::nullopt : std::optional(found->second);
}

Worn Observations::WornAt(Instant at) const
{
    const auto told = Latest(Sensor::WearState);
    return told && told->mIsUnbroken && told->Age(at) <= kWornHolds ? told->mWorn : Worn::Unknown;
}

} // namespace ParvaneHost
