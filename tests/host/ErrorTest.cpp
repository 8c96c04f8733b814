#include "Error.h"

#include <cerrno>

#include <gtest/gtest.h>

#include "Failure.h"

namespace ParvaneHost {
namespace {

using std::chrono::milliseconds;

TEST(ErrorTest, SecondsAreWrittenWithoutNeedlessDecimals)
{
    EXPECT_EQ(SecondsText(milliseconds{0}), "0 s");
    EXPECT_EQ(SecondsText(milliseconds{20000}), "20 s");
    EXPECT_EQ(SecondsText(milliseconds{2500}), "2.5 s");
    EXPECT_EQ(SecondsText(milliseconds{1001}), "1.001 s");
    EXPECT_EQ(SecondsText(milliseconds{50}), "0.05 s");
}

TEST(ErrorTest, LinkErrorsNameThePathAndTheReason)
{
    using Reason = LinkError::Reason;
    EXPECT_EQ(
        Describe(LinkError{Reason::CannotConnect, EACCES, "/x"}),
        "cannot connect to /x: Permission denied (the watch service serves its own user, and root)");
    EXPECT_EQ(Describe(LinkError{Reason::CannotConnect, ENOENT, "/x"}),
              "cannot connect to /x: No such file or directory (is the watch service running?)");
    EXPECT_EQ(
        Describe(LinkError{Reason::AnotherHost, 0, "/x"}),
        "the watch closed the link /x at once: another host is connected, or it does not serve this user");
    EXPECT_EQ(Describe(LinkError{Reason::Closed, 0, "/x"}), "the watch closed the link /x");
    EXPECT_EQ(Describe(LinkError{Reason::Failed, EMSGSIZE, "/x"}),
              "the link /x failed: Message too long");
}

TEST(ErrorTest, TheOtherErrorsSayWhatHappened)
{
    EXPECT_EQ(Describe(NoAnswer("the sensor list", milliseconds{5000})),
              "no answer to the sensor list within 5 s");
    EXPECT_EQ(Describe(Failure{Failure::Reason::Malformed, "nonsense"}),
              "the watch broke the protocol: nonsense");
    EXPECT_EQ(Describe(Failure{Failure::Reason::Unsupported, "no such thing"}), "no such thing");
    EXPECT_EQ(Describe(Interrupted{}), "interrupted");
}

} // namespace
} // namespace ParvaneHost
