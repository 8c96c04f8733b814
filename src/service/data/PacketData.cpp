#include "PacketData.h"

#include <bit>
#include <cstring>
#include <new>

namespace Parvane {

namespace {

constexpr uint32_t kMillisPerSecond = 1000;

void StoreBigEndian(uint8_t *target, uint32_t value, std::size_t length)
{
    for (std::size_t i = 0; i < length; ++i) {
        target[length - 1 - i] = static_cast<uint8_t>(value >> (8 * i));
    }
}

} // namespace

uint8_t *PacketData::Allocate(uint32_t size)
{
    auto *const buffer = static_cast<uint8_t *>(std::malloc(size));
    if (buffer == nullptr && size != 0) {
        throw std::bad_alloc();
    }
    (void)mBuffer.release(); // whoever has asked for the earlier bytes may still use them
    mBuffer.reset(buffer);
    mSize = size;
    return buffer;
}

// The packet's bytes are part of the packet, so its writers are not const.
// NOLINTBEGIN(readability-make-member-function-const)

void PacketData::SetByte(int32_t value, std::size_t offset)
{
    mBuffer.get()[offset] = static_cast<uint8_t>(value);
}

void PacketData::SetBytes(const void *source, std::size_t offset, std::size_t length)
{
    std::memcpy(mBuffer.get() + offset, source, length);
}

void PacketData::SetShort(int16_t value, std::size_t offset)
{
    StoreBigEndian(mBuffer.get() + offset, static_cast<uint16_t>(value), 2);
}

void PacketData::SetInt(int32_t value, std::size_t offset)
{
    StoreBigEndian(mBuffer.get() + offset, static_cast<uint32_t>(value), 4);
}

void PacketData::SetFloat(float value, std::size_t offset)
{
    StoreBigEndian(mBuffer.get() + offset, std::bit_cast<uint32_t>(value), 4);
}

void PacketData::SetTimeMillis(int32_t seconds, std::size_t offset)
{
    StoreBigEndian(mBuffer.get() + offset, 0, 4);
    StoreBigEndian(mBuffer.get() + offset + 4, static_cast<uint32_t>(seconds) * kMillisPerSecond,
                   4);
}

// NOLINTEND(readability-make-member-function-const)

} // namespace Parvane
