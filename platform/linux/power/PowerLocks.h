#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Clock.h"
#include "LoopSource.h"
#include "PowerBackend.h"

namespace ParvanePlatform {

/**
 * The power locks that are held; each ends by its own time-out, all of them with this object.
 * Main-loop thread only.
 */
class PowerLocks
{
public:
    /** One lock that is held. */
    struct Status
    {
        int mState = 0;
        /** What keeps the device awake for it; "none" when nothing in the system does. */
        std::string mBackend;
        Instant mTaken;
        /** Microseconds of the monotonic clock. */
        std::int64_t mEndUs = 0;
    };

    /**
     * @param clock     borrowed for the life of this object
     * @param backends  asked in this order for each lock until one can hold it; when there is none,
     *                  locks are kept without anything in the system
     */
    explicit PowerLocks(const Clock &clock,
                        std::vector<std::unique_ptr<PowerBackend>> backends = {})
        : mClock(clock), mBackends(std::move(backends))
    {}

    /**
     * Takes a lock, and logs that; its end is logged too. May take as long as its backends do.
     *
     * @param state      which state is kept, above 0
     * @param timeoutMs  how long, above 0
     * @return 0; -22 for a value that is not above 0; -1 when no backend can hold it, which is
     *         logged once per change of state
     */
    int Lock(int state, int timeoutMs);

    /** The locks that are held, the oldest first. */
    std::vector<Status> List() const;

private:
    struct Held
    {
        Status mStatus;
        std::unique_ptr<PowerHold> mHold;
        Parvane::LoopSource mEnd;
    };

    /** Sets the hold and the backend's name; false when none of the backends can hold. */
    bool TakeHold(Held &held, int timeoutMs);

    const Clock &mClock;
    std::vector<std::unique_ptr<PowerBackend>> mBackends;
    std::list<Held> mHeld;
    bool mIsRefused = false;
};

} // namespace ParvanePlatform
