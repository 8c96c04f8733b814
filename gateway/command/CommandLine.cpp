#include "CommandLine.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <utility>

#include "ConfigFile.h"

namespace ParvaneGateway {

namespace {

using Parvane::UsageError;

constexpr char kExitCodes[] = "Exit codes:\n"
                              "  0  done\n"
                              "  1  a failure\n"
                              "  2  bad usage\n"
                              "  3  no gateway that serves this user\n";

/** The texts of options, before they are looked at. */
struct Texts
{
    std::string mConfig;
    std::string mName;
    std::string mScope;
    std::string mFor;
    std::string mFile;
    bool mJson = false;
    bool mNoQr = false;
    bool mYes = false;
};

const Parvane::UsageWords &Words()
{
    static const Parvane::UsageWords words = {
        "parvane-gateway",
        {{"status", "status --json"},
         {"token add", "token add desk"},
         {"token list", "token list --json"},
         {"token remove", "token remove desk"},
         {"pair", "pair --for 2m"},
         {"check-config", "check-config gateway.conf", {}, true}},
        {{"--config", kSystemConfigFile}, {"--scope", "console"}, {"--for", "30d"}}};
    return words;
}

void AddSubcommands(CLI::App &app, Texts &texts)
{
    CLI::App *status = app.add_subcommand("status", "Say how the gateway that serves is doing");
    status->add_flag("--json", texts.mJson, "One object on one line");

    CLI::App *token = app.add_subcommand("token", "Say or change who is let in");
    token->require_subcommand(1);
    CLI::App *add = token->add_subcommand("add", "Let somebody in; the token is shown this once");
    add->add_option("name", texts.mName, "Whose token it is");
    add->add_option("--scope", texts.mScope,
                    "phone (default): be the watch's phone; view: look into the\n"
                    "service; control: look into it and steer it; console: all of\n"
                    "it, for a browser")
        ->type_name("SCOPE");
    add->add_option("--for", texts.mFor, "End after so long, such as 90s, 15m, 12h or 30d")
        ->type_name("LENGTH");
    add->add_flag("--no-qr", texts.mNoQr, "No QR code on the terminal");
    add->add_flag("--json", texts.mJson, "One object on one line");
    CLI::App *list = token->add_subcommand("list", "Say who is let in");
    list->add_flag("--json", texts.mJson, "One object on one line");
    CLI::App *remove =
        token->add_subcommand("remove", "Let somebody in no more; connections end, too");
    remove->add_option("name", texts.mName, "Whose token it is");

    CLI::App *pair = app.add_subcommand("pair", "Let phones pair over Bluetooth for a while");
    pair->add_option("--for", texts.mFor, "For how long, such as 60s (default) or 2m")
        ->type_name("LENGTH");
    pair->add_flag("--yes", texts.mYes,
                   "Let the first phone in that asks, without comparing\nnumbers");

    CLI::App *check = app.add_subcommand("check-config", "Say what is wrong with a configuration");
    check->add_option("file", texts.mFile, "The file (default: the one that counts)");
    for (CLI::App *command : {status, token, add, list, remove, pair, check}) {
        command->footer("The options of 'parvane-gateway --help' are allowed here, too.");
    }
}

Invocation::Action ActionOf(const CLI::App &app)
{
    using Action = Invocation::Action;
    if (app.got_subcommand("token")) {
        const CLI::App *token = app.get_subcommand("token");
        return token->got_subcommand("add")
                   ? Action::TokenAdd
                   : (token->got_subcommand("list") ? Action::TokenList : Action::TokenRemove);
    }
    if (app.got_subcommand("status")) {
        return Action::Status;
    }
    if (app.got_subcommand("pair")) {
        return Action::Pair;
    }
    return app.got_subcommand("check-config") ? Action::CheckConfig : Action::Serve;
}

/** Looks at the command and its options. @throws Parvane::UsageError */
void Interpret(const CLI::App &app, const Texts &texts, Invocation &invocation)
{
    using Action = Invocation::Action;
    invocation.mAction = ActionOf(app);
    invocation.mJson = texts.mJson;
    invocation.mNoQr = texts.mNoQr;
    invocation.mYes = texts.mYes;
    invocation.mName = texts.mName;
    const bool isAdded = invocation.mAction == Action::TokenAdd;
    if ((isAdded || invocation.mAction == Action::TokenRemove) && !IsTokenName(texts.mName)) {
        throw UsageError(std::string(isAdded ? "token add" : "token remove") +
                         ": give a name of 1 to 64 bytes of printable text, as in: "
                         "parvane-gateway token " +
                         (isAdded ? "add desk" : "remove desk"));
    }
    if (!texts.mScope.empty()) {
        const auto scope = ScopeOf(texts.mScope);
        if (!scope) {
            throw UsageError("--scope: " + Parvane::Quoted(texts.mScope) +
                             " is not allowed; give phone, view, control or console");
        }
        invocation.mScope = *scope;
    }
    constexpr std::int64_t kPairS = 60;
    invocation.mForS = invocation.mAction == Action::Pair ? kPairS : 0;
    if (!texts.mFor.empty()) {
        const auto length = Parvane::ParseLength(texts.mFor);
        if (!length) {
            throw UsageError("--for: " + Parvane::Quoted(texts.mFor) +
                             " is not allowed; give a length such as 90s, 15m, 12h or 30d");
        }
        invocation.mForS = *length;
    }
}

} // namespace

std::variant<Invocation, Parvane::EarlyEnd>
ParseCommandLine(const std::vector<std::string> &arguments, const Parvane::Environment &environment)
{
    Texts texts;
    CLI::App app("The watch's accessory link on the network and over Bluetooth.\n"
                 "Without a command it serves, until SIGTERM or SIGINT.",
                 Words().mProgram);
    app.fallthrough(); // global options may follow the command
    app.add_option("--config", texts.mConfig,
                   "The configuration (default: $PARVANE_GATEWAY_CONF, else\n" +
                       std::string(kSystemConfigFile) + ")")
        ->type_name("FILE");
    app.set_version_flag("--version", "parvane-gateway " PARVANE_GATEWAY_VERSION,
                         "Print the version and exit");
    app.footer(kExitCodes);
    AddSubcommands(app, texts);
    app.require_subcommand(0, 1);

    Invocation invocation;
    if (auto end = Parvane::ParseUsage(app, Words(), arguments,
                                       [&] { Interpret(app, texts, invocation); })) {
        return *std::move(end);
    }
    const std::string variable = Parvane::ValueOf(environment, "PARVANE_GATEWAY_CONF");
    const std::string &named =
        !texts.mFile.empty() ? texts.mFile : (!texts.mConfig.empty() ? texts.mConfig : variable);
    invocation.mIsConfigNamed = !named.empty();
    invocation.mConfig = named.empty() ? kSystemConfigFile : named;
    return invocation;
}

} // namespace ParvaneGateway
