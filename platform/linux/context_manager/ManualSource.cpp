#include "ManualSource.h"

#include <algorithm>
#include <limits>
#include <utility>

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

int ManualSource::Start(ContextItem item)
{
    mStarted.insert(item);
    mBeginning.insert(item);
    if (!mBegin.IsActive()) {
        mBegin = LoopSource::Post([this] { ReportStarted(); });
    }
    return 0;
}

void ManualSource::Stop(ContextItem item)
{
    mStarted.erase(item);
    mBeginning.erase(item);
}

std::optional<SensorReading> ManualSource::Latest(ContextItem item) const
{
    if (item == ContextItem::Pedometer) {
        return ReadingOf(CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, mSteps);
    }
    const auto found = mValues.find(item);
    return found != mValues.end() ? std::optional(found->second) : std::nullopt;
}

void ManualSource::SetHeartRate(int beatsPerMinute)
{
    Report(ContextItem::HeartRate, ReadingOf(CONTEXT_HRM_HEART_RATE, beatsPerMinute));
}

void ManualSource::AddSteps(int steps)
{
    ReportStarted();
    mSteps += std::min(steps, std::numeric_limits<int>::max() - mSteps);
    Report(ContextItem::Pedometer,
           ReadingOf(CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, mSteps));
}

void ManualSource::SetActivity(int activity)
{
    Report(ContextItem::Activity, ReadingOf(CONTEXT_ACTIVITY_STATUS, activity));
}

void ManualSource::MakeGesture(int gesture)
{
    Report(ContextItem::Gesture, ReadingOf(CONTEXT_MOTION_ACTION, gesture));
}

void ManualSource::Report(ContextItem item, const SensorReading &reading)
{
    // What an item begins with it tells before it tells of a change.
    ReportStarted();
    mValues.insert_or_assign(item, reading);
    if (mStarted.contains(item) && mListener != nullptr) {
        mListener->OnReading(item, reading);
    }
}

void ManualSource::ReportStarted()
{
    mBegin.Remove();
    const auto beginning = std::exchange(mBeginning, {});
    for (const ContextItem item : beginning) {
        const auto reading = item == ContextItem::Gesture ? std::nullopt : Latest(item);
        if (reading && mStarted.contains(item) && mListener != nullptr) {
            mListener->OnReading(item, *reading);
        }
    }
}

} // namespace ParvanePlatform
