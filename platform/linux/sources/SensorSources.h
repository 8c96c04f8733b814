#pragma once

#include <map>
#include <memory>

#include "Clock.h"
#include "SensorSource.h"
#include "Settings.h"

namespace ParvanePlatform {

class ManualSource;
class ReplaySource;

/** Makes the source that asks another service over the system bus. */
class BusSensorParts
{
public:
    virtual ~BusSensorParts() = default;

    /** Heart rate from a Bluetooth strap, through BlueZ. */
    virtual std::unique_ptr<SensorSource> MakeBleSource(const BleSettings &settings) = 0;
};

/**
 * The sources that the settings ask for, each made once however many items it serves, and which item
 * each of them serves.
 */
class SensorSources
{
public:
    /** No item has a source. */
    SensorSources() = default;

    /**
     * @param clock  borrowed for the life of the sources
     * @param bus    what is made over the system bus; may be null when no item asks for that
     * @throws StartupError when a source cannot be made: a recording that cannot be played
     */
    SensorSources(const Settings &settings, const Clock &clock, BusSensorParts *bus);

    /** Lets `source` serve `item`, in place of what did; for tests and for sources without settings. */
    void Assign(ContextItem item, SourceKind kind, std::shared_ptr<SensorSource> source);

    /** Names who hears the readings of all sources; borrowed. */
    void SetListener(SensorListener *listener);

    /** The source of an item; null when it has none. */
    SensorSource *SourceOf(ContextItem item) const;

    /** What kind of source an item has. */
    SourceKind KindOf(ContextItem item) const;

    /** The manual source, if some item has it; else null. */
    ManualSource *Manual() const { return mManual; }

    /** The source that plays recordings, likewise. */
    ReplaySource *Replay() const { return mReplay; }

private:
    struct Entry
    {
        SourceKind mKind = SourceKind::None;
        std::shared_ptr<SensorSource> mSource;
    };

    std::map<ContextItem, Entry> mEntries;
    ManualSource *mManual = nullptr;
    ReplaySource *mReplay = nullptr;
};

} // namespace ParvanePlatform
