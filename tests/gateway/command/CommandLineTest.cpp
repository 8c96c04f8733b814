#include "CommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneGateway {
namespace {

using Action = Invocation::Action;

std::variant<Invocation, Parvane::EarlyEnd> Parse(const std::vector<std::string> &arguments,
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

void ExpectWrong(const std::vector<std::string> &arguments, const std::string &text)
{
    const auto parsed = Parse(arguments);
    ASSERT_TRUE(std::holds_alternative<Parvane::EarlyEnd>(parsed));
    const auto &end = std::get<Parvane::EarlyEnd>(parsed);
    EXPECT_TRUE(end.mIsBadUsage);
    EXPECT_EQ(end.mError, "parvane-gateway: " + text + "\nTry 'parvane-gateway --help'.\n");
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
    ExpectWrong({"tokens"},
                "unknown subcommand 'tokens'; allowed: status, token, pair, check-config");
    ExpectWrong({"--json"}, "unknown option '--json'");
    ExpectWrong({"status", "now"},
                "status: 'now' is one word too many, as in: parvane-gateway status --json");
    ExpectWrong({"token"}, "token: no subcommand given; allowed: add, list, remove");
    ExpectWrong({"token", "make"}, "token: unknown subcommand 'make'; allowed: add, list, remove");
    ExpectWrong({"token", "list", "--all"}, "token list: unknown option '--all'");
    ExpectWrong({"token", "add", "a", "b"},
                "token add: 'b' is one word too many, as in: parvane-gateway token add desk");
    ExpectWrong({"token", "add", "a", "--no-qr=3"}, "--no-qr takes no value");
    ExpectWrong({"token", "add", "a", "--for"}, "--for needs a value, as in: --for 30d");
}

TEST(GatewayCommandLineTest, RefusesValuesThatAreNotAllowed)
{
    const std::string name = "token add: give a name of 1 to 64 bytes of printable text, as in: "
                             "parvane-gateway token add desk";
    ExpectWrong({"token", "add"}, name);
    ExpectWrong({"token", "add", ""}, name);
    ExpectWrong({"token", "add", std::string(65, 'a')}, name);
    ExpectWrong({"token", "add", "a\nb"}, name);
    ExpectWrong({"token", "remove"},
                "token remove: give a name of 1 to 64 bytes of printable text, as "
                "in: parvane-gateway token remove desk");
    ExpectWrong({"token", "add", "a", "--scope", "all"},
                "--scope: 'all' is not allowed; give phone, view, control or console");
    for (const char *length : {"0", "d", "99999999d", "1w"}) {
        ExpectWrong({"token", "add", "a", "--for", length},
                    "--for: '" + std::string(length) +
                        "' is not allowed; give a length such as 90s, 15m, 12h or 30d");
    }
}

TEST(GatewayCommandLineTest, TheConfigurationMayStandBehindTheCommand)
{
    EXPECT_EQ(Parsed({"token", "list", "--config", "a"}).mConfig, "a");
    EXPECT_EQ(Parsed({"--config", "a", "status", "--config", "b"}).mConfig, "b");
}

} // namespace
} // namespace ParvaneGateway
