#pragma once

#include <stdint.h>

/** What LoopWatch.c notes about the turns of a main loop, in nanoseconds; a file that both map. */
struct LoopTimes
{
    int64_t turns;
    /** Of all turns together. */
    int64_t total;
    /** Of the longest turn by the clock on the wall. */
    int64_t longest;
    /** The same without the time for which the processors were busy with others. */
    int64_t longestOwn;
    /** Of the turn with the most work: what it took of the processor. */
    int64_t mostWork;
};
