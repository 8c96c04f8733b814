#include "CaptureReader.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneHost {
namespace {

using Parvane::CaptureFile;
using Parvane::Sender;
using std::chrono::microseconds;
using testing::HasSubstr;

using Time = std::chrono::sys_time<microseconds>;

/** What the writer makes of some packets. */
Bytes Written()
{
    const std::string path =
        std::filesystem::temp_directory_path() / ("reader-" + std::to_string(::getpid()));
    CaptureFile file;
    EXPECT_EQ(file.Open(path, true), 0);
    file.LinkBegins("7:12");
    EXPECT_EQ(file.Add({Sender::Phone, Time(microseconds(1769862896789012)),
                        Bytes{0x13, 0x00, 0x00, 0x01, 0x00}, 5}),
              0);
    file.PacketsAreMissing();
    EXPECT_EQ(file.Add({Sender::Watch, Time(microseconds(1769862896789999)), Bytes{}, 0}), 0);
    std::ifstream stream(path, std::ios::binary);
    Bytes bytes{std::istreambuf_iterator<char>(stream), {}};
    std::filesystem::remove(path);
    return bytes;
}

std::string ErrorOf(const Bytes &file)
{
    const auto read = ReadCapture(file);
    return read ? "none" : read.GetError();
}

/** A section and an interface whose numbers begin with the largest byte, and times of nanoseconds. */
const Bytes kBigEndian{0x0A, 0x0D, 0x0D, 0x0A, 0, 0,   0,    0x1C, 0x1A, 0x2B,
                       0x3C, 0x4D, 0,    1,    0, 0,   0xFF, 0xFF, 0xFF, 0xFF,
                       0xFF, 0xFF, 0xFF, 0xFF, 0, 0,   0,    0x1C, // the section
                       0,    0,    0,    1,    0, 0,   0,    0x20, 0,    0x93,
                       0,    0,    0,    0,    0, 0, // the interface
                       0,    9,    0,    1,    9, 0,   0,    0,    0,    0,
                       0,    0,    0,    0,    0, 0x20};

TEST(CaptureReaderTest, WhatIsWrittenIsRead)
{
    const auto read = ReadCapture(Written());

    ASSERT_TRUE(read) << read.GetError();
    EXPECT_EQ(read.Value(), (std::vector<CapturedMessage>{{Time(microseconds(1769862896789012)),
                                                           Sender::Phone,
                                                           {0x13, 0x00, 0x00, 0x01, 0x00},
                                                           {"link begins, run 7:12"}},
                                                          {Time(microseconds(1769862896789999)),
                                                           Sender::Watch,
                                                           {},
                                                           {"packets are missing here"}}}));
}

TEST(CaptureReaderTest, AFileThatIsCutOffAnywhereHasThePacketsBefore)
{
    const Bytes whole = Written();
    std::size_t shortest = whole.size();
    for (std::size_t size = 12; size < whole.size(); ++size) {
        const auto read = ReadCapture(std::span(whole).first(size));
        ASSERT_TRUE(read) << size;
        ASSERT_LT(read.Value().size(), 2U) << size;
        shortest = read.Value().size() == 1 ? std::min(shortest, size) : shortest;
    }
    EXPECT_LT(shortest, whole.size());
}

TEST(CaptureReaderTest, TheOtherByteOrderAndAnotherResolutionAreRead)
{
    Bytes file = kBigEndian;
    // 1000000001 s and 1500 ns, and no options; in it is one byte.
    const Bytes packet{0,    0,    0,    6,    0,    0,    0,    0x24, 0, 0, 0, 0,
                       0x0D, 0xE0, 0xB6, 0xB3, 0xE2, 0xFE, 0xCF, 0xDC, 0, 0, 0, 1,
                       0,    0,    0,    1,    0x7F, 0,    0,    0,    0, 0, 0, 0x24};
    file.insert(file.end(), packet.begin(), packet.end());

    const auto read = ReadCapture(file);

    ASSERT_TRUE(read) << read.GetError();
    EXPECT_EQ(read.Value(), (std::vector<CapturedMessage>{
                                {Time(microseconds(1000000001000001)), std::nullopt, {0x7F}, {}}}));
}

TEST(CaptureReaderTest, WhatIsNoCaptureOfTheLinkSaysWhy)
{
    EXPECT_EQ(ErrorOf({}), "it is no pcapng file");
    EXPECT_EQ(ErrorOf(Bytes(100, 'x')), "it is no pcapng file");
    Bytes magic = Written();
    magic[8] ^= 1;
    EXPECT_EQ(ErrorOf(magic), "it is no pcapng file");
    Bytes ethernet = Written();
    ethernet[36] = 1;
    EXPECT_EQ(ErrorOf(ethernet), "it is a capture of something else, of the link type 1");
    Bytes length = Written();
    length[52] = 7;
    EXPECT_EQ(ErrorOf(length), "a block has a length of 7");
    Bytes interface = Written();
    interface[56] = 1;
    EXPECT_THAT(ErrorOf(interface), HasSubstr("no interface"));
    Bytes captured = Written();
    captured[68] = 0xFF;
    EXPECT_THAT(ErrorOf(captured), HasSubstr("longer than its block"));
    Bytes binary = kBigEndian;
    binary[48] = 0x86;
    EXPECT_THAT(ErrorOf(binary), HasSubstr("resolution"));
}

} // namespace
} // namespace ParvaneHost
