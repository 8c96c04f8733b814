#include "ReadingText.h"

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <random>

#include "StepLedgerText.h"

namespace ParvaneHub {

namespace {

using ParvaneHost::Observation;
using ParvaneHost::Sensor;
using ParvaneHost::Worn;

/** Keeps the members in the order in which they are written here. */
using Json = nlohmann::ordered_json;

Json WornOf(Worn worn)
{
    return worn == Worn::Unknown ? Json() : Json(worn == Worn::Yes);
}

Json ActivityValue(float value)
{
    const auto activity = ParvaneHost::ActivityOf(value);
    return activity ? Json(ParvaneHost::ActivityName(*activity)) : Json();
}

/** Value and unit, and whether it is one; of the steps what is known of their day. */
void AddValue(Json &object, const ParvaneHost::Told::NewReading &told)
{
    const Observation &reading = told.mObservation;
    switch (reading.mSensor) {
    case Sensor::HeartRate:
        object["value"] = reading.IsMeasurement() ? Json(std::lround(reading.mValue)) : Json();
        object["unit"] = "bpm";
        break;
    case Sensor::WearState:
        object["value"] = reading.mValue > 0;
        break;
    case Sensor::Activity:
        object["value"] = ActivityValue(reading.mValue);
        break;
    case Sensor::Pedometer:
        object["value"] = told.mSteps->mSteps->mSteps;
        object["unit"] = "steps";
        object["exact"] = told.mSteps->mSteps->mIsExact;
        object["date"] = ParvaneHost::DateText(told.mSteps->mDate);
        object["since"] = TimeText(told.mSteps->mSteps->mSince);
        object["from_midnight"] = told.mSteps->mSteps->mFromMidnight;
        break;
    }
    object["valid"] = !object["value"].is_null();
}

} // namespace

std::string_view LevelOf(Sensor sensor)
{
    switch (sensor) {
    case Sensor::HeartRate:
        return kHeartRate;
    case Sensor::WearState:
        return kWorn;
    case Sensor::Activity:
        return kActivity;
    case Sensor::Pedometer:
        return kSteps;
    }
    return {};
}

ReadingWriter::ReadingWriter()
{
    std::random_device random;
    std::array<char, 13> text{};
    std::snprintf(text.data(), text.size(), "%08x%04x", random(), random() & 0xFFFFU);
    mRun = text.data();
}

std::optional<ReadingText> ReadingWriter::Write(const std::string &watch,
                                                const ParvaneHost::Told::NewReading &told)
{
    const Observation &reading = told.mObservation;
    const std::string_view level = LevelOf(reading.mSensor);
    const bool isSteps = reading.mSensor == Sensor::Pedometer;
    if (level.empty() || (isSteps && (!told.mIsSettled || !told.mSteps || !told.mSteps->mSteps))) {
        return std::nullopt;
    }
    Json object = {{"id", mRun + '-' + std::to_string(++mCount)}, {"watch", watch}};
    AddValue(object, told);
    object["worn"] = WornOf(reading.mWorn);
    object["time"] = TimeText(reading.mAt);
    object["watch_time"] = told.mWatchTime ? Json(TimeText(*told.mWatchTime)) : Json();
    return ReadingText{level, object.dump(), reading.mAt.time_since_epoch().count(),
                       reading.mSensor != Sensor::HeartRate};
}

std::string TimeText(ParvaneHost::Instant instant)
{
    const auto day = std::chrono::floor<std::chrono::days>(instant);
    const std::chrono::hh_mm_ss time(instant - day);
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "T%02d:%02d:%02d.%03dZ",
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()),
                  static_cast<int>(time.subseconds().count()));
    return ParvaneHost::DateText(std::chrono::local_days(day.time_since_epoch())) + text.data();
}

std::string WithAge(const std::string &body, std::chrono::milliseconds age)
{
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), ",\"age\":%.3f}",
                  std::chrono::duration<double>(age).count());
    return body.substr(0, body.size() - 1) + text.data();
}

} // namespace ParvaneHub
