#pragma once

#include <optional>

#include "context_manager/SensorReading.h"

namespace ParvanePlatform {

/** Hears what a source has to tell. */
class SensorListener
{
public:
    virtual ~SensorListener() = default;

    /** One reading of an item that was started; may start and stop items. */
    virtual void OnReading(ContextItem item, const SensorReading &reading) = 0;
};

/**
 * Where readings come from. An implementation is a file of its own and one line in
 * MakeSensorSource(); nothing else knows which one is there.
 *
 * Every source takes all items; one that it has no sensor for stays silent. A source that no item is
 * started on must not wake the main loop. Main-loop thread only.
 */
class SensorSource
{
public:
    virtual ~SensorSource() = default;

    /** Names who hears the readings; borrowed, and set once before anything else. */
    virtual void SetListener(SensorListener *listener) = 0;

    /**
     * Begins the readings of an item: all that are due from now on, none from before. They come from
     * the main loop, never from inside this call. An item that is started already begins anew.
     */
    virtual void Start(ContextItem item) = 0;

    /** Ends the readings of an item; none comes after this call. */
    virtual void Stop(ContextItem item) = 0;

    /** The newest values of an item, started or not; empty while there are none. */
    virtual std::optional<SensorReading> Latest(ContextItem item) const = 0;
};

} // namespace ParvanePlatform
