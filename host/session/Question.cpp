#include "Question.h"

namespace ParvaneHost {

using std::chrono::milliseconds;

milliseconds AnswerTimeout(Sensor sensor)
{
    constexpr milliseconds kHeartRate{20000}; // the watch takes 15 s
    constexpr milliseconds kWearState{8000};  // 3 s, or twice that when asked twice
    constexpr milliseconds kOther{5000};
    if (sensor == Sensor::HeartRate) {
        return kHeartRate;
    }
    return sensor == Sensor::WearState ? kWearState : kOther;
}

milliseconds AnswerTimeout(const Request &request)
{
    return AnswerTimeout(request.mCommand == Command::MeasureOnce ? request.mSensor
                                                                  : Sensor::Activity);
}

std::string MeasurementText(Sensor sensor)
{
    return "the measurement of '" + std::string(SensorName(sensor)) + "'";
}

bool Question::IsFor(Command command, Sensor sensor) const
{
    return mRequest.mCommand == command && mRequest.mSensor == sensor;
}

bool Question::WasSentWith(std::uint8_t flags) const
{
    return mSentAt && mRequest.mFlags == flags;
}

std::string Question::Text() const
{
    const std::string sensor = "'" + std::string(SensorName(mRequest.mSensor)) + "'";
    switch (mRequest.mCommand) {
    case Command::SensorList:
        return "the sensor list";
    case Command::Start:
        return "the start of " + sensor;
    case Command::Stop:
        return "the stop of " + sensor;
    case Command::MeasureOnce:
    case Command::Option:
        break;
    }
    return MeasurementText(mRequest.mSensor);
}

std::optional<Failure> Question::AddToList(const SensorEntry &entry)
{
    auto &entries = mList->mEntries;
    entries.push_back(entry);
    if (entry.mPosition == entries.size()) {
        return std::nullopt;
    }
    return Failure{Failure::Reason::Malformed, "sensor entry " + std::to_string(entry.mPosition) +
                                                   " where entry " +
                                                   std::to_string(entries.size()) + " was due"};
}

bool Question::HasWholeList() const
{
    return mList && mList->mEntries.size() >= mList->mHeader.mCount;
}

} // namespace ParvaneHost
