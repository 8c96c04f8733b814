#include "CommandLine.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>
#include <system_error>
#include <utility>

#include "ControlClient.h"
#include "ExitCodeText.h"
#include "Printable.h"
#include "Usage.h"

namespace ParvaneWatch {

namespace {

using nlohmann::json;
using Int = std::numeric_limits<int>;
using Parvane::ParseSeconds;
using Parvane::Quoted;
using Parvane::UsageError;

constexpr const char *kProgram = "parvane-watch";
constexpr int kLargestHeartRate = 65535;
constexpr int kLongestSeconds = 31536000; // a year

/** For whoever has it wrong. */
const Parvane::UsageWords &Words()
{
    static const Parvane::UsageWords words = {
        kProgram,
        {{"status", "status"},
         {"monitor", "monitor --for 60"},
         {"config", "config"},
         {"log", "log warning", {}, true},
         {"set", "set hr 72"},
         {"steps", "steps +10"},
         {"activity", "activity walking"},
         {"gesture", "gesture 3"},
         {"link", "link down"},
         {"memory", "memory low"},
         {"battery", "battery low"},
         {"quit", "quit"},
         {"record", "record --on hr,steps run.csv"},
         {"capture", "capture link.pcapng"},
         {"play", "play walk.csv"},
         {"replay", "replay seek 12.5"},
         {"check-config", "check-config platform.conf", {"--socket"}, true}},
        {{"--socket", "/run/parvane/control.sock"},
         {"--for", "60"},
         {"--tags", "Parvane,platform"},
         {"--on", "hr,steps,activity"},
         {"--until-quiet", "20"}, // longer than a measurement takes
         {"--seed", "7"},
         {"--speed", "10"}}};
    return words;
}

/** What CLI11 fills in; every text is looked at afterwards, so that all messages have one form. */
struct Texts
{
    std::optional<std::string> mSocket;
    std::optional<std::string> mItem;
    std::optional<std::string> mValue;
    std::optional<std::string> mState;
    std::optional<std::string> mAction;
    std::optional<std::string> mFile;
    std::optional<std::string> mLevel;
    std::optional<std::string> mTags;
    std::optional<std::string> mSeed;
    std::optional<std::string> mSpeed;
    std::optional<std::string> mOn;
    std::optional<std::string> mFor;
    std::optional<std::string> mQuiet;
    bool mPlain = false;
    bool mForce = false;
    bool mJson = false;
};

/** Those that say what is so. */
void AddQuestions(CLI::App &app, Texts &texts)
{
    app.add_subcommand("status", "Say what the service is doing");
    CLI::App *monitor = app.add_subcommand(
        "monitor", "Show what the service is doing as it happens: a screen with keys,\n"
                   "or lines where standard output is no terminal");
    monitor->add_flag("--plain", texts.mPlain, "Print a line for each event");
    monitor->add_option("--for", texts.mFor, "End after so many seconds")->type_name("SECONDS");
    app.add_subcommand("config", "Say which settings are in force, and where each is from");

    CLI::App *log = app.add_subcommand("log", "Say or change which lines the service logs");
    log->add_option("level", texts.mLevel,
                    "auto, verbose, debug, info, warning, error or fatal;\n"
                    "auto is verbose, and warning on a terminal");
    log->add_option("--tags", texts.mTags,
                    "Below errors only lines with one of these tags, with commas between\n"
                    "them, as in Parvane,platform; '' is any")
        ->type_name("TAGS");
}

void AddCapture(CLI::App &app, Texts &texts)
{
    CLI::App *capture = app.add_subcommand(
        "capture", "Write every packet that crosses the accessory link to a pcapng\n"
                   "file, for Wireshark, until Ctrl-C, SIGTERM or the service's end");
    capture->add_option("file", texts.mFile, "The capture");
    capture->add_option("--for", texts.mFor, "End after so many seconds")->type_name("SECONDS");
    capture
        ->add_option("--until-quiet", texts.mQuiet,
                     "End when nothing has crossed the link for so many\n"
                     "seconds, 20 unless told, after its first packet")
        ->type_name("[SECONDS]");
    capture->add_flag("--force", texts.mForce, "Overwrite a file that exists");
}

void AddPlay(CLI::App &app, Texts &texts)
{
    CLI::App *play =
        app.add_subcommand("play", "Play a scenario: set the manual source as a script says,\n"
                                   "to its end or until Ctrl-C");
    play->add_option("script", texts.mFile, "The script; docs/scenarios.md has its form");
    play->add_option("--seed", texts.mSeed, "Of the noise: a whole number (default: 1)")
        ->type_name("N");
    play->add_option("--speed", texts.mSpeed, "How many times faster (default: 1)")->type_name("X");
}

void AddReplay(CLI::App &app, Texts &texts)
{
    CLI::App *replay =
        app.add_subcommand("replay", "Say or change how the recordings are played:\n"
                                     "replay status|list|pause|resume, replay seek SECONDS,\n"
                                     "replay speed X, replay open RECORDING");
    replay->add_option("action", texts.mAction, "What to do; status without");
    replay->add_option("value", texts.mValue,
                       "Seconds since the start of the recording, how many times faster\n"
                       "from 0.1 to 1000, or a recording that list tells");
}

void AddSubcommands(CLI::App &app, Texts &texts)
{
    AddQuestions(app, texts);

    CLI::App *set =
        app.add_subcommand("set", "Set what the manual source reports:\n"
                                  "set hr BPM|off-wrist, set steps +N,\n"
                                  "set activity walking|running|still|other, set gesture N");
    set->add_option("item", texts.mItem, "hr, steps, activity or gesture");
    set->add_option("value", texts.mValue, "Its value");

    // The same in fewer words; "hr" alone could be taken for a question.
    CLI::App *steps = app.add_subcommand("steps", "Short for set steps");
    steps->add_option("value", texts.mValue, "+N");
    CLI::App *activity = app.add_subcommand("activity", "Short for set activity");
    activity->add_option("value", texts.mValue, "walking, running, still or other");
    CLI::App *gesture = app.add_subcommand("gesture", "Short for set gesture");
    gesture->add_option("value", texts.mValue, "The number of a gesture");

    CLI::App *link = app.add_subcommand("link", "Take the accessory link down, or bring it up");
    link->add_option("state", texts.mState, "up or down");

    CLI::App *memory = app.add_subcommand("memory", "Tell the service that memory is low");
    memory->add_option("state", texts.mState, "low");

    CLI::App *battery = app.add_subcommand("battery", "Tell the service that the battery is low");
    battery->add_option("state", texts.mState, "low");

    app.add_subcommand("quit", "End the service in order");

    CLI::App *record = app.add_subcommand(
        "record", "Write every reading of the sensors to a file that the replay\n"
                  "source plays, until Ctrl-C, SIGTERM or the service's end");
    record->add_option("file", texts.mFile, "The recording; - is standard output");
    record
        ->add_option("--on", texts.mOn,
                     "Items that are on while this records, of\nhr, steps, activity, gesture")
        ->type_name("ITEM,...");
    record->add_flag("--force", texts.mForce, "Overwrite a file that exists");

    AddCapture(app, texts);
    AddPlay(app, texts);
    AddReplay(app, texts);

    CLI::App *check = app.add_subcommand(
        "check-config", "Say what is wrong with a configuration file, without a service;\n"
                        "it would start with a file that is checked with exit code 0");
    check->add_option(
        "file", texts.mFile,
        "The file (default: $PARVANE_PLATFORM_CONF, else\n/etc/parvane/platform.conf)");

    for (CLI::App *subcommand : app.get_subcommands({})) {
        subcommand->footer("The options of 'parvane-watch --help' are allowed here, too.");
    }
}

void AddOptions(CLI::App &app, Texts &texts)
{
    app.add_option("--socket", texts.mSocket,
                   "The control socket (default: control.sock in\n"
                   "$RUNTIME_DIRECTORY, else in $XDG_RUNTIME_DIR/parvane,\n"
                   "else in /run/parvane)")
        ->type_name("PATH");
    app.add_flag("--json", texts.mJson, "Print one JSON object; see docs/control.md");
    app.set_version_flag("--version", std::string(kProgram) + " " + PARVANE_WATCH_VERSION,
                         "Print the version and exit");
}

/** What is wrong with a word of the command line, and what is allowed. */
UsageError Wrong(const std::string &where, const std::string &what,
                 const std::optional<std::string> &text, const std::string &allowed)
{
    const std::string problem =
        text ? "unknown " + what + " " + Quoted(*text) : "no " + what + " given";
    return UsageError(where + ": " + problem + "; allowed: " + allowed);
}

/** Reads a number that is all of a text. */
template <typename Number>
bool ParseAll(const std::string &text, Number &number)
{
    const char *const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    return parsed.ec == std::errc{} && parsed.ptr == end;
}

/** A whole number from character `from` of a word on, within what the protocol takes. */
std::int64_t ParseWhole(const std::string &where, const std::optional<std::string> &text,
                        std::size_t from, std::int64_t least, std::int64_t most,
                        const std::string &allowed)
{
    std::int64_t number = 0;
    const bool isNumber = text && from < text->size() && ParseAll(text->substr(from), number);
    if (!isNumber || number < least || number > most) {
        throw Wrong(where, "value", text, allowed);
    }
    return number;
}

/** @param where  the words of the command line that name the item */
json SetRequest(const std::string &where, const std::string &item, const Texts &texts)
{
    json request = {{"request", "set"}};
    if (item == "hr") {
        request["item"] = "heart_rate";
        if (texts.mValue == "off-wrist") {
            request["value"] = "off-wrist";
        } else {
            request["value"] =
                ParseWhole(where, texts.mValue, 0, 0, kLargestHeartRate,
                           "a whole number of beats per minute from 0 to 65535, off-wrist");
        }
    } else if (item == "steps") {
        const std::string allowed = "steps to add, as in +10, up to +2147483647";
        // "+-10" is no number of steps, and "10" could be meant as a total.
        const bool hasSign =
            texts.mValue && texts.mValue->starts_with("+") && !texts.mValue->starts_with("+-");
        if (!hasSign) {
            throw Wrong(where, "value", texts.mValue, allowed);
        }
        request["item"] = "steps";
        request["add"] = ParseWhole(where, texts.mValue, 1, 0, Int::max(), allowed);
    } else if (item == "activity") {
        const std::string value = texts.mValue.value_or("");
        if (value != "walking" && value != "running" && value != "still" && value != "other") {
            throw Wrong(where, "value", texts.mValue, "walking, running, still, other");
        }
        request["item"] = "activity";
        request["value"] = value;
    } else if (item == "gesture") {
        request["item"] = "gesture";
        request["value"] = ParseWhole(where, texts.mValue, 0, Int::min(), Int::max(),
                                      "the number of a gesture, a whole number of 32 bits");
    } else {
        throw Wrong("set", "item", texts.mItem, "hr, steps, activity, gesture");
    }
    return request;
}

/** @param words  as in "hr,steps" */
json RecordRequest(const std::optional<std::string> &words)
{
    static const std::map<std::string, std::string> names = {{"hr", "heart_rate"},
                                                             {"steps", "pedometer"},
                                                             {"activity", "activity"},
                                                             {"gesture", "gesture"}};
    std::set<std::string> items;
    std::istringstream list(words.value_or(""));
    for (std::string word; std::getline(list, word, ',');) {
        const auto found = names.find(word);
        if (found == names.end()) {
            throw Wrong("record --on", "item", word, "hr, steps, activity, gesture");
        }
        items.insert(found->second);
    }
    if (words && items.empty()) {
        throw Wrong("record --on", "item", std::nullopt, "hr, steps, activity, gesture");
    }
    json request = {{"request", "record"}};
    if (words) {
        request["on"] = items;
    }
    return request;
}

/** The members of a capture besides its request. */
void ReadMonitor(const Texts &texts, Invocation &invocation)
{
    invocation.mAction = Invocation::Action::Monitor;
    invocation.mPlain = texts.mPlain;
    if (texts.mPlain && texts.mJson) {
        throw UsageError("monitor: --plain has no effect with --json");
    }
    invocation.mFor = ParseSeconds("--for", texts.mFor, kLongestSeconds);
}

void ReadRecord(const Texts &texts, Invocation &invocation)
{
    invocation.mAction = Invocation::Action::Record;
    invocation.mFile = texts.mFile.value_or("");
    invocation.mForce = texts.mForce;
    if (invocation.mFile.empty()) {
        throw UsageError("record: no file given; allowed: the path of a file that is made");
    }
    const bool toOutput = invocation.mFile == "-" || invocation.mFile == "/dev/stdout";
    if (toOutput && texts.mJson) {
        throw UsageError("record: --json and the recording cannot both go to standard output");
    }
    if (toOutput && texts.mForce) {
        throw UsageError("record: --force has no effect on standard output");
    }
}

void ReadCapture(const Texts &texts, Invocation &invocation)
{
    invocation.mAction = Invocation::Action::Capture;
    invocation.mFile = texts.mFile.value_or("");
    if (invocation.mFile.empty()) {
        throw UsageError("capture: no file given; allowed: the path of a file that is made");
    }
    if (invocation.mFile == "-") {
        throw UsageError("capture: a capture goes to a file; ./- is one of that name");
    }
    invocation.mForce = texts.mForce;
    invocation.mFor = ParseSeconds("--for", texts.mFor, kLongestSeconds);
    invocation.mQuiet = ParseSeconds("--until-quiet", texts.mQuiet, kLongestSeconds);
}

json StateRequest(const std::string &name, const Texts &texts)
{
    const std::string state = texts.mState.value_or("");
    if (name == "link" && state != "up" && state != "down") {
        throw Wrong(name, "state", texts.mState, "up, down");
    }
    if (name != "link" && state != "low") {
        throw Wrong(name, "state", texts.mState, "low");
    }
    return {{"request", name}, {"state", state}};
}

json LogRequest(const Texts &texts)
{
    json request = {{"request", "log"}};
    if (texts.mLevel) {
        constexpr std::array kLevels = {"auto",    "verbose", "debug", "info",
                                        "warning", "error",   "fatal"};
        if (std::find(kLevels.begin(), kLevels.end(), *texts.mLevel) == kLevels.end()) {
            throw Wrong("log", "level", texts.mLevel,
                        "auto, verbose, debug, info, warning, error, fatal");
        }
        request["level"] = *texts.mLevel;
    }
    if (texts.mTags) {
        const std::string &tags = *texts.mTags;
        const bool hasEmpty =
            tags.starts_with(',') || tags.ends_with(',') || tags.find(",,") != std::string::npos;
        if (hasEmpty || Parvane::Printable(tags) != tags) {
            throw Wrong("log", "tags", texts.mTags,
                        "tags with a comma between each two, as in Parvane,platform; '' for any");
        }
        request["tags"] = *texts.mTags;
    }
    return request;
}

Invocation PlayInvocation(const Texts &texts)
{
    constexpr double kLeast = 0.001;
    constexpr double kMost = 100000;
    Invocation invocation;
    invocation.mAction = Invocation::Action::Play;
    invocation.mFile = texts.mFile.value_or("");
    if (invocation.mFile.empty()) {
        throw UsageError("play: no script given; allowed: the path of a scenario");
    }
    if (texts.mSeed && !ParseAll(*texts.mSeed, invocation.mSeed)) {
        throw Wrong("play", "seed", texts.mSeed, "a whole number from 0 on");
    }
    const bool isNumber = !texts.mSpeed || ParseAll(*texts.mSpeed, invocation.mSpeed);
    if (!isNumber || !(invocation.mSpeed >= kLeast && invocation.mSpeed <= kMost)) {
        throw Wrong("play", "speed", texts.mSpeed, "a number from 0.001 to 100000");
    }
    return invocation;
}

/** A number, to the letter. */
double ParseNumber(const std::string &where, const Texts &texts, double least, double most,
                   const std::string &allowed)
{
    double number = 0;
    if (!texts.mValue || !ParseAll(*texts.mValue, number) || !(number >= least && number <= most)) {
        throw Wrong(where, "value", texts.mValue, allowed);
    }
    return number;
}

json ReplayRequest(const Texts &texts)
{
    const std::string action = texts.mAction.value_or("status");
    const std::string where = "replay " + action;
    json request = {{"request", "replay"}};
    if (action != "status" && action != "list") {
        request["action"] = action;
    }
    if (action == "seek") {
        constexpr double kMsPerSecond = 1000;
        constexpr double kMostS = 1e9; // how long the recordings are is the service's to say
        request["position_ms"] =
            kMsPerSecond * ParseNumber(where, texts, 0, kMostS, "seconds, as in 12.5");
    } else if (action == "speed") {
        constexpr double kLeast = 0.1;
        constexpr double kMost = 1000;
        request["speed"] = ParseNumber(where, texts, kLeast, kMost, "a number from 0.1 to 1000");
    } else if (action == "open") {
        if (texts.mValue.value_or("").empty()) {
            throw Wrong(where, "recording", std::nullopt, "those that 'replay list' tells");
        }
        request["recording"] = *texts.mValue;
    } else if (texts.mValue) {
        throw UsageError(where + ": there is no value to it, but " + Quoted(*texts.mValue));
    } else if (request.contains("action") && action != "pause" && action != "resume") {
        throw Wrong("replay", "action", texts.mAction,
                    "status, list, pause, resume, seek, speed, open");
    }
    return request;
}

/** The request of a command that just sends one. */
json PlainRequest(const std::string &name, const Texts &texts)
{
    if (name == "set") {
        const std::string item = texts.mItem.value_or("");
        return SetRequest(name + " " + item, item, texts);
    }
    if (name == "steps" || name == "activity" || name == "gesture") {
        return SetRequest(name, name, texts);
    }
    if (name == "quit") {
        return {{"request", name}};
    }
    return StateRequest(name, texts);
}

Invocation Interpret(const CLI::App &app, const Texts &texts,
                     const Parvane::Environment &environment)
{
    const std::string name = app.get_subcommands().front()->get_name();
    Invocation invocation;
    json request;
    invocation.mJson = texts.mJson;
    if (name == "check-config") {
        invocation.mAction = Invocation::Action::CheckConfig;
        invocation.mFile = texts.mFile.value_or("");
        if (invocation.mFile.empty()) {
            invocation.mFile = Parvane::ValueOf(environment, "PARVANE_PLATFORM_CONF");
        }
        return invocation;
    }
    invocation.mSocketPath = Parvane::CheckedSocketPath(
        texts.mSocket ? *texts.mSocket
                      : Parvane::RuntimeDirectory(environment, "parvane") + "/control.sock",
        "the control socket");
    if (name == "play") {
        Invocation play = PlayInvocation(texts);
        play.mSocketPath = invocation.mSocketPath;
        play.mJson = invocation.mJson;
        return play;
    }
    if (name == "status" || name == "config") {
        invocation.mAction =
            name == "status" ? Invocation::Action::Status : Invocation::Action::Config;
        request = {{"request", name}};
    } else if (name == "log") {
        invocation.mAction = Invocation::Action::Log;
        request = LogRequest(texts);
    } else if (name == "replay") {
        invocation.mAction = Invocation::Action::Replay;
        invocation.mLists = texts.mAction == "list";
        request = ReplayRequest(texts);
    } else if (name == "monitor") {
        ReadMonitor(texts, invocation);
        request = {{"request", "observe"}};
    } else if (name == "capture") {
        ReadCapture(texts, invocation);
        request = {{"request", name}};
    } else if (name == "record") {
        ReadRecord(texts, invocation);
        request = RecordRequest(texts.mOn);
    } else {
        invocation.mAction = Invocation::Action::Request;
        request = PlainRequest(name, texts);
    }
    request["version"] = ControlClient::kVersion;
    invocation.mRequest = request.dump(-1, ' ', false, json::error_handler_t::replace);
    return invocation;
}

} // namespace

std::variant<Invocation, Ending> ParseCommandLine(const std::vector<std::string> &arguments,
                                                  const Parvane::Environment &environment)
{
    Texts texts;
    CLI::App app("Looks into a running Parvane watch service, and steers it.", kProgram);
    app.fallthrough(); // global options may follow the subcommand
    app.require_subcommand(1);
    AddOptions(app, texts);
    AddSubcommands(app, texts);
    app.footer(Parvane::kExitCodeText);

    Invocation invocation;
    const auto end = Parvane::ParseUsage(
        app, Words(),
        Parvane::WithOptionalValue(arguments, "--until-quiet", Words().mValues.at("--until-quiet")),
        [&] { invocation = Interpret(app, texts, environment); });
    if (end) {
        return Ending{end->mIsBadUsage ? ExitCode::BadUsage : ExitCode::Success, end->mOutput,
                      end->mError};
    }
    return invocation;
}

} // namespace ParvaneWatch
