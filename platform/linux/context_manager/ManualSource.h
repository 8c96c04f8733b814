#pragma once

#include <cstdint>
#include <map>
#include <set>

#include "base/LoopSource.h"
#include "context_manager/SensorSource.h"

namespace ParvanePlatform {

/**
 * Readings that somebody sets from outside, through the control socket.
 *
 * A value that is set stays until the next one: an item that is started begins with the value that
 * it has. The pedometer always has one, a count from 0; a gesture is over when it has been told.
 */
class ManualSource : public SensorSource
{
public:
    /** The heart rate of a watch that is not worn. */
    static constexpr int kNotWorn = -3;

    void SetListener(SensorListener *listener) override { mListener = listener; }
    int Start(ContextItem item) override;
    void Stop(ContextItem item) override;
    std::optional<SensorReading> Latest(ContextItem item) const override;

    /** Sets the heart rate: beats per minute, or kNotWorn. */
    void SetHeartRate(int beatsPerMinute);

    /** Adds to the step counter, which stops at the largest int. @param steps  not negative */
    void AddSteps(int steps);

    /** Sets the activity: 0 other, 1 still, 2 walking, 3 running. */
    void SetActivity(int activity);

    /** Makes one gesture, by the platform's number of it; lost when the item is not started. */
    void MakeGesture(int gesture);

private:
    void Report(ContextItem item, const SensorReading &reading);
    void ReportStarted();

    SensorListener *mListener = nullptr;
    std::set<ContextItem> mStarted;
    /** Started since the main loop's last turn; they have not told their value yet. */
    std::set<ContextItem> mBeginning;
    std::map<ContextItem, SensorReading> mValues;
    int mSteps = 0;
    LoopSource mBegin;
};

} // namespace ParvanePlatform
