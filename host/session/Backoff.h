#pragma once

#include <chrono>

namespace ParvaneHost {

/** The delays between attempts: the first, then twice as long each time, up to the longest. */
class Backoff
{
public:
    /** Both at least 1 ms; a `longest` below `first` counts as `first`. */
    Backoff(std::chrono::milliseconds first, std::chrono::milliseconds longest);

    /** The delay before the next attempt. */
    std::chrono::milliseconds Next();

    /** Begins again with the first delay, after an attempt that went well. */
    void Reset();

private:
    std::chrono::milliseconds mFirst;
    std::chrono::milliseconds mLongest;
    std::chrono::milliseconds mNext;
};

} // namespace ParvaneHost
