#include "Files.h"

#include <cerrno>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace ParvanePlatform {

class FilesTest : public testing::Test
{
protected:
    TemporaryDirectory mDirectory;
};

TEST_F(FilesTest, DirectoriesAreMadeForTheOwnerAlone)
{
    EXPECT_EQ(MakeDirectories(mDirectory / "a/b"), 0);
    EXPECT_EQ(ModeOf(mDirectory / "a"), 0700U);
    EXPECT_EQ(ModeOf(mDirectory / "a/b"), 0700U);
    EXPECT_EQ(MakeDirectories(mDirectory / "a/b"), 0);
}

TEST_F(FilesTest, FileInTheWayOfADirectoryIsAnError)
{
    WriteFile(mDirectory / "file", "");
    EXPECT_EQ(MakeDirectories(mDirectory / "file"), ENOTDIR);
    EXPECT_EQ(MakeDirectories(mDirectory / "file/below"), ENOTDIR);
}

TEST_F(FilesTest, AtomicWriteReplacesTheFileAndLeavesNothingElse)
{
    WriteFile(mDirectory / "f", "old");
    EXPECT_EQ(WriteFileAtomically(mDirectory / "f", "new", Durability::Disk), 0);
    EXPECT_EQ(ReadFile(mDirectory / "f"), "new");
    EXPECT_EQ(ModeOf(mDirectory / "f"), 0600U);
    EXPECT_FALSE(FileExists(mDirectory / ".parvane-tmp"));
}

TEST_F(FilesTest, FailedAtomicWriteLeavesTheOldFileAndNothingElse)
{
    ASSERT_EQ(mkdir((mDirectory / "f").c_str(), 0700), 0);
    EXPECT_EQ(WriteFileAtomically(mDirectory / "f", "new", Durability::FileSystem), EISDIR);
    EXPECT_FALSE(FileExists(mDirectory / ".parvane-tmp"));
    EXPECT_EQ(WriteFileAtomically(mDirectory / "none/f", "new", Durability::FileSystem), ENOENT);
}

TEST_F(FilesTest, DeviceIsNotEvenOpened)
{
    // This one has nothing behind it: to open it is an error of its own.
    if (mknod((mDirectory / "device").c_str(), S_IFCHR | 0600, makedev(240, 0)) != 0) {
        GTEST_SKIP() << "only root can make a device";
    }
    std::string content;
    EXPECT_EQ(ReadWholeFile(mDirectory / "device", 10, content), kNotARegularFile);
    EXPECT_EQ(WriteInPlace(mDirectory / "device", "1"), kNotARegularFile);
}

TEST_F(FilesTest, WriteInPlaceChangesARegularFileThatIsThere)
{
    WriteFile(mDirectory / "f", "0\n");
    EXPECT_EQ(WriteInPlace(mDirectory / "f", "1"), 0);
    EXPECT_EQ(ReadFile(mDirectory / "f"), "1\n");
    EXPECT_EQ(WriteInPlace(mDirectory / "none", "1"), ENOENT);
    EXPECT_FALSE(FileExists(mDirectory / "none"));
    EXPECT_EQ(WriteInPlace(mDirectory.Path(), "1"), EISDIR);
}

TEST_F(FilesTest, WriteInPlaceFollowsNoLink)
{
    WriteFile(mDirectory / "elsewhere", "0\n");
    ASSERT_EQ(symlink("elsewhere", (mDirectory / "link").c_str()), 0);
    EXPECT_EQ(WriteInPlace(mDirectory / "link", "1"), kNotARegularFile);
    EXPECT_EQ(ReadFile(mDirectory / "elsewhere"), "0\n");
}

TEST_F(FilesTest, ErrorTextSaysWhatIsNoRegularFile)
{
    EXPECT_EQ(ErrorText(kNotARegularFile), "it is not a regular file");
    EXPECT_EQ(ErrorText(EINVAL), "Invalid argument");
}

TEST_F(FilesTest, ParentIsThePartBeforeTheLastSlash)
{
    EXPECT_EQ(ParentOf("/a/b"), "/a");
    EXPECT_EQ(ParentOf("/a"), "/");
    EXPECT_EQ(ParentOf("a"), ".");
}

} // namespace ParvanePlatform
