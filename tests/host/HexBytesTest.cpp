#include "HexBytes.h"

#include <gtest/gtest.h>

namespace ParvaneHost {
namespace {

TEST(HexBytesTest, PairsAreReadWithBlanksAndColonsAnywhere)
{
    EXPECT_EQ(ParseHex("12000003").Value(), (Bytes{0x12, 0x00, 0x00, 0x03}));
    EXPECT_EQ(ParseHex("12 00 00 03").Value(), (Bytes{0x12, 0x00, 0x00, 0x03}));
    EXPECT_EQ(ParseHex("aA:bB:cC").Value(), (Bytes{0xAA, 0xBB, 0xCC}));
    EXPECT_EQ(ParseHex(" f f : 0\t9\n").Value(), (Bytes{0xFF, 0x09}));
}

TEST(HexBytesTest, WrongTextIsNamed)
{
    EXPECT_EQ(ParseHex("12 0g").GetError(),
              "character 5 is no hexadecimal digit; allowed are 0-9, a-f, A-F, blanks and colons");
    EXPECT_EQ(ParseHex("0x12").GetError(),
              "character 2 is no hexadecimal digit; allowed are 0-9, a-f, A-F, blanks and colons");
    EXPECT_EQ(ParseHex("\xff").GetError(),
              "character 1 is no hexadecimal digit; allowed are 0-9, a-f, A-F, blanks and colons");
    EXPECT_EQ(ParseHex("123").GetError(),
              "an odd number of hexadecimal digits (3); two digits make a byte");
    EXPECT_EQ(ParseHex("").GetError(), "no hexadecimal digits; a packet has at least one byte");
    EXPECT_EQ(ParseHex(" : ").GetError(), "no hexadecimal digits; a packet has at least one byte");
}

TEST(HexBytesTest, BytesAreWrittenInUpperCasePairs)
{
    EXPECT_EQ(ToHex(Bytes{0x12, 0x0A, 0xFF}), "12 0A FF");
    EXPECT_EQ(ToHex(Bytes{}), "");
}

TEST(HexBytesTest, EveryByteSurvivesTheRoundTrip)
{
    Bytes all;
    for (unsigned value = 0; value < 256; ++value) {
        all.push_back(static_cast<std::uint8_t>(value));
    }

    EXPECT_EQ(ParseHex(ToHex(all)).Value(), all);
}

} // namespace
} // namespace ParvaneHost
