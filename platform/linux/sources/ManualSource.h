#pragma once

#include <map>
#include <optional>
#include <set>

#include "LoopSource.h"
#include "SensorSource.h"

namespace ParvanePlatform {

/**
 * Readings that somebody sets from outside, through the control socket.
 *
 * A value that is set stays until the next one: an item that is started begins with the value that
 * it has, in the next turn of the main loop, or right before the next value that is set, whichever
 * is earlier. The pedometer always has one, a count from 0; a gesture is over when it has been told.
 *
 * Values are set from the main loop, and not from inside SensorListener::OnReading().
 */
class ManualSource : public SensorSource
{
public:
    /** The heart rate of a watch that is not worn. */
    static constexpr int kNotWorn = -3;

    ManualSource();

    void SetListener(SensorListener *listener) override { mListener = listener; }
    int Start(ContextItem item) override;
    void Stop(ContextItem item) override;
    std::optional<SensorReading> Latest(ContextItem item) const override;

    /** Sets the heart rate: beats per minute, or kNotWorn. */
    void SetHeartRate(int beatsPerMinute);

    /** Adds to the step counter, which stops at the largest int; a negative number adds nothing. */
    void AddSteps(int steps);

    /** Sets the activity: 0 other, 1 still, 2 walking, 3 running. */
    void SetActivity(int activity);

    /** Makes one gesture, by the platform's number of it; lost when the item is not started. */
    void MakeGesture(int gesture);

private:
    /** Makes a reading the item's value, and tells it when the item is started. */
    void Tell(ContextItem item, const SensorReading &reading);
    /** Tells the values of the items that have been started since the last turn. */
    void TellBeginnings();

    SensorListener *mListener = nullptr;
    std::set<ContextItem> mStarted;
    /** Those of mStarted that have still to tell the value that they begin with. */
    std::set<ContextItem> mBeginning;
    std::map<ContextItem, SensorReading> mValues;
    int mSteps = 0;
    /** Set while mBeginning is not empty. */
    Parvane::LoopSource mBegin;
};

} // namespace ParvanePlatform
