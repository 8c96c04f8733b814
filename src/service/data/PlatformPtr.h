#pragma once

#include <cstdlib>
#include <memory>

namespace Parvane {

/** Releases a block that was allocated with malloc. */
struct PlatformFree
{
    void operator()(void *block) const noexcept { std::free(block); }
};

/** Owner of a malloc'ed block; as small as the pointer, and T may stay incomplete. */
template <typename T>
using PlatformPtr = std::unique_ptr<T, PlatformFree>;

} // namespace Parvane
