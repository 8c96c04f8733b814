#include "Directories.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "StartupError.h"
#include "TestSupport.h"

namespace ParvanePlatform {

class DirectoriesTest : public testing::Test
{
protected:
    std::string PrepareError(const std::string &path) const
    {
        try {
            PrepareDirectory(path, "state");
        } catch (const StartupError &failure) {
            return failure.what();
        }
        return "no error";
    }

    TemporaryDirectory mDirectory;
};

TEST_F(DirectoriesTest, DirectoryIsMadeWithWhatIsMissingAboveIt)
{
    EXPECT_EQ(PrepareError(mDirectory / "a/b"), "no error");
    EXPECT_EQ(ModeOf(mDirectory / "a/b"), 0700U);
    EXPECT_EQ(PrepareError(mDirectory / "a/b"), "no error");
}

TEST_F(DirectoriesTest, FileInTheWayIsNamedWithTheReason)
{
    WriteFile(mDirectory / "f", "");
    EXPECT_EQ(PrepareError(mDirectory / "f"),
              "cannot use the state directory " + (mDirectory / "f") + ": Not a directory");
}

TEST_F(DirectoriesTest, ClosedDirectoryIsNamedWithTheReason)
{
    const ClosedDirectory closed(mDirectory.Path());
    EXPECT_EQ(PrepareError(mDirectory.Path()),
              "cannot use the state directory " + mDirectory.Path() + ": Permission denied");
    EXPECT_EQ(PrepareError(mDirectory / "a"),
              "cannot use the state directory " + (mDirectory / "a") + ": Permission denied");
}

TEST_F(DirectoriesTest, OneHolderAtATimeHasTheLock)
{
    auto first = std::make_unique<InstanceLock>(mDirectory.Path());
    EXPECT_TRUE(first->IsHeld());
    EXPECT_FALSE(InstanceLock(mDirectory.Path()).IsHeld());
    EXPECT_EQ(ModeOf(mDirectory / "lock"), 0600U);

    first.reset();
    EXPECT_TRUE(InstanceLock(mDirectory.Path()).IsHeld());
}

TEST_F(DirectoriesTest, UnusableLockFileIsNamedWithTheReason)
{
    try {
        const InstanceLock lock(mDirectory / "none");
        FAIL() << "no error";
    } catch (const StartupError &failure) {
        EXPECT_EQ(failure.what(), "cannot use the lock file " + (mDirectory / "none/lock") +
                                      ": No such file or directory");
    }
}

} // namespace ParvanePlatform
