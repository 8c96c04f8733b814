#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Parvane {

/**
 * The place of a virtual operation in its class's table; the two destructors take two places.
 *
 * Reads the pointer to member as the platforms' common C++ ABI lays it out, which on ARM keeps the
 * mark of a virtual operation beside the offset and elsewhere in it.
 */
template <typename Member>
std::size_t VirtualSlot(Member member)
{
    std::uintptr_t words[2] = {};
    static_assert(sizeof member == sizeof words);
    std::memcpy(words, &member, sizeof words);
#if defined(__arm__) || defined(__aarch64__)
    const std::uintptr_t offset = words[0];
#else
    const std::uintptr_t offset = words[0] - 1;
#endif
    return offset / sizeof(void *);
}

} // namespace Parvane
