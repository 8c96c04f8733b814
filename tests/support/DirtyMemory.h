#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace Parvane {

/** Gives back small blocks that are not 0, so that malloc hands out such next: who leaves a byte out is seen. */
inline void LeaveDirtyMemory()
{
    for (const std::size_t size : {std::size_t{24}, std::size_t{40}}) {
        std::array<void *, 32> blocks = {};
        for (void *&block : blocks) {
            block = std::malloc(size);
            auto *const bytes = static_cast<volatile uint8_t *>(block);
            for (std::size_t i = 0; i < size; ++i) {
                bytes[i] = 0xA5;
            }
        }
        for (void *const block : blocks) {
            std::free(block);
        }
    }
}

} // namespace Parvane
