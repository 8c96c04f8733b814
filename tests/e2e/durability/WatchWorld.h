#pragma once

#include <stdint.h>

/** How many times faster time passes for the service's timers. */
#define WATCH_SPEED 1000

#define WATCH_COUNTS 6

/** What a test scripts for a service that has WatchClock.c preloaded; a file that both map. */
struct WatchWorld
{
    /** What the clock shows: seconds since 1970. */
    int64_t clock;
    /** A name of the time zone database; counted up with each change of it. */
    char zone[56];
    uint32_t zoneChanges;
    /** The pedometer's total, run and walked steps, metres, kilocalories and speed. */
    double counts[WATCH_COUNTS];
};
