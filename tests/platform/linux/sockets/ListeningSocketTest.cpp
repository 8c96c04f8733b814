#include "ListeningSocket.h"

#include <filesystem>
#include <string>

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

} // namespace ParvanePlatform
