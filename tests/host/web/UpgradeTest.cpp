#include "Upgrade.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "AcceptKey.h"

namespace ParvaneHost {
namespace {

using Reason = LinkError::Reason;
using ::testing::HasSubstr;

class UpgradeTest : public ::testing::Test
{
protected:
    UpgradeTest() : mTarget(ParseWebAddress("ws://watch").Value()) { mTarget.mToken = "secret"; }

    std::optional<LinkError> Judge(const std::string &head) const
    {
        return JudgeAnswer(head, mKey, mTarget);
    }

    WebTarget mTarget;
    std::string mKey = MakeKey();
};

TEST_F(UpgradeTest, TheRequestHasWhatAGatewayAsksFor)
{
    const std::string request = MakeUpgradeRequest(mTarget, mKey);
    EXPECT_THAT(request, ::testing::StartsWith("GET /link HTTP/1.1\r\nHost: watch:8467\r\n"));
    EXPECT_THAT(request, HasSubstr("\r\nSec-WebSocket-Key: " + mKey + "\r\n"));
    EXPECT_THAT(request, HasSubstr("\r\nSec-WebSocket-Protocol: parvane.link.v1\r\n"));
    EXPECT_THAT(request, ::testing::EndsWith("\r\nAuthorization: Bearer secret\r\n\r\n"));
    EXPECT_EQ(mKey.size(), 24U);
    EXPECT_NE(mKey, MakeKey());
}

TEST_F(UpgradeTest, AnAnswerCountsWithItsProofAndItsProtocol)
{
    const std::string accept = Parvane::AcceptOf(mKey);
    EXPECT_EQ(Judge("HTTP/1.1 101 x\r\nsec-websocket-accept:" + accept +
                    " \r\nX: y\r\nSEC-WEBSOCKET-PROTOCOL:  parvane.link.v1\r\n\r\n"),
              std::nullopt);
    for (const std::string &head :
         {"HTTP/1.1 101 x\r\nSec-WebSocket-Accept: " + accept + "\r\n\r\n",
          std::string("HTTP/1.1 101 x\r\nSec-WebSocket-Protocol: parvane.link.v1\r\n\r\n"),
          "HTTP/1.1 101 x\r\nSec-WebSocket-Accept: " + Parvane::AcceptOf("other") +
              "\r\nSec-WebSocket-Protocol: parvane.link.v1\r\n\r\n"}) {
        const auto error = Judge(head);
        ASSERT_TRUE(error) << head;
        EXPECT_TRUE(error->mIsFinal);
    }
}

TEST_F(UpgradeTest, AStatusSaysWhetherAnotherAttemptCanHelp)
{
    EXPECT_TRUE(Judge("HTTP/1.1 401 Unauthorized\r\n\r\n")->mIsFinal);
    EXPECT_TRUE(Judge("HTTP/1.1 404 Not Found\r\n\r\n")->mIsFinal);
    EXPECT_FALSE(Judge("HTTP/1.1 429 Too Many Requests\r\n\r\n")->mIsFinal);
    EXPECT_FALSE(Judge("HTTP/1.1 503 Unavailable\r\n\r\n")->mIsFinal);
    for (const char *head :
         {"\r\n\r\n", "HTTP/1.1 \r\n\r\n", "SSH-2.0-x\r\n\r\n", "HTTP/1.1 1x1\r\n\r\n"}) {
        EXPECT_TRUE(Judge(head)) << head;
    }
    EXPECT_EQ(Judge("HTTP/1.1 401 x\r\n\r\n")->mReason, Reason::CannotConnect);
}

TEST_F(UpgradeTest, ACodeSaysWhatHasEndedTheLink)
{
    using Parvane::CloseCode;
    EXPECT_EQ(ErrorOfCode(CloseCode::AnotherPhone, false, mTarget).mReason, Reason::AnotherHost);
    EXPECT_EQ(ErrorOfCode(CloseCode::WatchAway, false, mTarget).mReason, Reason::CannotConnect);
    EXPECT_EQ(ErrorOfCode(CloseCode::WatchAway, true, mTarget).mReason, Reason::Closed);
    EXPECT_FALSE(ErrorOfCode(CloseCode::GoingAway, true, mTarget).mIsFinal);
    EXPECT_TRUE(ErrorOfCode(CloseCode::TokenEnded, true, mTarget).mIsFinal);
    EXPECT_THAT(ErrorOfCode(CloseCode::TooBig, true, mTarget).mText,
                ::testing::EndsWith("code 1009"));
}

} // namespace
} // namespace ParvaneHost
