#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "Phone.h"

namespace ParvaneGateway {

/** Packets that wait, in their order: kMaxWaitingBytes with all that is kept for them, or a single one. */
class PacketQueue
{
public:
    /** What a packet takes beside its bytes. */
    static constexpr std::size_t kBytesPerPacket = 32;

    /** Takes a copy. @return false when there is no room; nothing has been taken */
    bool Push(PacketBytes packet);

    [[nodiscard]] bool IsEmpty() const { return mPackets.empty(); }

    /** The oldest packet; the queue must not be empty. */
    [[nodiscard]] const std::vector<std::uint8_t> &Front() const { return mPackets.front(); }

    /** Takes the oldest packet out. */
    void Pop();

    void Clear();

private:
    std::deque<std::vector<std::uint8_t>> mPackets;
    std::size_t mBytes = 0;
};

} // namespace ParvaneGateway
