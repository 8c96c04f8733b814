#include "Backoff.h"

#include <gtest/gtest.h>

namespace ParvaneHost {
namespace {

using std::chrono::milliseconds;

TEST(BackoffTest, DoublesUpToTheLongestAndStaysThere)
{
    Backoff backoff(milliseconds{100}, milliseconds{700});

    EXPECT_EQ(backoff.Next(), milliseconds{100});
    EXPECT_EQ(backoff.Next(), milliseconds{200});
    EXPECT_EQ(backoff.Next(), milliseconds{400});
    EXPECT_EQ(backoff.Next(), milliseconds{700});
    EXPECT_EQ(backoff.Next(), milliseconds{700});
}

TEST(BackoffTest, ResetBeginsAgain)
{
    Backoff backoff(milliseconds{100}, milliseconds{800});
    backoff.Next();
    backoff.Next();

    backoff.Reset();

    EXPECT_EQ(backoff.Next(), milliseconds{100});
}

TEST(BackoffTest, NeverReturnsZeroOrOverflows)
{
    Backoff idle(milliseconds{0}, milliseconds{-5});
    EXPECT_EQ(idle.Next(), milliseconds{1});
    EXPECT_EQ(idle.Next(), milliseconds{1});

    Backoff endless(milliseconds::max(), milliseconds::max());
    EXPECT_EQ(endless.Next(), milliseconds::max());
    EXPECT_EQ(endless.Next(), milliseconds::max());
}

} // namespace
} // namespace ParvaneHost
