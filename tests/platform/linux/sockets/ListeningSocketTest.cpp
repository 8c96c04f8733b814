#include "ListeningSocket.h"

#include <filesystem>
#include <string>

#include <glib.h>
#include <gtest/gtest.h>

#include "StartupError.h"
#include "TestSupport.h"

namespace ParvanePlatform {

class ListeningSocketTest : public testing::Test
{
protected:
    std::string Path() const { return mDirectory / "link.sock"; }

    /** What the making of the socket fails with. */
    std::string Error() const
    {
        try {
            const ListeningSocket socket(Path(), "test", mClock, [] {});
        } catch (const StartupError &failure) {
            return failure.what();
        }
        return "no error";
    }

    TemporaryDirectory mDirectory;
    ManualClock mClock;
};

TEST_F(ListeningSocketTest, OnlyASocketIsReplaced)
{
    {
        const ListeningSocket socket(Path(), "test", mClock, [] {});
        std::filesystem::create_hard_link(Path(), mDirectory / "left");
    }
    std::filesystem::rename(mDirectory / "left", Path());
    EXPECT_EQ(Error(), "no error");

    const std::string refused =
        "cannot make the socket " + Path() + ": something else has its place; move it away";
    WriteFile(Path(), "a user's");
    EXPECT_EQ(Error(), refused);
    EXPECT_EQ(ReadFile(Path()), "a user's");

    std::filesystem::rename(Path(), mDirectory / "file");
    std::filesystem::create_symlink("file", Path());
    EXPECT_EQ(Error(), refused);
    EXPECT_TRUE(std::filesystem::is_symlink(Path()));

    std::filesystem::remove(Path());
    std::filesystem::create_directory(Path());
    EXPECT_EQ(Error(), refused);
}

TEST_F(ListeningSocketTest, RefusedConnectionsAreOneLineAndThenACountAMinute)
{
    // Time of the main loop's own scale: what is due in a minute must not be due at once.
    mClock.mMonotonicUs = g_get_monotonic_time();
    ListeningSocket socket(Path(), "test", mClock, [] {});
    StderrCapture first;
    socket.LogRefusal("a host is refused");
    EXPECT_EQ(first.Take(), "W platform: test: a host is refused\n");
    EXPECT_EQ(NextWakeMs(), -1);

    StderrCapture second;
    for (int i = 0; i < 150000; ++i) {
        socket.LogRefusal("a host is refused");
    }
    EXPECT_GT(NextWakeMs(), 50000);
    RunWhileBusy();
    EXPECT_EQ(second.Take(), "");
}

TEST_F(ListeningSocketTest, TheCountOfRefusedConnectionsEndsItsTimerAndBeginsAnotherMinute)
{
    // A minute of this clock is over at once for the main loop.
    ListeningSocket socket(Path(), "test", mClock, [] {});
    StderrCapture log;
    for (int i = 0; i < 4; ++i) {
        socket.LogRefusal("a host is refused");
    }
    mClock.mMonotonicUs += ListeningSocket::kQuietMs * 1000;
    ASSERT_EQ(NextWakeMs(), 0);
    RunWhileBusy();
    EXPECT_EQ(NextWakeMs(), -1);
    socket.LogRefusal("another one");
    RunWhileBusy();
    mClock.mMonotonicUs += 2 * ListeningSocket::kQuietMs * 1000;
    socket.LogRefusal("a host of user 5 is refused");
    EXPECT_EQ(log.Take(), "W platform: test: a host is refused\n"
                          "W platform: test: 3 more connections were refused in the last minute\n"
                          "W platform: test: 1 more connections were refused in the last minute\n"
                          "W platform: test: a host of user 5 is refused\n");
}

} // namespace ParvanePlatform
