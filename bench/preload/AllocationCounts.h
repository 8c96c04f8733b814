#pragma once

#include <atomic>
#include <cstdint>

namespace ParvaneBench {

/** What a program has allocated; shared between it and who measures it. */
struct AllocationCounts
{
    /** Blocks that were allocated or resized since the start. */
    std::atomic<std::int64_t> mAllocations = 0;

    /** Blocks that are allocated now. */
    std::atomic<std::int64_t> mLive = 0;
};

} // namespace ParvaneBench
