#include "CommandLine.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <utility>

#include "ConfigFile.h"

namespace ParvaneHub {

namespace {

constexpr char kExitCodes[] = "Exit codes:\n"
                              "  0  done\n"
                              "  1  a failure\n"
                              "  2  bad usage\n"
                              "  3  no hub that serves this user\n";

const Parvane::UsageWords &Words()
{
    static const Parvane::UsageWords words = {
        "parvane-hub",
        {{"status", "status --json"}, {"check-config", "check-config hub.conf", {}, true}},
        {{"--config", kSystemConfigFile}}};
    return words;
}

} // namespace

std::variant<Invocation, Parvane::EarlyEnd>
ParseCommandLine(const std::vector<std::string> &arguments, const Parvane::Environment &environment)
{
    Invocation invocation;
    std::string config;
    std::string file;
    CLI::App app("The phone of many watches, which brings their readings to an MQTT broker.\n"
                 "Without a command it serves, until SIGTERM or SIGINT.",
                 Words().mProgram);
    app.fallthrough(); // global options may follow the command
    app.add_option("--config", config,
                   "The configuration (default: $PARVANE_HUB_CONF, else\n" +
                       std::string(kSystemConfigFile) + ")")
        ->type_name("FILE");
    app.set_version_flag("--version", "parvane-hub " PARVANE_HUB_VERSION,
                         "Print the version and exit");
    app.footer(kExitCodes);
    CLI::App *status = app.add_subcommand("status", "Say how the hub that serves is doing");
    status->add_flag("--json", invocation.mJson, "One object on one line");
    CLI::App *check = app.add_subcommand("check-config", "Say what is wrong with a configuration");
    check->add_option("file", file, "The file (default: the one that counts)");
    app.require_subcommand(0, 1);
    for (CLI::App *command : {status, check}) {
        command->footer("The options of 'parvane-hub --help' are allowed here, too.");
    }
    if (auto end = Parvane::ParseUsage(app, Words(), arguments, [] {})) {
        return *std::move(end);
    }
    if (app.got_subcommand(status)) {
        invocation.mAction = Invocation::Action::Status;
    } else if (app.got_subcommand(check)) {
        invocation.mAction = Invocation::Action::CheckConfig;
    }
    const std::string variable = Parvane::ValueOf(environment, "PARVANE_HUB_CONF");
    const std::string &named = !file.empty() ? file : (!config.empty() ? config : variable);
    invocation.mIsConfigNamed = !named.empty();
    invocation.mConfig = named.empty() ? kSystemConfigFile : named;
    return invocation;
}

} // namespace ParvaneHub
