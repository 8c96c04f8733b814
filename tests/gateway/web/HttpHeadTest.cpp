#include "HttpHead.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneGateway {
namespace {

constexpr char kUpgrade[] = "GET /link?a=b HTTP/1.1\r\nHost: watch:8467\r\nUpgrade: WebSocket\r\n"
                            "Connection: keep-alive, Upgrade\r\nSec-WebSocket-Version: 13\r\n"
                            "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
                            "Sec-WebSocket-Protocol: other, parvane.link.v1\r\n";

std::string Replaced(std::string text, const std::string &what, const std::string &by)
{
    return text.replace(text.find(what), what.size(), by);
}

int Judge(const std::string &head)
{
    const auto request = HttpRequest::Parse(head + "\r\n");
    return request ? request->JudgeUpgrade("parvane.link.v1") : 0;
}

TEST(HttpHeadTest, ReadsARequest)
{
    const auto request =
        HttpRequest::Parse(std::string(kUpgrade) + "Cookie: a=1; parvane_session=xyz; b=2\r\n"
                                                   "Authorization: bearer  secret\r\n\r\n");
    ASSERT_TRUE(request);
    EXPECT_EQ(request->Method(), "GET");
    EXPECT_EQ(request->Path(), "/link");
    EXPECT_EQ(request->Header("host"), "watch:8467");
    EXPECT_EQ(request->BearerToken(), "secret");
    EXPECT_EQ(request->Cookie("parvane_session"), "xyz");
    EXPECT_EQ(request->Cookie("session"), "");
    EXPECT_FALSE(request->HasBody());
    EXPECT_EQ(request->JudgeUpgrade("parvane.link.v1"), 101);
}

TEST(HttpHeadTest, WhatIsNoRequestIsNone)
{
    EXPECT_FALSE(HttpRequest::Parse("GET / HTTP/1.1\r\n"));
    EXPECT_FALSE(HttpRequest::Parse("\r\n\r\n"));
    EXPECT_FALSE(HttpRequest::Parse("nonsense\r\n\r\n"));
    EXPECT_FALSE(HttpRequest::Parse(std::string("GET / HTTP/1.1\r\nHost: a\0b\r\n\r\n", 29)));
}

TEST(HttpHeadTest, AnUpgradeThatIsNotWholeIsRefused)
{
    EXPECT_EQ(Judge(kUpgrade), 101);
    EXPECT_EQ(Judge(Replaced(kUpgrade, "GET", "POST")), 405);
    EXPECT_EQ(Judge(Replaced(kUpgrade, "WebSocket", "h2c")), 426);
    EXPECT_EQ(Judge(Replaced(kUpgrade, ": 13", ": 8")), 426);
    EXPECT_EQ(Judge(Replaced(kUpgrade, "HTTP/1.1", "HTTP/1.0")), 426);
    EXPECT_EQ(Judge(Replaced(kUpgrade, "keep-alive, Upgrade", "keep-alive")), 400);
    EXPECT_EQ(Judge(Replaced(kUpgrade, "dGhlIHNhbXBsZSBub25jZQ==", "dGhl")), 400);
    EXPECT_EQ(Judge(Replaced(kUpgrade, "parvane.link.v1", "parvane.link.v2")), 400);
    EXPECT_EQ(Judge(Replaced(kUpgrade, "Host: watch:8467\r\n", "")), 400);
    EXPECT_EQ(Judge(std::string(kUpgrade) + "Content-Length: 4\r\n"), 400);
    EXPECT_EQ(Judge(std::string(kUpgrade) + "Transfer-Encoding: chunked\r\n"), 400);
}

TEST(HttpHeadTest, AnswersAnUpgradeAsTheStandardsExampleSays)
{
    EXPECT_THAT(MakeUpgradeResponse("dGhlIHNhbXBsZSBub25jZQ==", "parvane.link.v1"),
                ::testing::AllOf(
                    ::testing::StartsWith("HTTP/1.1 101 "),
                    ::testing::HasSubstr("Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n"),
                    ::testing::EndsWith("parvane.link.v1\r\n\r\n")));
}

TEST(HttpHeadTest, EveryStatusHasItsPhrase)
{
    for (const char *line : {"426 Upgrade Required", "429 Too Many Requests",
                             "431 Request Header Fields Too Large", "404 Not Found"}) {
        EXPECT_THAT(MakeResponse(std::stoi(line), {}, ""),
                    ::testing::StartsWith(std::string("HTTP/1.1 ") + line + "\r\n"));
    }
}

TEST(HttpHeadTest, EveryAnswerHasTheHeadersOfSecurity)
{
    const std::string response = MakeResponse(401, {{"WWW-Authenticate", "Bearer"}}, "no");
    EXPECT_THAT(response,
                ::testing::StartsWith("HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Bearer\r\n"));
    EXPECT_THAT(response,
                ::testing::HasSubstr("\r\nContent-Security-Policy: default-src 'none'; "));
    EXPECT_THAT(response, ::testing::HasSubstr("\r\nX-Content-Type-Options: nosniff\r\n"));
    EXPECT_THAT(response, ::testing::HasSubstr("\r\nCache-Control: no-store\r\n"));
    EXPECT_THAT(response,
                ::testing::EndsWith("\r\nContent-Length: 2\r\nConnection: close\r\n\r\nno"));
}

} // namespace
} // namespace ParvaneGateway
