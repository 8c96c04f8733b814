#include "RecordingFile.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/resource.h>

#include <gtest/gtest.h>

namespace ParvaneWatch {
namespace {

class RecordingFileTest : public testing::Test
{
public:
    ~RecordingFileTest() override { std::filesystem::remove_all(mDirectory); }

protected:
    RecordingFileTest()
    {
        std::string pattern = std::filesystem::temp_directory_path() / "parvane-file-XXXXXX";
        EXPECT_NE(::mkdtemp(pattern.data()), nullptr);
        mDirectory = pattern;
    }
    std::string Path() const { return mDirectory / "file"; }

    std::string Content() const
    {
        std::ostringstream content;
        content << std::ifstream(Path()).rdbuf();
        return content.str();
    }

    std::filesystem::path mDirectory;
};

TEST_F(RecordingFileTest, WhatIsWrittenIsInTheFileAtOnce)
{
    RecordingFile file(Path());
    ASSERT_EQ(file.Open(false), 0);
    EXPECT_EQ(file.Write("one\n"), 0);
    EXPECT_EQ(Content(), "one\n");
    EXPECT_EQ(file.Write("two\n"), 0);
    EXPECT_EQ(file.Close(), 0);
    EXPECT_EQ(Content(), "one\ntwo\n");
}

TEST_F(RecordingFileTest, AFileThatExistsIsReplacedOnlyWhenThatIsAllowed)
{
    std::ofstream(Path()) << "precious, and longer than what comes";
    EXPECT_EQ(RecordingFile(Path()).Open(false), EEXIST);
    EXPECT_EQ(Content(), "precious, and longer than what comes");
    EXPECT_EQ(RecordingFile("/").Open(false), EISDIR) << "which is never replaced";

    RecordingFile file(Path());
    ASSERT_EQ(file.Open(true), 0);
    EXPECT_EQ(file.Write("new\n"), 0);
    EXPECT_EQ(Content(), "new\n");
}

TEST_F(RecordingFileTest, ADirectoryThatIsMissingIsAnError)
{
    EXPECT_EQ(RecordingFile(Path() + "/file").Open(true), ENOENT);
}

TEST_F(RecordingFileTest, AWriteThatStopsInTheMiddleIsAnErrorAndLeavesWholeRows)
{
    RecordingFile file(Path());
    ASSERT_EQ(file.Open(false), 0);
    ASSERT_EQ(file.Write("1234567\n"), 0);
    rlimit limit = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit small = {12, limit.rlim_max};
    const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const int error = file.Write("abcdefg\n");
    setrlimit(RLIMIT_FSIZE, &limit);
    std::signal(SIGXFSZ, oldHandler);

    EXPECT_EQ(error, EFBIG);
    EXPECT_EQ(Content(), "1234567\n");
}

TEST_F(RecordingFileTest, AFullDiskIsAnError)
{
    RecordingFile file("/dev/full");
    ASSERT_EQ(file.Open(true), 0);
    EXPECT_EQ(file.Write("row\n"), ENOSPC);
}

} // namespace
} // namespace ParvaneWatch
