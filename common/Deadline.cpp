#include "Deadline.h"

#include <algorithm>

namespace Parvane {

using std::chrono::milliseconds;

Deadline Deadline::After(milliseconds length)
{
    constexpr milliseconds kLongest = std::chrono::hours{24 * 365};
    const milliseconds bounded = std::clamp(length, milliseconds{0}, kLongest);
    return {Clock::now() + bounded, bounded};
}

Deadline Deadline::Never()
{
    return {Clock::time_point::max(), milliseconds::max()};
}

bool Deadline::HasPassed() const
{
    return Clock::now() >= mPoint;
}

milliseconds Deadline::Remaining() const
{
    const Clock::time_point now = Clock::now();
    return now >= mPoint ? milliseconds{0} : std::chrono::ceil<milliseconds>(mPoint - now);
}

const Deadline &Deadline::Earlier(const Deadline &other) const
{
    return other.mPoint < mPoint ? other : *this;
}

} // namespace Parvane
