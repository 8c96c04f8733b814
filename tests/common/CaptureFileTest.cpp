#include "CaptureFile.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/resource.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Parvane {
namespace {

using Bytes = std::vector<std::uint8_t>;

// docs/capture.md: a section, and an interface of the link type 147.
const Bytes kBeginning{0x0A, 0x0D, 0x0D, 0x0A, 0x1C, 0x00, 0x00, 0x00, 0x4D, 0x3C, 0x2B, 0x1A,
                       0x01, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                       0x1C, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x14, 0x00, 0x00, 0x00,
                       0x93, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x14, 0x00, 0x00, 0x00};

// The time is in bytes 12 to 19.
const Bytes kRequest{0x06, 0x00, 0x00, 0x00, 0x34, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                     0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00, 0x05, 0x00,
                     0x00, 0x00, 0x33, 0x00, 0x00, 0x01, 0x02, 0x00, 0x00, 0x00, 0x02, 0x00, 0x04,
                     0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x34, 0x00, 0x00, 0x00};
const Bytes kReply{0x06, 0x00, 0x00, 0x00, 0x30, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                   0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x00,
                   0x04, 0x00, 0x00, 0x00, 0x14, 0x02, 0x00, 0x03, 0x02, 0x00, 0x04, 0x00,
                   0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x30, 0x00, 0x00, 0x00};
constexpr std::ptrdiff_t kTime = 12;

using testing::HasSubstr;

class CaptureFileTest : public testing::Test
{
protected:
    CaptureFileTest()
    {
        std::string folder = std::filesystem::temp_directory_path() / "capture-XXXXXX";
        mFolder = ::mkdtemp(folder.data());
        mPath = mFolder / "link.pcapng";
    }
    ~CaptureFileTest() override { std::filesystem::remove_all(mFolder); }

