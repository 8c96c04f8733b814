#include "ConfigFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneGateway {
namespace {

/** What is said of a text, with places. */
std::vector<std::string> ProblemsOf(const std::string &text)
{
    std::vector<std::string> problems;
    for (const ConfigProblem &problem : ParseConfiguration(text).mProblems) {
        problems.push_back((problem.mIsError ? "error " : "warning ") + ToString("f", problem));
    }
    return problems;
}

TEST(GatewayConfigFileTest, AnEmptyFileHasTheDefaults)
{
    const Configuration configuration = ParseConfiguration("");
    EXPECT_TRUE(configuration.mProblems.empty());
    EXPECT_EQ(configuration.mSettings, Settings{});
    EXPECT_EQ(configuration.mSettings.mWeb.mAddress, "127.0.0.1");
    EXPECT_EQ(configuration.mSettings.mWeb.mPort, 8467);
}

TEST(GatewayConfigFileTest, TakesEveryKey)
{
    const Configuration configuration = ParseConfiguration(
        "# a comment\n[watch]\ndirectory = /run/other\n[web]\nenabled=no\naddress=::\nport=0\ntls=0\n"
        "insecure=yes\ncertificate=/c\nkey=/k\norigins=https://a.example;http://b:1\n"
        "[bluetooth]\nenabled=no\nadapter=hci1\nname=Left wrist\nauthenticated=yes\n"
        "[directories]\nstate=/s\nruntime=/r\n");
    EXPECT_TRUE(configuration.mProblems.empty());
    const Settings expected{
        "/run/other",
        {false, "::", 0, false, true, "/c", "/k", {"https://a.example", "http://b:1"}},
        "/s",
        "/r",
        {false, "hci1", "Left wrist", true}};
    EXPECT_EQ(configuration.mSettings, expected);
}

TEST(GatewayConfigFileTest, SaysWhatIsWrongAndWhere)
{
    EXPECT_THAT(
        ProblemsOf("[web]\nport=65536\naddress=watch\ntls=maybe\n"),
        ::testing::ElementsAre(
            "error f: line 2: [web] port is '65536': it must be a whole number from 0 to 65535",
            "error f: line 3: [web] address is 'watch': it must be an IPv4 or IPv6 address of "
            "this host",
            "error f: line 4: [web] tls is 'maybe': it must be yes, no, true, false, 1 or 0"));
    EXPECT_THAT(ProblemsOf("[web]\nprot=1\n[wed]\nport=1\n"),
                ::testing::ElementsAre(
                    "warning f: line 2: unknown key [web] prot; known are enabled, address, port, "
                    "tls, insecure, certificate, key, origins",
                    "warning f: line 3: unknown section [wed]; known are watch, web, bluetooth, "
                    "directories"));
    EXPECT_THAT(ProblemsOf("[web]\nport=1\nport=2\n"),
                ::testing::ElementsAre("error f: line 3: [web] port stands in line 2 already"));
    EXPECT_THAT(ProblemsOf("port=1\n[web]\nport\n"), ::testing::SizeIs(2));
    EXPECT_THAT(ProblemsOf("[web]\norigins=https://a/b\n"), ::testing::SizeIs(1));
    EXPECT_THAT(ProblemsOf("[web]\nkey=/k\n"), ::testing::SizeIs(1));
    EXPECT_THAT(ProblemsOf("[watch]\ndirectory=run\n[directories]\nstate=/a/\n"),
                ::testing::SizeIs(2));
    EXPECT_THAT(ProblemsOf("[bluetooth]\nadapter=0\nname=a watch with more than 29 bytes\n"),
                ::testing::SizeIs(2));
    EXPECT_TRUE(ProblemsOf("[bluetooth]\nadapter=\nname=\n").empty());
    EXPECT_THAT(ProblemsOf("\xFF"), ::testing::ElementsAre("error f: it is no text in UTF-8"));
}

TEST(GatewayConfigFileTest, AnAddressThatOthersReachNeedsTlsOrAWord)
{
    EXPECT_THAT(
        ProblemsOf("[web]\naddress=0.0.0.0\ntls=no\n"),
        ::testing::ElementsAre(::testing::HasSubstr("line 2: [web] address is 0.0.0.0, which "
                                                    "others reach, and tls is no")));
    EXPECT_TRUE(ProblemsOf("[web]\naddress=0.0.0.0\n").empty());
    EXPECT_TRUE(ProblemsOf("[web]\naddress=0.0.0.0\ntls=no\ninsecure=yes\n").empty());
    EXPECT_TRUE(ProblemsOf("[web]\naddress=::1\ntls=no\n").empty());
}

TEST(GatewayConfigFileTest, AFileThatMustBeThereIs)
{
    EXPECT_EQ(LoadConfiguration("/nonexistent/file", false).mSettings, Settings{});
    EXPECT_THROW(LoadConfiguration("/nonexistent/file", true), std::runtime_error);
}

} // namespace
} // namespace ParvaneGateway
