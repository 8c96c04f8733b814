#include "UniqueFd.h"

#include <fcntl.h>

#include <gtest/gtest.h>

#include "Pipe.h"

namespace Parvane {
namespace {

bool IsOpen(int fd)
{
    return ::fcntl(fd, F_GETFD) >= 0;
}

TEST(UniqueFdTest, TheDescriptorIsClosedAtTheEnd)
{
    int fd = -1;
    {
        const Pipe pipe;
        fd = pipe.mReadEnd.Get();
        EXPECT_TRUE(IsOpen(fd));
    }
    EXPECT_FALSE(IsOpen(fd));
}

TEST(UniqueFdTest, AMoveLeavesNothingBehind)
{
    Pipe pipe;
    const int fd = pipe.mReadEnd.Get();
    UniqueFd moved(std::move(pipe.mReadEnd));
    EXPECT_FALSE(pipe.mReadEnd); // NOLINT(bugprone-use-after-move): this is what is tested
    EXPECT_EQ(moved.Get(), fd);

    const int other = pipe.mWriteEnd.Get();
    moved = std::move(pipe.mWriteEnd);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(moved.Get(), other);
}

TEST(UniqueFdTest, ResetClosesWhatWasHeld)
{
    Pipe pipe;
    const int fd = pipe.mReadEnd.Get();
    pipe.mReadEnd.Reset(::dup(pipe.mWriteEnd.Get()));
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_TRUE(pipe.mReadEnd);
    pipe.mReadEnd.Reset();
    EXPECT_EQ(pipe.mReadEnd.Get(), -1);
}

} // namespace
} // namespace Parvane
