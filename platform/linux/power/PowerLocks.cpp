#include "PowerLocks.h"

#include <iterator>

#include "base/ErrorCode.h"
#include "base/RuntimeLog.h"

namespace ParvanePlatform {

int PowerLocks::Lock(int state, int timeoutMs)
{
    if (state <= 0 || timeoutMs <= 0) {
        return ErrorCode::kInvalidParameter;
    }
    mHeld.emplace_back();
    const auto held = std::prev(mHeld.end());
    held->mState = state;
    const std::int64_t dueUs = mClock.MonotonicUs() + std::int64_t{timeoutMs} * 1000;
    held->mEnd = LoopSource::At(dueUs, [this, held] {
        LogInfo("power: state %d released", held->mState);
        mHeld.erase(held);
    });
    LogInfo("power: state %d kept for %d ms", state, timeoutMs);
    return 0;
}

} // namespace ParvanePlatform
