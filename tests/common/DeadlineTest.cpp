#include "Deadline.h"

#include <gtest/gtest.h>

namespace Parvane {
namespace {

using std::chrono::milliseconds;

TEST(DeadlineTest, NoLengthHasPassedAtOnce)
{
    EXPECT_TRUE(Deadline::After(milliseconds{0}).HasPassed());
    EXPECT_EQ(Deadline::After(milliseconds{0}).Remaining(), milliseconds{0});
    EXPECT_TRUE(Deadline::After(milliseconds{-7}).HasPassed());
    EXPECT_EQ(Deadline::After(milliseconds{-7}).Length(), milliseconds{0});
}

TEST(DeadlineTest, NeverDoesNotPass)
{
    EXPECT_FALSE(Deadline::Never().HasPassed());
    EXPECT_GT(Deadline::Never().Remaining(), std::chrono::hours{24 * 365});
}

TEST(DeadlineTest, HugeLengthsAreBoundedInsteadOfOverflowing)
{
    const Deadline deadline = Deadline::After(milliseconds::max());

    EXPECT_FALSE(deadline.HasPassed());
    EXPECT_EQ(deadline.Length(), std::chrono::hours{24 * 365});
}

TEST(DeadlineTest, EarlierPicksTheOneThatPassesFirst)
{
    const Deadline near = Deadline::After(std::chrono::minutes{1});
    const Deadline far = Deadline::After(std::chrono::minutes{2});

    EXPECT_EQ(near.Earlier(far).Length(), std::chrono::minutes{1});
    EXPECT_EQ(far.Earlier(near).Length(), std::chrono::minutes{1});
    EXPECT_EQ(Deadline::Never().Earlier(far).Length(), std::chrono::minutes{2});
}

TEST(DeadlineTest, RemainingIsRoundedUpAndAtMostTheLength)
{
    const Deadline deadline = Deadline::After(std::chrono::minutes{1});

    EXPECT_LE(deadline.Remaining(), std::chrono::minutes{1});
    EXPECT_GT(deadline.Remaining(), milliseconds{0});
}

} // namespace
} // namespace Parvane
