#pragma once

#include <optional>
#include <string>

#include "SensorReading.h"

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
 * Where readings come from. An implementation is a file or folder of its own, a SourceKind, and one
 * line in SensorSources; nothing else knows which ones there are.
 *
 * A source that no item is started on must not wake the main loop. Main-loop thread only.
 */
class SensorSource
{
public:
    virtual ~SensorSource() = default;

    /** Names who hears the readings; borrowed, and set once before anything else. */
    virtual void SetListener(SensorListener *listener) = 0;

    /**
     * Begins the readings of an item. They come from the main loop, never from inside this call;
     * none tells of what came before, but a source that knows the present state of things may begin
     * with it. An item that is started already begins anew.
     *
     * A sensor that is away just now and may come back is no failure.
     *
     * @return 0; -95 when this source never has readings of the item; another code of ErrorCode.h.
     *         The item is not started then
     */
    virtual int Start(ContextItem item) = 0;

    /** Ends the readings of an item; none comes after this call. Does nothing when there are none. */
    virtual void Stop(ContextItem item) = 0;

    /** The newest values of an item, started or not; empty while there are none. */
    virtual std::optional<SensorReading> Latest(ContextItem item) const = 0;

    /** Why there can be no reading as things are, for people; empty where there may be one. */
    virtual std::string Problem() const { return {}; }
};

} // namespace ParvanePlatform
