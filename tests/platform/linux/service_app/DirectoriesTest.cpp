#include "Directories.h"

#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

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

TEST_F(DirectoriesTest, DirectoryThatOthersMayWriteToIsRefusedWithModeAndOwner)
{
    const std::string owner = std::to_string(geteuid());
    const std::string path = mDirectory / "s";
    EXPECT_EQ(PrepareError(path), "no error");
    for (const unsigned mode : {0755U, 0711U, 02750U}) {
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        EXPECT_EQ(PrepareError(path), "no error");
    }
    for (const auto &[mode, text] : {std::pair(0720U, "0720"), {0702U, "0702"}, {01777U, "1777"}}) {
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        EXPECT_EQ(
            PrepareError(path),
            "cannot use the state directory " + path + ": it has mode " + text + " and owner " +
                owner +
                "; expected are a mode that lets nobody else write, such as 0700, and owner " +
                owner);
    }
}

TEST_F(DirectoriesTest, DirectoryOfSomebodyElseIsRefused)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs two users";
    }
    ASSERT_EQ(chown(mDirectory.Path().c_str(), 65534, 0), 0);
    EXPECT_EQ(PrepareError(mDirectory.Path()),
              "cannot use the state directory " + mDirectory.Path() +
                  ": it has mode 0700 and owner 65534; expected are a mode that lets nobody else "
                  "write, such as 0700, and owner 0");
}

TEST_F(DirectoriesTest, OneHolderAtATimeHasTheLock)
{
    for (const auto &lock : {InstanceLock::OfRunTime, InstanceLock::OfState}) {
        auto first = std::make_unique<InstanceLock>(lock(mDirectory.Path()));
        EXPECT_TRUE(first->IsHeld());
        EXPECT_FALSE(lock(mDirectory.Path()).IsHeld());

        first.reset();
        EXPECT_TRUE(lock(mDirectory.Path()).IsHeld());
    }
    EXPECT_EQ(ModeOf(mDirectory / "lock"), 0600U);
}

TEST_F(DirectoriesTest, OneDirectoryMayServeForBoth)
{
    const InstanceLock runTime = InstanceLock::OfRunTime(mDirectory.Path());
    EXPECT_TRUE(InstanceLock::OfState(mDirectory.Path()).IsHeld());
}

TEST_F(DirectoriesTest, UnusableLockFileIsNamedWithTheReason)
{
    try {
        const InstanceLock lock = InstanceLock::OfRunTime(mDirectory / "none");
        FAIL() << "no error";
    } catch (const StartupError &failure) {
        EXPECT_EQ(failure.what(),
                  "cannot lock " + (mDirectory / "none/lock") + ": No such file or directory");
    }
}

} // namespace ParvanePlatform
