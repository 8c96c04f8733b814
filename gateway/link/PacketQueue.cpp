#include "PacketQueue.h"

namespace ParvaneGateway {

bool PacketQueue::Push(PacketBytes packet)
{
    const std::size_t bytes = packet.size() + kBytesPerPacket;
    if (!mPackets.empty() && mBytes + bytes > kMaxWaitingBytes) {
        return false;
    }
    mPackets.emplace_back(packet.begin(), packet.end());
    mBytes += bytes;
    return true;
}

void PacketQueue::Pop()
{
    mBytes -= mPackets.front().size() + kBytesPerPacket;
    mPackets.pop_front();
}

void PacketQueue::Clear()
{
    mPackets.clear();
    mBytes = 0;
}

} // namespace ParvaneGateway
