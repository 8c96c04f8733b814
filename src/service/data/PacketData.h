#pragma once

#include <cstddef>
#include <cstdint>

#include "PlatformPtr.h"

namespace Parvane {

/**
 * The bytes of one packet, with big-endian writers. Which bytes a packet has: ResponseDataGenerator.
 *
 * No writer checks bounds: whoever allocates the packet keeps offsets within it.
 */
class PacketData
{
public:
    PacketData() = default;
    PacketData(const PacketData &) = delete;
    PacketData &operator=(const PacketData &) = delete;
    virtual ~PacketData() = default;

    /**
     * Gives the packet `size` bytes of no defined value.
     *
     * @return the bytes, which the packet owns; those of an earlier call are the caller's from now on
     * @throws std::bad_alloc when memory has run out
     */
    uint8_t *Allocate(uint32_t size);

    /** Stores the low byte of `value`. */
    void SetByte(int32_t value, std::size_t offset);

    /** Copies `length` bytes. */
    void SetBytes(const void *source, std::size_t offset, std::size_t length);

    /** Stores 2 bytes. */
    void SetShort(int16_t value, std::size_t offset);

    /** Stores 4 bytes. */
    void SetInt(int32_t value, std::size_t offset);

    /** Stores the 4 bytes of the IEEE-754 single-precision pattern. */
    void SetFloat(float value, std::size_t offset);

    /**
     * Stores `seconds` as milliseconds in 8 bytes.
     *
     * The milliseconds are computed modulo 2^32; the high four bytes are 0.
     */
    void SetTimeMillis(int32_t seconds, std::size_t offset);

    /** The bytes; null before Allocate. */
    PlatformPtr<uint8_t> mBuffer;

    /** Number of bytes. */
    uint32_t mSize = 0;
};

} // namespace Parvane
