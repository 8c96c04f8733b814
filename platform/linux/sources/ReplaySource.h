#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Clock.h"
#include "Recording.h"
#include "SensorSource.h"
#include "Timer.h"

namespace ParvanePlatform {

/** How a recording is played. */
struct ReplayOptions
{
    /** How many times faster than it was recorded; above 0. */
    double mSpeed = 1.0;
    /** Whether it starts over at its end. */
    bool mLoop = true;
};

/**
 * Plays a recording, from the moment of construction on, whether or not anybody listens.
 *
 * There is one timer, for the next row of the items that are started, and none when no item is.
 * Rows that are due when the timer comes late are delivered all, in several turns of the main loop
 * where delivering takes long: whoever else wants a turn gets one, even if rows become due faster than
 * they can be delivered. When an item is more than a whole round behind, the whole rounds are left out.
 *
 * In round n (from 0) n times what a round counts, its last value less its first, is added to each
 * counter, so that counters go on without a jump; at the most that their columns allow they stop. An
 * empty cell keeps its field's last value, across rounds as well, unless it is forgotten. From a row on
 * in which the pedometer begins anew its values are those of the recording, in each round.
 * A jump leads into the first round, so that it has the same effect.
 *
 * Without a loop an item that has had its last row can still be started and stays silent: what it
 * said last holds, and Latest() has it.
 *
 * Rows that are due at the same time come in their order; of the values of one row first the heart
 * rate, then pedometer, activity and gesture.
 */
class ReplaySource : public SensorSource
{
public:
    /** `clock` is borrowed for the life of the source. */
    ReplaySource(Recording recording, const ReplayOptions &options, const Clock &clock,
                 std::unique_ptr<Timer> timer);

    void SetListener(SensorListener *listener) override { mListener = listener; }
    int Start(ContextItem item) override;
    void Stop(ContextItem item) override;
    std::optional<SensorReading> Latest(ContextItem item) const override;

    /** Plays another recording, from its start. Items stay started, also those that it has not. */
    void Open(Recording recording);
    /** Goes on from another moment, 0 to LengthMs(); what is between is not delivered. */
    void Seek(double ms);
    /** @param speed  above 0 */
    void SetSpeed(double speed);
    /** While it is paused nothing wakes the main loop. */
    void SetPaused(bool isPaused);

    bool IsPaused() const { return mIsPaused; }
    const ReplayOptions &Options() const { return mOptions; }
    /** Of a round. */
    std::int64_t LengthMs() const { return mRecording.mLoopMs; }
    /** Within the round. */
    std::int64_t PositionMs() const;

private:
    /** The rows that have a value for one item, and how far its delivery is. */
    struct Track
    {
        ContextItem mItem;
        std::vector<std::uint32_t> mRows;
        bool mIsStarted = false;
        /** Counts over all rounds: round * mRows.size() + position in mRows. */
        std::int64_t mNext = 0;
    };

    Track &TrackOf(ContextItem item);
    const Track &TrackOf(ContextItem item) const;
    /** The moment that is played: the clock, which stands while this is paused. */
    std::int64_t NowUs() const { return mIsPaused ? mStartUs : mClock.MonotonicUs(); }
    /** What is played at a point of time, in milliseconds over all rounds. */
    double PlayedMs(std::int64_t us) const;
    /** Counts from now on from a moment of the recording. */
    void GoOnFromMs(double ms);
    /** When an entry of a track is due, in microseconds of the monotonic clock. */
    std::int64_t DueUs(const Track &track, std::int64_t entry) const;
    /** How many entries of a track are due before a point of time. */
    std::int64_t CountBefore(const Track &track, std::int64_t us) const;
    std::int64_t CountInRoundBefore(const Track &track, std::int64_t round, std::int64_t us) const;
    bool HasNext(const Track &track) const;
    /** The started track whose next entry comes first; null when there is none. */
    Track *FirstTrack();
    void SkipWholeRounds(std::int64_t nowUs);
    void DeliverDue();
    void DeliverUntil(std::int64_t nowUs);
    void EndDelivery();
    void SetTimer();
    SensorReading ReadingOf(const Track &track, std::int64_t entry) const;
    /** The last row as it is played in round `rounds` - 1; at least one round. */
    RecordingRow EndOfRounds(std::int64_t rounds) const;
    SensorReading PedometerReading(RecordingRow row, std::int64_t round) const;

    Recording mRecording;
    ReplayOptions mOptions;
    bool mIsPaused = false;
    const Clock &mClock;
    std::unique_ptr<Timer> mTimer;
    SensorListener *mListener = nullptr;
    /** When mStartMs over all rounds was played. */
    std::int64_t mStartUs = 0;
    double mStartMs = 0;
    /** What is being delivered: all that is due until this; empty outside a delivery. */
    std::optional<std::int64_t> mDeliveryUs;
    std::array<Track, 4> mTracks;
};

} // namespace ParvanePlatform