    [[nodiscard]] Bytes Content() const
    {
        std::ifstream file(mPath, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    /** What has been added to the beginning, with a time of 0. */
    [[nodiscard]] Bytes Added() const
    {
        Bytes content = Content();
        content.erase(content.begin(),
                      content.begin() + static_cast<std::ptrdiff_t>(kBeginning.size()));
        std::fill_n(content.begin() + kTime, 8, 0);
        return content;
    }

    std::filesystem::path mFolder;
    std::filesystem::path mPath;
    CaptureFile mFile;
};

TEST_F(CaptureFileTest, AFileBeginsWithItsSectionAndInterfaceAndIsItsOwnersAlone)
{
    EXPECT_EQ(mFile.Open(mPath, false), 0);

    EXPECT_EQ(Content(), kBeginning);
    EXPECT_EQ(std::filesystem::status(mPath).permissions(), std::filesystem::perms(0600));
}

TEST_F(CaptureFileTest, AFileThatIsThereIsReplacedOnlyWhereThatIsWanted)
{
    const std::string before(1000, 'x');
    std::ofstream(mPath) << before;

    EXPECT_EQ(mFile.Open(mPath, false), EEXIST);
    EXPECT_FALSE(mFile.IsOpen());
    EXPECT_EQ(Content(), Bytes(before.begin(), before.end()));
    for (const bool mayReplace : {false, true}) {
        EXPECT_EQ(mFile.Open("/", mayReplace), EISDIR) << "which is never replaced";
    }
    EXPECT_EQ(mFile.Open(mPath, true), 0);
    EXPECT_EQ(Content(), kBeginning);
}

TEST_F(CaptureFileTest, WhatIsSaidOfALinkIsACommentOfItsFirstPacket)
{
    ASSERT_EQ(mFile.Open(mPath, false), 0);
    mFile.LinkBegins("");
    mFile.PacketsAreMissing();
    ASSERT_EQ(mFile.Add(Sender::Phone, Bytes{0x01}), 0);
    const Bytes first = Content();
    const std::string text(first.begin(), first.end());
    mFile.LinkBegins("7:12");
    ASSERT_EQ(mFile.Add(Sender::Phone, Bytes{0x01}), 0);
    ASSERT_EQ(mFile.Add(Sender::Phone, Bytes{0x01}), 0);
    const Bytes all = Content();

    // Code 1, the length, the text, and zeros up to four bytes.
    EXPECT_THAT(text, HasSubstr(std::string("\1\0\13\0link begins\0\1\0\30\0", 20) +
                                "packets are missing here"));
    EXPECT_THAT(std::string(all.begin(), all.end()),
                HasSubstr(std::string("\1\0\25\0link begins, run 7:12\0\0\0\2\0\4\0", 32)));
    EXPECT_EQ(all.size() - first.size(), 48U + 28U + 48U); // the third one has no comment
}

TEST_F(CaptureFileTest, APacketThatWasCutHasItsWholeSize)
{
    const Bytes some{0x12, 0x00, 0x00, 0x03};
    ASSERT_EQ(mFile.Open(mPath, false), 0);
    ASSERT_EQ(mFile.Add({Sender::Phone, {}, some, 70000}), 0);

    const Bytes added = Added();
    EXPECT_EQ(Bytes(added.begin() + 20, added.begin() + 32),
              (Bytes{0x04, 0x00, 0x00, 0x00, 0x70, 0x11, 0x01, 0x00, 0x12, 0x00, 0x00, 0x03}));
}

TEST_F(CaptureFileTest, WhatThePhoneSendsIsOutboundAndPaddedToFourBytes)
{
    ASSERT_EQ(mFile.Open(mPath, false), 0);
    EXPECT_EQ(mFile.Add(Sender::Phone, Bytes{0x33, 0x00, 0x00, 0x01, 0x02}), 0);

    EXPECT_EQ(Added(), kRequest); // in the file while that is still open
}

TEST_F(CaptureFileTest, WhatTheWatchSendsIsInbound)
{
    ASSERT_EQ(mFile.Open(mPath, false), 0);
    EXPECT_EQ(mFile.Add(Sender::Watch, Bytes{0x14, 0x02, 0x00, 0x03}), 0);

    EXPECT_EQ(Added(), kReply);
}

TEST_F(CaptureFileTest, APacketHasTheTimeInMicroseconds)
{
    const auto now = [] {
        const auto time = std::chrono::system_clock::now().time_since_epoch();
        return std::chrono::floor<std::chrono::microseconds>(time).count();
    };
    ASSERT_EQ(mFile.Open(mPath, false), 0);
    const auto before = now();
    ASSERT_EQ(mFile.Add(Sender::Phone, {}), 0);
    const auto after = now();

    const Bytes content = Content();
    std::int64_t time = 0;
    for (const std::size_t byte : {3U, 2U, 1U, 0U, 7U, 6U, 5U, 4U}) { // the high half first
        time = time * 256 + content.at(kBeginning.size() + kTime + byte);
    }
    EXPECT_GE(time, before);
    EXPECT_LE(time, after);
}

TEST_F(CaptureFileTest, AFileThatIsNotOpenTakesNothing)
{
    EXPECT_EQ(mFile.Add(Sender::Phone, Bytes{0x01}), 0);
    EXPECT_EQ(mFile.Open(mFolder / "missing" / "link.pcapng", false), ENOENT);
    EXPECT_EQ(mFile.Open("/dev/full", true), ENOSPC);
}

TEST_F(CaptureFileTest, APacketWithoutRoomLeavesTheFileWholeAndIsToldOnce)
{
    ASSERT_EQ(mFile.Open(mPath, false), 0);
    rlimit usual{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &usual), 0);
    const rlimit little{kBeginning.size() + 20, usual.rlim_max};
    auto *const handler = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &little), 0);

    const int first = mFile.Add(Sender::Phone, Bytes{0x01});
    const int second = mFile.Add(Sender::Phone, Bytes{0x01});

    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &usual), 0);
    std::signal(SIGXFSZ, handler);
    EXPECT_EQ(first, ENOSPC);
    EXPECT_EQ(second, 0);
    EXPECT_EQ(Content(), kBeginning);
}

} // namespace
} // namespace Parvane
