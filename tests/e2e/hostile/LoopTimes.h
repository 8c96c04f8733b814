#pragma once

#include <stdint.h> // NOLINT(modernize-deprecated-headers): C reads it, too

/** What LoopWatch.c notes about the turns of a main loop, in nanoseconds; a file that both map. */
struct LoopTimes
{
    int64_t mTurns;
    /** Of all turns together. */
    int64_t mTotal;
    /** Of the longest turn by the clock on the wall. */
    int64_t mLongest;
    /** The same without the time for which the processors were busy with others. */
    int64_t mLongestOwn;
    /** Of the turn with the most work: what it took of the processor. */
    int64_t mMostWork;
};
