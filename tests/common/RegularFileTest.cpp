#include "RegularFile.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>

#include <gtest/gtest.h>

namespace Parvane {
namespace {

class RegularFileTest : public testing::Test
{
protected:
    RegularFileTest() { EXPECT_NE(::mkdtemp(mFolder.data()), nullptr); }
    ~RegularFileTest() override { std::filesystem::remove_all(mFolder); }

    int Read(const std::string &name, std::size_t maxBytes)
    {
        return ReadWholeFile(mFolder + "/" + name, maxBytes, mContent);
    }

    std::string mFolder = std::filesystem::temp_directory_path() / "parvane-XXXXXX";
    std::string mContent = "untouched";
};

TEST_F(RegularFileTest, ReadingIsBounded)
{
    std::ofstream(mFolder + "/f") << "12345";
    EXPECT_EQ(Read("f", 4), EFBIG);
    EXPECT_EQ(mContent, "untouched");
    EXPECT_EQ(Read("f", 5), 0);
    EXPECT_EQ(mContent, "12345");
}

TEST_F(RegularFileTest, NothingElseIsRead)
{
    ASSERT_EQ(::mkfifo((mFolder + "/fifo").c_str(), 0600), 0);
    EXPECT_EQ(Read("fifo", 10), kNotARegularFile);
    EXPECT_EQ(Read("", 10), EISDIR);
    EXPECT_EQ(Read("none", 10), ENOENT);
    EXPECT_EQ(ErrnoText(Read("fifo", 10)), "it is not a regular file");
    EXPECT_EQ(mContent, "untouched");
}

} // namespace
} // namespace Parvane
