#include "CommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneGateway {
namespace {

using Action = Invocation::Action;

std::variant<Invocation, Ending> Parse(const std::vector<std::string> &arguments,
                                       const char *variable = nullptr)
{
    return ParseCommandLine(arguments, [variable](const char * /*name*/) { return variable; });
}

Invocation Parsed(const std::vector<std::string> &arguments)
{
    const auto parsed = Parse(arguments);
    EXPECT_TRUE(std::holds_alternative<Invocation>(parsed));
    return std::get<Invocation>(parsed);
}

void ExpectWrong(const std::vector<std::string> &arguments)
{
    const auto parsed = Parse(arguments);
    ASSERT_TRUE(std::holds_alternative<Ending>(parsed));
    EXPECT_EQ(std::get<Ending>(parsed).mCode, ExitCode::BadUsage);
    EXPECT_FALSE(std::get<Ending>(parsed).mError.empty());
}

TEST(GatewayCommandLineTest, ServesWithoutACommand)
{
    EXPECT_EQ(Parsed({}).mAction, Action::Serve);
    EXPECT_EQ(Parsed({}).mConfig, "/etc/parvane/gateway.conf");
    EXPECT_FALSE(Parsed({}).mIsConfigNamed);
}

TEST(GatewayCommandLineTest, AFileThatIsNamedGoesBeforeTheVariable)
{
    const auto named = std::get<Invocation>(Parse({"--config", "a"}, "b"));
    EXPECT_EQ(named.mConfig, "a");
    const auto variable = std::get<Invocation>(Parse({}, "b"));
    EXPECT_EQ(variable.mConfig, "b");
    EXPECT_TRUE(variable.mIsConfigNamed);
    EXPECT_EQ(Parsed({"check-config", "c"}).mConfig, "c");
}

TEST(GatewayCommandLineTest, ReadsTheCommandsOfTokens)
{
    const Invocation add =
        Parsed({"token", "add", "my phone", "--scope", "control", "--for", "30d", "--no-qr"});
    EXPECT_EQ(add.mAction, Action::TokenAdd);
    EXPECT_EQ(add.mName, "my phone");
    EXPECT_EQ(add.mScope, Scope::Control);
    EXPECT_EQ(add.mForS, 2592000);
    EXPECT_TRUE(add.mNoQr);
    EXPECT_EQ(Parsed({"token", "add", "a"}).mScope, Scope::Phone);
    EXPECT_EQ(Parsed({"token", "add", "a"}).mForS, 0);
    EXPECT_EQ(Parsed({"token", "list"}).mAction, Action::TokenList);
    EXPECT_EQ(Parsed({"token", "remove", "a"}).mAction, Action::TokenRemove);
    EXPECT_EQ(Parsed({"pair"}).mForS, 60);
    EXPECT_EQ(Parsed({"pair", "--for", "90"}).mForS, 90);
    EXPECT_FALSE(Parsed({"pair"}).mYes);
    EXPECT_TRUE(Parsed({"pair", "--yes"}).mYes);
    EXPECT_TRUE(Parsed({"status", "--json"}).mJson);
}

TEST(GatewayCommandLineTest, RefusesWhatIsNoCommand)
{
    ExpectWrong({"tokens"});
    ExpectWrong({"token"});
    ExpectWrong({"token", "add"});
    ExpectWrong({"token", "add", ""});
    ExpectWrong({"token", "add", std::string(65, 'a')});
    ExpectWrong({"token", "add", "a\nb"});
    ExpectWrong({"token", "add", "a", "--scope", "all"});
    ExpectWrong({"token", "add", "a", "--for", "0"});
    ExpectWrong({"token", "add", "a", "--for", "d"});
    ExpectWrong({"token", "add", "a", "--for", "99999999d"});
    ExpectWrong({"token", "add", "a", "--for", "1w"});
}

} // namespace
} // namespace ParvaneGateway
