#include "CommandLine.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <initializer_list>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "HexBytes.h"
#include "JsonPrinter.h"
#include "Printable.h"
#include "UnixSocket.h"
#include "WireFormat.h"

namespace ParvaneHost {

namespace {

using std::chrono::milliseconds;

constexpr const char *kProgram = "parvane-host";

/** What CLI11 fills in; every text is looked at afterwards, so that all messages have one form. */
struct Texts
{
    std::optional<std::string> mSocket;
    std::optional<std::string> mTimeout;
    std::optional<std::string> mFor;
    std::optional<std::string> mQuietFor;
    std::optional<std::string> mSensor;
    std::vector<std::string> mPackets;
    bool mJson = false;
};

/** Wrong usage: its text says what was wrong and what is allowed. */
class UsageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

std::string Footer()
{
    std::string text =
        "Exit codes:\n"
        "  0  done\n"
        "  1  a failure on the link, or of the output\n"
        "  2  bad usage\n"
        "  3  no answer in time\n"
        "\n"
        "The first 'measure steps' or 'watch steps' opts in for good: from then on the\n"
        "watch pushes every update of the steps to whoever is connected.\n"
        "\n"
        "With --json:\n";
    for (const std::string &line : JsonPrinter::Keys()) {
        text += line.empty() ? "\n" : "  " + line + "\n";
    }
    text.pop_back();
    return text;
}

void AddSubcommands(CLI::App &app, Texts &texts)
{
    CLI::App *list =
        app.add_subcommand("list", "List the sensors and the Bluetooth address of the watch");

    CLI::App *measure = app.add_subcommand("measure", "Ask for one reading");
    measure->add_option("sensor", texts.mSensor, "hr (15 s), wear (up to 3 s), steps or activity");

    CLI::App *watch =
        app.add_subcommand("watch", "Print readings as they come, until Ctrl-C or SIGTERM;\n"
                                    "a lost link is made again");
    watch->add_option("sensor", texts.mSensor, "activity or steps");
    watch->add_option("--for", texts.mFor, "End after so long")->type_name("SECONDS");

    CLI::App *stop = app.add_subcommand("stop", "End the pushing of a sensor's readings");
    stop->add_option("sensor", texts.mSensor, "activity (the default), hr, wear or steps");

    CLI::App *raw =
        app.add_subcommand("raw", "Send packets as they are, and print every reply as hex with\n"
                                  "its meaning until the link is quiet");
    raw->add_option("packet", texts.mPackets,
                    "A packet each: pairs of hex digits; blanks and colons are allowed")
        ->type_name("HEX")
        ->required();
    raw->add_option(
           "--quiet-for,--wait", texts.mQuietFor,
           "How long is quiet; however long that takes\n(default: 1000, and the end after 2000)")
        ->type_name("MS");

    for (CLI::App *subcommand : {list, measure, watch, stop, raw}) {
        subcommand->footer("The options of 'parvane-host --help' are allowed here, too.");
    }
}

void AddOptions(CLI::App &app, Texts &texts)
{
    app.add_option("--socket", texts.mSocket,
                   "Socket of the accessory link (default: $PARVANE_LINK,\n"
                   "else $RUNTIME_DIRECTORY/link.sock,\n"
                   "else $XDG_RUNTIME_DIR/parvane/link.sock,\n"
                   "else /run/parvane/link.sock)")
        ->type_name("PATH");
    app.add_option("--timeout", texts.mTimeout,
                   "How long to wait for the watch\n"
                   "(default: 20 for hr, 8 for wear, else 5;\n"
                   "for raw the longest it runs)")
        ->type_name("SECONDS");
    app.add_flag("--json", texts.mJson, "Print one JSON object a line");
    app.set_version_flag("--version", std::string(kProgram) + " " + PARVANE_HOST_VERSION,
                         "Print the version and exit");
}

std::string Quoted(const std::string &text)
{
    return "'" + Parvane::Printable(text) + "'";
}

/** A number of at most `largest`; not negative, and not 0 unless `mayBeZero`. */
template <typename Number>
Number ParseNumber(const std::string &option, const std::string &text, Number largest,
                   bool mayBeZero, std::string_view allowed)
{
    Number value{};
    const char *end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, value);
    // Written so that a floating-point value that is not a number fails, too.
    const bool inRange = value <= largest && (value > 0 || (mayBeZero && value >= 0));
    if (parsed.ec != std::errc{} || parsed.ptr != end || !inRange) {
        throw UsageError(option + ": " + Quoted(text) + " is not allowed; give " +
                         std::string(allowed));
    }
    return value;
}

std::optional<milliseconds> ParseSeconds(const std::string &option,
                                         const std::optional<std::string> &text)
{
    constexpr double kLargest = 86400.0;
    constexpr double kMsPerSecond = 1000.0;
    if (!text) {
        return std::nullopt;
    }
    const double seconds =
        ParseNumber(option, *text, kLargest, false, "seconds above 0 and up to 86400, as in 2.5");
    return milliseconds{
        std::max(static_cast<std::int64_t>(seconds * kMsPerSecond), std::int64_t{1})};
}

milliseconds ParseMilliseconds(const std::string &option, const std::string &text)
{
    constexpr int kLargest = 86400000;
    return milliseconds{
        ParseNumber(option, text, kLargest, true, "whole milliseconds from 0 to 86400000")};
}

Sensor ParseSensor(const std::string &subcommand, const std::optional<std::string> &text,
                   std::initializer_list<Sensor> allowed)
{
    const auto sensor = SensorByName(text.value_or(""));
    if (sensor && std::find(allowed.begin(), allowed.end(), *sensor) != allowed.end()) {
        return *sensor;
    }
    std::string problem = subcommand + ": no sensor given";
    if (text) {
        problem =
            subcommand + ": " + (sensor ? "not possible for " : "unknown sensor ") + Quoted(*text);
    }
    std::string names;
    for (const Sensor candidate : allowed) {
        names += (names.empty() ? "" : ", ") + std::string(SensorName(candidate));
    }
    throw UsageError(problem + "; allowed: " + names);
}

std::vector<Bytes> ParsePackets(const std::vector<std::string> &texts)
{
    std::vector<Bytes> packets;
    for (const std::string &text : texts) {
        auto packet = ParseHex(text);
        const std::string which = "raw: packet " + std::to_string(packets.size() + 1) + ": ";
        if (!packet) {
            throw UsageError(which + packet.GetError());
        }
        if (packet.Value().size() > WireFormat::kMaxMessageBytes) {
            throw UsageError(which + std::to_string(packet.Value().size()) + " bytes; at most " +
                             std::to_string(WireFormat::kMaxMessageBytes) + " are allowed");
        }
        packets.push_back(std::move(packet).Value());
    }
    return packets;
}

std::string DefaultSocketPath(const Parvane::Environment &environment)
{
    const std::string link = Parvane::ValueOf(environment, "PARVANE_LINK");
    return link.empty() ? Parvane::RuntimeDirectory(environment, "parvane") + "/link.sock" : link;
}

std::string CheckedPath(std::string path)
{
    if (path.size() > Parvane::LongestSocketPath()) {
        throw UsageError("socket path " + Quoted(path) + " has " + std::to_string(path.size()) +
                         " bytes; at most " + std::to_string(Parvane::LongestSocketPath()) +
                         " are allowed");
    }
    return path;
}

/** What to say about a command line without a subcommand, of which `words` were not understood. */
std::string SubcommandText(const std::vector<std::string> &words)
{
    const std::string allowed = "; allowed: list, measure, watch, stop, raw";
    if (words.empty()) {
        return "no subcommand given" + allowed;
    }
    if (words.front().starts_with('-')) {
        return "unknown option " + Quoted(words.front());
    }
    return "unknown subcommand " + Quoted(words.front()) + allowed;
}

Invocation Interpret(const CLI::App &app, const Texts &texts,
                     const Parvane::Environment &environment)
{
    Invocation invocation;
    invocation.mJson = texts.mJson;
    if (texts.mSocket && texts.mSocket->empty()) {
        throw UsageError(
            "--socket: the path is empty; give the path of the accessory link's socket");
    }
    invocation.mSocketPath =
        CheckedPath(texts.mSocket ? *texts.mSocket : DefaultSocketPath(environment));
    invocation.mTimeout = ParseSeconds("--timeout", texts.mTimeout);
    if (app.got_subcommand("measure")) {
        invocation.mAction = Invocation::Action::Measure;
        invocation.mSensor = ParseSensor(
            "measure", texts.mSensor,
            {Sensor::HeartRate, Sensor::WearState, Sensor::Pedometer, Sensor::Activity});
    } else if (app.got_subcommand("watch")) {
        invocation.mAction = Invocation::Action::Watch;
        invocation.mSensor =
            ParseSensor("watch", texts.mSensor, {Sensor::Activity, Sensor::Pedometer});
        invocation.mFor = ParseSeconds("--for", texts.mFor);
    } else if (app.got_subcommand("stop")) {
        invocation.mAction = Invocation::Action::Stop;
        invocation.mSensor = ParseSensor(
            "stop", texts.mSensor ? texts.mSensor : std::string(SensorName(Sensor::Activity)),
            {Sensor::Activity, Sensor::HeartRate, Sensor::WearState, Sensor::Pedometer});
    } else if (app.got_subcommand("raw")) {
        invocation.mAction = Invocation::Action::Raw;
        invocation.mPackets = ParsePackets(texts.mPackets);
        if (texts.mQuietFor) {
            invocation.mQuietFor = ParseMilliseconds("--quiet-for", *texts.mQuietFor);
        }
    }
    return invocation;
}

Ending BadUsage(const std::string &text)
{
    return {ExitCode::BadUsage, "",
            std::string(kProgram) + ": " + Parvane::Printable(text) + "\nTry '" + kProgram +
                " --help'.\n"};
}

} // namespace

std::variant<Invocation, Ending> ParseCommandLine(const std::vector<std::string> &arguments,
                                                  const Parvane::Environment &environment)
{
    Texts texts;
    CLI::App app("Talks to the Parvane watch service as a phone does.", kProgram);
    app.fallthrough(); // global options may follow the subcommand
    app.require_subcommand(1);
    AddOptions(app, texts);
    AddSubcommands(app, texts);
    app.footer(Footer());

    try {
        app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
        return Interpret(app, texts, environment);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::Success)) {
            const bool noSubcommand =
                app.get_subcommands().empty() && error.get_name() == "RequiredError";
            return BadUsage(noSubcommand ? SubcommandText(app.remaining()) : error.what());
        }
        std::ostringstream output;
        app.exit(error, output, output);
        return Ending{ExitCode::Success, output.str(), ""};
    } catch (const UsageError &error) {
        return BadUsage(error.what());
    }
}

} // namespace ParvaneHost
