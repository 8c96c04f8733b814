#include "ManualSource.h"

#include <algorithm>
#include <limits>

#include <platform/context_manager.h>

namespace ParvanePlatform {

namespace {

SensorReading ReadingOf(const char *key, int value)
{
    SensorReading reading;
    reading.Add(key, value);
    return reading;
}

} // namespace

ManualSource::ManualSource()
{
    mValues[ContextItem::Pedometer] = ReadingOf(CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, 0);
}

int ManualSource::Start(ContextItem item)
{
    mStarted.insert(item);
    if (item != ContextItem::Gesture && mValues.contains(item)) {
        mBeginning.insert(item);
        if (!mBegin.IsActive()) {
            mBegin = Parvane::LoopSource::Post([this] { TellBeginnings(); });
        }
    }
    return 0;
}

void ManualSource::Stop(ContextItem item)
{
    mStarted.erase(item);
    mBeginning.erase(item);
    if (mBeginning.empty()) {
        mBegin.Remove();
    }
}

std::optional<SensorReading> ManualSource::Latest(ContextItem item) const
{
    const auto found = mValues.find(item);
    return found != mValues.end() ? std::optional(found->second) : std::nullopt;
}

void ManualSource::SetHeartRate(int beatsPerMinute)
{
    TellBeginnings();
    Tell(ContextItem::HeartRate, ReadingOf(CONTEXT_HRM_HEART_RATE, beatsPerMinute));
}

void ManualSource::AddSteps(int steps)
{
    // First: a subscriber counts steps from the value that it begins with.
    TellBeginnings();
    mSteps += std::clamp(steps, 0, std::numeric_limits<int>::max() - mSteps);
    Tell(ContextItem::Pedometer, ReadingOf(CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, mSteps));
}

void ManualSource::SetActivity(int activity)
{
    TellBeginnings();
    Tell(ContextItem::Activity, ReadingOf(CONTEXT_ACTIVITY_STATUS, activity));
}

void ManualSource::MakeGesture(int gesture)
{
    TellBeginnings();
    Tell(ContextItem::Gesture, ReadingOf(CONTEXT_MOTION_ACTION, gesture));
}

void ManualSource::Tell(ContextItem item, const SensorReading &reading)
{
    mValues.insert_or_assign(item, reading);
    mBeginning.erase(item);
    if (mBeginning.empty()) {
        mBegin.Remove();
    }
    if (mStarted.contains(item) && mListener != nullptr) {
        mListener->OnReading(item, reading);
    }
}

void ManualSource::TellBeginnings()
{
    mBegin.Remove();
    // A copy: the listener may start items, which begin in the next turn, and stop others.
    const std::set<ContextItem> items = mBeginning;
    for (const ContextItem item : items) {
        if (mBeginning.contains(item)) {
            const SensorReading reading = mValues[item];
            Tell(item, reading);
        }
    }
}

} // namespace ParvanePlatform
