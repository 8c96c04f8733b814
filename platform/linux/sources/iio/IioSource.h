#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>

#include "Clock.h"
#include "IioReader.h"
#include "IioSwitches.h"
#include "SensorSource.h"
#include "Settings.h"
#include "Timer.h"

namespace ParvanePlatform {

/**
 * Pedometer and activity from the kernel's industrial-I/O devices, as plain files of sysfs.
 *
 * The kernel does not tell when such an attribute changes, so the items that are started are read
 * again and again: at once, and then at fixed distances from the first start, all with one timer.
 * Reported is the first reading, and then one in which the steps or the activity have changed: who
 * counts the steps of each reading must not be told of a distance alone. Times that were missed are
 * left out.
 */
class IioSource : public SensorSource
{
public:
    /** `clock` is borrowed for the life of the source. Touches no file. */
    IioSource(const IioSettings &settings, const Clock &clock, std::unique_ptr<Timer> timer);

    void SetListener(SensorListener *listener) override { mListener = listener; }
    int Start(ContextItem item) override;
    void Stop(ContextItem item) override;
    /** What the last poll has given, nothing included; reads the files when there was none yet. */
    std::optional<SensorReading> Latest(ContextItem item) const override;

private:
    struct Track
    {
        ContextItem mItem;
        std::unique_ptr<IioReader> mReader;
        bool mIsStarted = false;
        /** Started, and not read since. */
        bool mIsBeginning = false;
        /** To be read in the poll that is going on. */
        bool mIsDue = false;
        /** What the last poll has given. */
        std::optional<SensorReading> mNewest = std::nullopt;
        /** The steps or the activity that were reported last; empty when none was since the start. */
        std::optional<int> mReported = std::nullopt;
    };

    Track *TrackOf(ContextItem item);
    const Track *TrackOf(ContextItem item) const;
    bool IsAnyStarted() const;
    void Poll();
    void Poll(Track &track);
    void SetTimer();

    const Clock &mClock;
    std::unique_ptr<Timer> mTimer;
    const std::int64_t mPeriodUs;
    SensorListener *mListener = nullptr;
    /** When all that is started is read next. */
    std::int64_t mNextUs = 0;
    IioSwitches mSwitches;
    std::array<Track, 2> mTracks;
};

} // namespace ParvanePlatform
