#pragma once

#include <cstddef>
#include <list>

#include "base/Clock.h"
#include "base/LoopSource.h"

namespace ParvanePlatform {

/** The power locks that are held; each ends by its own time-out. Main-loop thread only. */
class PowerLocks
{
public:
    /** `clock` is borrowed for the life of this object. */
    explicit PowerLocks(const Clock &clock) : mClock(clock) {}

    /**
     * Takes a lock, and logs that; its end is logged too.
     *
     * @param state      which state is kept, above 0
     * @param timeoutMs  how long, above 0
     * @return 0, or -22 for a value that is not above 0
     */
    int Lock(int state, int timeoutMs);

    /** How many locks are held. */
    std::size_t Count() const { return mHeld.size(); }

private:
    struct Held
    {
        int mState = 0;
        LoopSource mEnd;
    };

    const Clock &mClock;
    std::list<Held> mHeld;
};

} // namespace ParvanePlatform
