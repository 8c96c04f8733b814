#include "PacketData.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

class PacketDataTest : public testing::Test
{
protected:
    // A packet of `size` bytes that nothing has written yet, each of them 0xAA.
    void Allocate(uint32_t size) { std::memset(mPacket.Allocate(size), 0xAA, size); }

    Bytes Written() const
    {
        return Bytes(mPacket.mBuffer.get(), mPacket.mBuffer.get() + mPacket.mSize);
    }

    PacketData mPacket;
};

TEST_F(PacketDataTest, NewPacketHasNoBytes)
{
    EXPECT_EQ(nullptr, mPacket.mBuffer);
    EXPECT_EQ(0U, mPacket.mSize);
}

TEST_F(PacketDataTest, AllocateReturnsTheBufferOfTheGivenSize)
{
    const uint8_t *const bytes = mPacket.Allocate(18);

    EXPECT_NE(nullptr, bytes);
    EXPECT_EQ(bytes, mPacket.mBuffer.get());
    EXPECT_EQ(18U, mPacket.mSize);
}

TEST_F(PacketDataTest, SecondAllocateTakesOverAndLeavesTheFirstBytesToTheCaller)
{
    uint8_t *const first = mPacket.Allocate(18);
    const uint8_t *const second = mPacket.Allocate(4);

    EXPECT_EQ(second, mPacket.mBuffer.get());
    EXPECT_EQ(4U, mPacket.mSize);
    first[17] = 1; // still there
    std::free(first);
}

TEST_F(PacketDataTest, AllocateWithoutMemoryLeavesThePacketAsItWas)
{
    ScriptedPlatform platform;
    const uint8_t *const bytes = mPacket.Allocate(18);

    platform.FailAllocation(1);
    EXPECT_THROW(ScriptedPlatform::AsService([this] { mPacket.Allocate(4); }), std::bad_alloc);

    EXPECT_TRUE(platform.StopFailingAllocations());
    EXPECT_EQ(bytes, mPacket.mBuffer.get());
    EXPECT_EQ(18U, mPacket.mSize);
}

TEST_F(PacketDataTest, SetByteStoresTheLowByteOnly)
{
    Allocate(3);

    mPacket.SetByte(0x12345678, 1);

    EXPECT_EQ((Bytes{0xAA, 0x78, 0xAA}), Written());
}

TEST_F(PacketDataTest, SetByteOfMinusOneStoresFF)
{
    Allocate(1);

    mPacket.SetByte(-1, 0);

    EXPECT_EQ((Bytes{0xFF}), Written());
}

TEST_F(PacketDataTest, SetBytesCopiesTheGivenLengthAndNoMore)
{
    Allocate(5);
    const uint8_t source[] = {1, 2, 3, 4};

    mPacket.SetBytes(source, 1, 3);

    EXPECT_EQ((Bytes{0xAA, 1, 2, 3, 0xAA}), Written());
}

TEST_F(PacketDataTest, SetShortWritesTwoBytesBigEndian)
{
    Allocate(6);

    mPacket.SetShort(0x1234, 3);

    EXPECT_EQ((Bytes{0xAA, 0xAA, 0xAA, 0x12, 0x34, 0xAA}), Written());
}

TEST_F(PacketDataTest, SetShortOfANegativeValueWritesItsTwosComplement)
{
    Allocate(2);

    mPacket.SetShort(-2, 0);

    EXPECT_EQ((Bytes{0xFF, 0xFE}), Written());
}

TEST_F(PacketDataTest, SetIntWritesFourBytesBigEndian)
{
    Allocate(6);

    mPacket.SetInt(0x12345678, 1);

    EXPECT_EQ((Bytes{0xAA, 0x12, 0x34, 0x56, 0x78, 0xAA}), Written());
}

TEST_F(PacketDataTest, SetIntOfTheLeastValueWritesItsTwosComplement)
{
    Allocate(4);

    mPacket.SetInt(std::numeric_limits<int32_t>::min(), 0);

    EXPECT_EQ((Bytes{0x80, 0, 0, 0}), Written());
}

TEST_F(PacketDataTest, SetFloatWritesTheSinglePrecisionPatternBigEndian)
{
    Allocate(6);

    mPacket.SetFloat(72.0F, 1);

    EXPECT_EQ((Bytes{0xAA, 0x42, 0x90, 0x00, 0x00, 0xAA}), Written());
}

TEST_F(PacketDataTest, SetFloatOfANegativeFractionWritesItsPattern)
{
    Allocate(4);

    mPacket.SetFloat(-2.5F, 0);

    EXPECT_EQ((Bytes{0xC0, 0x20, 0x00, 0x00}), Written());
}

TEST_F(PacketDataTest, SetTimeMillisWritesTheWrappedProductIntoTheLowHalfAndZerosBeforeIt)
{
    Allocate(8);

    mPacket.SetTimeMillis(1400000000, 0);

    EXPECT_EQ((Bytes{0, 0, 0, 0, 0xF6, 0x80, 0xB0, 0x00}), Written());
}

TEST_F(PacketDataTest, SetTimeMillisOfSmallTimesDoesNotWrap)
{
    Allocate(10);

    mPacket.SetTimeMillis(1000, 1);

    EXPECT_EQ((Bytes{0xAA, 0, 0, 0, 0, 0x00, 0x0F, 0x42, 0x40, 0xAA}), Written());
}

TEST_F(PacketDataTest, SetTimeMillisWrapsAtTheFirstSecondThatDoesNotFit)
{
    Allocate(8);

    mPacket.SetTimeMillis(4294968, 0);

    EXPECT_EQ((Bytes{0, 0, 0, 0, 0x00, 0x00, 0x02, 0xC0}), Written());
}

TEST_F(PacketDataTest, SetTimeMillisTakesTheLatestAndNegativeTimes)
{
    Allocate(16);

    mPacket.SetTimeMillis(2147483647, 0);
    mPacket.SetTimeMillis(-1, 8);

    EXPECT_EQ((Bytes{0, 0, 0, 0, 0xFF, 0xFF, 0xFC, 0x18, 0, 0, 0, 0, 0xFF, 0xFF, 0xFC, 0x18}),
              Written());
}

} // namespace
} // namespace Parvane
