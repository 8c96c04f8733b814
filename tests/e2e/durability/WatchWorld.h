#pragma once

#include <stdint.h> // NOLINT(modernize-deprecated-headers): C reads it, too

/** How many times faster time passes for the service's timers. */
#define WATCH_SPEED 1000

#define WATCH_COUNTS 6

/** What a test scripts for a service that has WatchClock.c preloaded; a file that both map. */
struct WatchWorld
{
    /** What the clock shows: seconds since 1970. */
    int64_t mClock;
    /** A name of the time zone database; counted up with each change of it. */
    char mZone[56];
    uint32_t mZoneChanges;
    /** The pedometer's total, run and walked steps, metres, kilocalories and speed. */
    double mCounts[WATCH_COUNTS];
};
