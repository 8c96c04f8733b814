#include "Timer.h"

#include <utility>

namespace ParvanePlatform {

void LoopTimer::Arm(std::int64_t dueUs, std::function<void()> handler)
{
    mSource = Parvane::LoopSource::At(dueUs, std::move(handler));
}

} // namespace ParvanePlatform
