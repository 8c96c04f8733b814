#include "PowerLocks.h"

#include <iterator>

#include "ErrorCode.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

namespace {

constexpr char kNoBackend[] = "none";
/** No backend can hold. */
constexpr int kCannotHold = -1;

} // namespace

int PowerLocks::Lock(int state, int timeoutMs)
{
    if (state <= 0 || timeoutMs <= 0) {
        return ErrorCode::kInvalidParameter;
    }
    // In a list of its own until its end is set: without one the lock would be held for good.
    std::list<Held> taken(1);
    const auto held = taken.begin();
    if (!TakeHold(*held, timeoutMs)) {
        if (!mIsRefused) {
            LogWarning("power: state %d cannot be kept: nothing here can hold it", state);
        }
        mIsRefused = true;
        return kCannotHold;
    }
    mIsRefused = false;
    held->mStatus.mState = state;
    held->mStatus.mTaken = mClock.Now();
    held->mStatus.mEndUs = mClock.MonotonicUs() + std::int64_t{timeoutMs} * 1000;
    held->mEnd = Parvane::LoopSource::At(held->mStatus.mEndUs, [this, held] {
        LogInfo("power: state %d released", held->mStatus.mState);
        mHeld.erase(held);
    });
    mHeld.splice(mHeld.end(), taken);
    if (held->mHold) {
        LogInfo("power: state %d kept for %d ms by %s", state, timeoutMs,
                held->mStatus.mBackend.c_str());
    } else {
        LogInfo("power: state %d kept for %d ms", state, timeoutMs);
    }
    return 0;
}

bool PowerLocks::TakeHold(Held &held, int timeoutMs)
{
    held.mStatus.mBackend = kNoBackend;
    for (const auto &backend : mBackends) {
        held.mHold = backend->Hold(timeoutMs);
        if (held.mHold) {
            held.mStatus.mBackend = backend->Name();
            return true;
        }
    }
    return mBackends.empty();
}

std::vector<PowerLocks::Status> PowerLocks::List() const
{
    std::vector<Status> list;
    for (const Held &held : mHeld) {
        list.push_back(held.mStatus);
    }
    return list;
}

} // namespace ParvanePlatform
