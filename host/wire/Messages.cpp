#include "Messages.h"

#include <algorithm>
#include <utility>

namespace ParvaneHost {

namespace {

constexpr std::array<std::pair<Sensor, std::string_view>, 4> kSensorNames{{
    {Sensor::Activity, "activity"},
    {Sensor::Pedometer, "steps"},
    {Sensor::HeartRate, "hr"},
    {Sensor::WearState, "wear"},
}};

} // namespace

Request Request::SensorList(std::uint8_t flags)
{
    Request request;
    request.mFlags = flags;
    return request;
}

Request Request::MeasureOnce(Sensor sensor, std::uint8_t flags)
{
    Request request;
    request.mCommand = Command::MeasureOnce;
    request.mFlags = flags;
    request.mSensor = sensor;
    return request;
}

Request Request::Start(Sensor sensor, std::uint8_t format, std::uint8_t flags)
{
    Request request = MeasureOnce(sensor, flags);
    request.mCommand = Command::Start;
    request.mFormat = format;
    return request;
}

Request Request::Stop(Sensor sensor, std::uint8_t flags)
{
    Request request = MeasureOnce(sensor, flags);
    request.mCommand = Command::Stop;
    return request;
}

bool SensorListHeader::HasAddress() const
{
    return std::any_of(mAddress.begin(), mAddress.end(),
                       [](std::uint8_t octet) { return octet != 0; });
}

std::string SensorListHeader::AddressText() const
{
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string text;
    for (const std::uint8_t octet : mAddress) {
        if (!text.empty()) {
            text += ':';
        }
        text += kDigits[octet >> 4U];
        text += kDigits[octet & 0x0FU];
    }
    return text;
}

std::string_view SensorName(Sensor sensor)
{
    for (const auto &[known, name] : kSensorNames) {
        if (known == sensor) {
            return name;
        }
    }
    return "unknown";
}

std::optional<Sensor> SensorByName(std::string_view name)
{
    for (const auto &[sensor, known] : kSensorNames) {
        if (known == name) {
            return sensor;
        }
    }
    return std::nullopt;
}

std::optional<Activity> ActivityOf(float value)
{
    for (const Activity activity :
         {Activity::StillOrOther, Activity::Walking, Activity::Running, Activity::WristGesture}) {
        if (static_cast<float>(activity) == value) {
            return activity;
        }
    }
    return std::nullopt;
}

std::string_view ActivityName(Activity activity)
{
    switch (activity) {
    case Activity::StillOrOther:
        return "still or other";
    case Activity::Walking:
        return "walking";
    case Activity::Running:
        return "running";
    case Activity::WristGesture:
        return "wrist gesture";
    }
    return "unknown";
}

std::int64_t FullTimeMs(std::uint32_t fieldMs, std::int64_t nowMs)
{
    const auto now = static_cast<std::uint64_t>(nowMs);
    const auto distance = static_cast<std::int32_t>(fieldMs - static_cast<std::uint32_t>(now));
    return static_cast<std::int64_t>(now + static_cast<std::uint64_t>(std::int64_t{distance}));
}

} // namespace ParvaneHost
