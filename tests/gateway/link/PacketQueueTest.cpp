#include "PacketQueue.h"

#include <gtest/gtest.h>

namespace ParvaneGateway {
namespace {

using Packet = std::vector<std::uint8_t>;

TEST(PacketQueueTest, KeepsPacketsWholeAndInOrder)
{
    PacketQueue queue;
    EXPECT_TRUE(queue.Push(Packet{1, 2}));
    EXPECT_TRUE(queue.Push(Packet{}));
    EXPECT_TRUE(queue.Push(Packet{3}));

    EXPECT_EQ(queue.Front(), (Packet{1, 2}));
    queue.Pop();
    EXPECT_EQ(queue.Front(), Packet{});
    queue.Pop();
    EXPECT_EQ(queue.Front(), Packet{3});
    queue.Pop();
    EXPECT_TRUE(queue.IsEmpty());
}

TEST(PacketQueueTest, HoldsAtMost64KiB)
{
    PacketQueue queue;
    std::size_t count = 0;
    while (queue.Push(Packet(25))) {
        ++count;
    }
    EXPECT_EQ(count, 65536U / (25 + 32));

    queue.Pop();
    EXPECT_TRUE(queue.Push(Packet(25)));
    EXPECT_FALSE(queue.Push(Packet(25)));
}

TEST(PacketQueueTest, ALongestPacketHasRoomAlone)
{
    PacketQueue queue;
    EXPECT_TRUE(queue.Push(Packet(65531)));
    EXPECT_FALSE(queue.Push(Packet{1}));
}

} // namespace
} // namespace ParvaneGateway
