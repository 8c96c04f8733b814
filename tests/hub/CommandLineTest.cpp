#include "CommandLine.h"

#include <gtest/gtest.h>

namespace ParvaneHub {
namespace {

std::variant<Invocation, Parvane::EarlyEnd> Parse(const std::vector<std::string> &arguments)
{
    return ParseCommandLine(arguments, [](const char * /*name*/) { return nullptr; });
}

Invocation Parsed(const std::vector<std::string> &arguments)
{
    const auto parsed = Parse(arguments);
    EXPECT_TRUE(std::holds_alternative<Invocation>(parsed));
    return std::get<Invocation>(parsed);
}

std::string Complaint(const std::vector<std::string> &arguments)
{
    const auto parsed = Parse(arguments);
    const auto *end = std::get_if<Parvane::EarlyEnd>(&parsed);
    return end != nullptr && end->mIsBadUsage ? end->mError.substr(0, end->mError.find('\n')) : "";
}

TEST(HubCommandLineTest, ServesWithoutACommand)
{
    EXPECT_EQ(Parsed({}).mAction, Invocation::Action::Serve);
    EXPECT_EQ(Parsed({}).mConfig, "/etc/parvane/hub.conf");
    EXPECT_EQ(Parsed({"status", "--json", "--config", "a"}).mConfig, "a");
    EXPECT_EQ(Parsed({"check-config", "b"}).mConfig, "b");
}

TEST(HubCommandLineTest, RefusesWhatIsNoCommand)
{
    EXPECT_EQ(Complaint({"stats"}),
              "parvane-hub: unknown subcommand 'stats'; allowed: status, check-config");
    EXPECT_EQ(Complaint({"--json"}), "parvane-hub: unknown option '--json'");
    EXPECT_EQ(Complaint({"status", "anna"}),
              "parvane-hub: status: 'anna' is one word too many, as in: parvane-hub status --json");
    EXPECT_EQ(Complaint({"--config"}),
              "parvane-hub: --config needs a value, as in: --config /etc/parvane/hub.conf");
}

} // namespace
} // namespace ParvaneHub
