#include "WakeLockBackend.h"

#include <cstdio>
#include <limits>
#include <memory>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace ParvanePlatform {

/** The two files, as plain ones: each holds what was written to it last. */
class WakeLockBackendTest : public testing::Test
{
protected:
    WakeLockBackendTest() { MakeFiles(); }

    void MakeFiles() const
    {
        WriteFile(mRoot / "wake_lock", "");
        WriteFile(mRoot / "wake_unlock", "");
    }

    std::string Locked() const { return ReadFile(mRoot / "wake_lock"); }
    std::string Unlocked() const { return ReadFile(mRoot / "wake_unlock"); }

    static std::string NameOf(int number)
    {
        return "parvane-" + std::to_string(getpid()) + '-' + std::to_string(number);
    }

    TemporaryDirectory mRoot;
    WakeLockBackend mBackend{mRoot.Path()};
};

TEST_F(WakeLockBackendTest, HoldIsANameWithATimeAfterWhichTheKernelEndsIt)
{
    auto hold = mBackend.Hold(16000);
    ASSERT_NE(hold, nullptr);
    EXPECT_EQ(Locked(), NameOf(1) + " 17000000000");
    EXPECT_EQ(Unlocked(), "");

    hold.reset();
    EXPECT_EQ(Unlocked(), NameOf(1));
}

TEST_F(WakeLockBackendTest, LongestTimeDoesNotOverflow)
{
    const auto hold = mBackend.Hold(std::numeric_limits<int>::max());
    EXPECT_EQ(Locked(), NameOf(1) + " 2147484647000000");
}

TEST_F(WakeLockBackendTest, OverlappingHoldsHaveNamesOfTheirOwn)
{
    auto first = mBackend.Hold(1000);
    const auto second = mBackend.Hold(1000);
    EXPECT_EQ(Locked(), NameOf(2) + " 2000000000");
    first.reset();
    EXPECT_EQ(Unlocked(), NameOf(1));
}

TEST_F(WakeLockBackendTest, MissingFileIsOneLineUntilItIsThereAgain)
{
    ASSERT_EQ(std::remove((mRoot / "wake_lock").c_str()), 0);
    StderrCapture capture;
    EXPECT_EQ(mBackend.Hold(1000), nullptr);
    EXPECT_EQ(mBackend.Hold(1000), nullptr);
    EXPECT_EQ(Unlocked(), "");
    MakeFiles();
    EXPECT_NE(mBackend.Hold(1000), nullptr);
    EXPECT_EQ(capture.Take(), "W platform: power: no wake lock: " + (mRoot / "wake_lock") +
                                  ": No such file or directory\n"
                                  "I platform: power: " +
                                  (mRoot / "wake_lock") + " works again\n");
}

TEST_F(WakeLockBackendTest, RefusedWriteIsNoHold)
{
    ASSERT_EQ(std::remove((mRoot / "wake_lock").c_str()), 0);
    ASSERT_EQ(symlink("/dev/full", (mRoot / "wake_lock").c_str()), 0);
    StderrCapture capture;
    EXPECT_EQ(mBackend.Hold(1000), nullptr);
    EXPECT_EQ(capture.Take(), "W platform: power: no wake lock: " + (mRoot / "wake_lock") +
                                  ": No space left on device\n");
}

TEST_F(WakeLockBackendTest, HoldThatCannotBeReleasedIsLeftToTheKernel)
{
    auto hold = mBackend.Hold(1000);
    ASSERT_EQ(std::remove((mRoot / "wake_unlock").c_str()), 0);
    StderrCapture capture;
    hold.reset();
    EXPECT_EQ(capture.Take(), "W platform: power: wake lock " + NameOf(1) +
                                  " is left to its end: " + (mRoot / "wake_unlock") +
                                  ": No such file or directory\n");
}

} // namespace ParvanePlatform
