#include "CommandLine.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <string_view>
#include <system_error>
#include <utility>

#include "ErrnoText.h"
#include "ExitCodeText.h"
#include "HexBytes.h"
#include "JsonPrinter.h"
#include "RegularFile.h"
#include "Usage.h"
#include "WireFormat.h"

namespace ParvaneHost {

namespace {

using Parvane::ParseNumber;
using Parvane::ParseSeconds;
using Parvane::Quoted;
using Parvane::UsageError;
using std::chrono::milliseconds;

constexpr const char *kProgram = "parvane-host";
constexpr int kLongestSeconds = 86400;
/** For whoever has it wrong. */
const Parvane::UsageWords &Words()
{
    static const Parvane::UsageWords words = {
        kProgram,
        {{"list", "list", {"--timestamps", "--no-state"}},
         {"measure", "measure hr"},
         {"watch", "watch all"},
         {"today", "today", {"--timestamps"}},
         {"stop", "stop activity", {"--timestamps", "--no-state"}, true},
         {"raw", "raw 01 00 00 00", {"--no-state"}},
         {"export",
          "export --format tcx day.pcapng",
          {"--socket", "--link", "--token-file", "--fingerprint", "--capture", "--timeout",
           "--wait", "--timestamps", "--json", "--no-state"}}},
        {{"--socket", "/run/parvane/link.sock"},
         {"--link", "wss://watch.local:8467"},
         {"--token-file", "token"},
         {"--fingerprint", "5A:1F:..."},
         {"--capture", "link.pcapng"},
         {"--timeout", "2.5"},
         {"--wait", "10"},
         {"--timestamps", "iso"},
         {"--every", "10s"},
         {"--count", "6"},
         {"--for", "60"},
         {"--quiet-for", "500"},
         {"--format", "tcx"},
         {"--output", "day.tcx"}}};
    return words;
}

/** What CLI11 fills in; every text is looked at afterwards, so that all messages have one form. */
struct Texts
{
    std::optional<std::string> mSocket;
    std::optional<std::string> mLink;
    std::optional<std::string> mTokenFile;
    std::optional<std::string> mFingerprint;
    std::optional<std::string> mCapture;
    std::optional<std::string> mTimeout;
    std::optional<std::string> mWait;
    std::optional<std::string> mTimestamps;
    std::optional<std::string> mEvery;
    std::optional<std::string> mCount;
    std::optional<std::string> mFor;
    std::optional<std::string> mQuietFor;
    std::optional<std::string> mSensor;
    std::vector<std::string> mPackets;
    std::vector<std::string> mCaptures;
    std::optional<std::string> mFormat;
    std::optional<std::string> mOutput;
    bool mJson = false;
    bool mRaw = false;
    bool mNoState = false;
    bool mForce = false;
};

std::string Footer()
{
    std::string text =
        std::string(Parvane::kExitCodeText) +
        "\n"
        "Times are SECONDS with or without an s behind them: 10, 2.5s.\n"
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

void AddOption(CLI::App &app, const char *name, std::optional<std::string> &text,
               const char *description, const char *value)
{
    app.add_option(name, text, description)->type_name(value);
}

void AddRawFlag(CLI::App &subcommand, Texts &texts)
{
    subcommand.add_flag("--raw", texts.mRaw, "Print steps as the total on the wire");
}

CLI::App *AddExport(CLI::App &app, Texts &texts)
{
    CLI::App *subcommand = app.add_subcommand(
        "export", "Print what captures hold (--capture of watch all, or parvane-watch\n"
                  "capture): heart rates, true steps, activities, worn or not");
    subcommand->add_option("capture", texts.mCaptures, "A capture each, in their order")
        ->type_name("FILE");
    AddOption(*subcommand, "--format", texts.mFormat,
              "csv (the default); jsonl, an object a line; tcx, trainings;\n"
              "recording, which the service replays",
              "FORMAT");
    AddOption(*subcommand, "--output", texts.mOutput, "Write it to a file", "FILE");
    return subcommand;
}

void AddSubcommands(CLI::App &app, Texts &texts)
{
    CLI::App *list =
        app.add_subcommand("list", "List the sensors and the Bluetooth address of the watch");

    CLI::App *measure =
        app.add_subcommand("measure", "Ask for one reading, or for one again and again");
    measure->add_option("sensor", texts.mSensor,
                        "hr (at most 15 s), wear (at most 3 s), steps or activity");
    AddOption(*measure, "--every", texts.mEvery,
              "Measure again, so long after the one before began,\nuntil Ctrl-C or SIGTERM",
              "SECONDS");
    AddOption(*measure, "--count", texts.mCount, "With --every: end after so many", "N");

    AddRawFlag(*measure, texts);

    CLI::App *watch =
        app.add_subcommand("watch", "Print readings as they come, until Ctrl-C or SIGTERM;\n"
                                    "a lost link is made again");
    watch->add_option("sensor", texts.mSensor,
                      "activity and steps, as the watch pushes them; hr and\n"
                      "wear, measured again and again; or all of them");
    AddOption(*watch, "--for", texts.mFor, "End after so long", "SECONDS");

    AddRawFlag(*watch, texts);

    CLI::App *today = app.add_subcommand("today", "Print how many steps were walked today");

    CLI::App *stop = app.add_subcommand("stop", "End the pushing of a sensor's readings:\n"
                                                "of the activity, unless another is named");
    stop->add_option("sensor", texts.mSensor, "activity (the default), hr, wear or steps");

    CLI::App *raw =
        app.add_subcommand("raw", "Send packets as they are, and print every reply as hex with\n"
                                  "its meaning until the link is quiet");
    raw->add_option("packet", texts.mPackets,
                    "A packet each: pairs of hex digits; blanks and colons are\n"
                    "allowed; single bytes in a row are one packet")
        ->type_name("HEX");
    AddOption(*raw, "--quiet-for", texts.mQuietFor,
              "How long is quiet; however long that takes\n(default: 1000, and the end after 2000)",
              "MS");

    CLI::App *exported = AddExport(app, texts);

    for (CLI::App *subcommand : {list, measure, watch, today, stop, raw, exported}) {
        subcommand->footer("The options of 'parvane-host --help' are allowed here, too.");
    }
}

void AddOptions(CLI::App &app, Texts &texts)
{
    AddOption(app, "--socket", texts.mSocket,
              "Socket of the accessory link (default: $PARVANE_LINK,\n"
              "else $RUNTIME_DIRECTORY/link.sock,\n"
              "else $XDG_RUNTIME_DIR/parvane/link.sock,\n"
              "else /run/parvane/link.sock)",
              "PATH");
    AddOption(app, "--link", texts.mLink,
              "The watch in its place: wss://HOST[:PORT] and ws:// of its\n"
              "gateway on the network, or unix:PATH of a socket",
              "ADDRESS");
    AddOption(app, "--token-file", texts.mTokenFile,
              "With --link: what 'parvane-gateway token add' has shown\n"
              "(default: $PARVANE_TOKEN; not an argument, which every\n"
              "user of this machine could read)",
              "FILE");
    AddOption(app, "--fingerprint", texts.mFingerprint,
              "With wss://: SHA-256 of the one certificate that will do,\n"
              "as 'parvane-gateway status' tells it (default:\n"
              "$PARVANE_FINGERPRINT, else one that this system trusts)",
              "SHA256");
    AddOption(app, "--capture", texts.mCapture,
              "Write every packet of the link to a pcapng file,\nfor Wireshark", "FILE");
    app.add_flag("--force", texts.mForce, "Overwrite a file that exists");
    AddOption(app, "--timeout", texts.mTimeout,
              "How long to wait for the watch\n"
              "(default: 20 for hr, 8 for wear, else 5;\n"
              "for raw the longest it runs)",
              "SECONDS");
    AddOption(app, "--wait", texts.mWait,
              "Wait so long, 10 s unless told, for a service that\nis just starting", "[SECONDS]");
    AddOption(app, "--timestamps", texts.mTimestamps,
              "Begin each reading with its time: iso is\n"
              "2014-05-13T18:53:20.000+02:00, unix seconds since\n"
              "the epoch; - is an unknown one. With --json there\nis time_ms anyhow",
              "iso|unix");
    app.add_flag("--json", texts.mJson, "Print one JSON object a line");
    app.add_flag("--no-state", texts.mNoState,
                 "Keep no steps in $XDG_STATE_HOME/parvane-host\n"
                 "(default: ~/.local/state/parvane-host), read none");
    app.set_version_flag("--version", std::string(kProgram) + " " + PARVANE_HOST_VERSION,
                         "Print the version and exit");
}

milliseconds ParseMilliseconds(const std::string &option, const std::string &text)
{
    constexpr int kLargest = 86400000;
    return milliseconds{
        ParseNumber(option, text, kLargest, true, "whole milliseconds from 0 to 86400000")};
}

/** @param mayBeAll  whether "all" stands for all of `allowed` */
std::vector<Sensor> ParseSensors(const std::string &subcommand,
                                 const std::optional<std::string> &text,
                                 const std::vector<Sensor> &allowed, bool mayBeAll = false)
{
    if (mayBeAll && text == "all") {
        return allowed;
    }
    const auto sensor = SensorByName(text.value_or(""));
    if (sensor && std::find(allowed.begin(), allowed.end(), *sensor) != allowed.end()) {
        return {*sensor};
    }
    std::string names;
    for (const Sensor candidate : allowed) {
        names += (names.empty() ? "" : ", ") + std::string(SensorName(candidate));
    }
    throw UsageError(subcommand + ": " +
                     (text ? "unknown sensor " + Quoted(*text) : "no sensor given") +
                     "; allowed: " + names + (mayBeAll ? ", all" : ""));
}

std::vector<Bytes> ParsePackets(const std::vector<std::string> &texts)
{
    if (texts.empty()) {
        throw UsageError("raw needs at least one byte, as in: parvane-host raw 01 00 00 00");
    }
    std::vector<Bytes> packets;
    bool followsByte = false;
    for (std::size_t index = 0; index < texts.size(); ++index) {
        const std::string which = "raw: argument " + std::to_string(index + 1) + ": ";
        auto packet = ParseHex(texts[index]);
        if (!packet) {
            throw UsageError(which + packet.GetError());
        }
        const bool isByte = packet.Value().size() == 1;
        if (isByte && followsByte) {
            packets.back().push_back(packet.Value().front());
        } else {
            packets.push_back(std::move(packet).Value());
        }
        followsByte = isByte;
        if (packets.back().size() > WireFormat::kMaxMessageBytes) {
            throw UsageError(which + "the packet has " + std::to_string(packets.back().size()) +
                             " bytes; at most " + std::to_string(WireFormat::kMaxMessageBytes) +
                             " are allowed");
        }
    }
    return packets;
}

TimeStyle ParseTimeStyle(const std::optional<std::string> &text)
{
    if (!text) {
        return TimeStyle::Short;
    }
    if (*text != "iso" && *text != "unix") {
        throw UsageError("--timestamps: " + Quoted(*text) + " is not allowed; give iso or unix");
    }
    return *text == "iso" ? TimeStyle::Iso : TimeStyle::Unix;
}

std::string DefaultSocketPath(const Parvane::Environment &environment)
{
    const std::string link = Parvane::ValueOf(environment, "PARVANE_LINK");
    return link.empty() ? Parvane::RuntimeDirectory(environment, "parvane") + "/link.sock" : link;
}

/** The token of a file or the environment. */
std::string ReadToken(const Texts &texts, const Parvane::Environment &environment)
{
    constexpr std::size_t kMostBytes = 4096;
    std::string token = Parvane::ValueOf(environment, "PARVANE_TOKEN");
    if (texts.mTokenFile) {
        const int error = Parvane::ReadWholeFile(*texts.mTokenFile, kMostBytes, token);
        if (error != 0) {
            throw UsageError("--token-file: cannot read " + Quoted(*texts.mTokenFile) + ": " +
                             Parvane::ErrnoText(error));
        }
        token.erase(std::min(token.size(), token.find_last_not_of(" \t\r\n") + 1));
    }
    if (!IsToken(token)) {
        throw UsageError(texts.mTokenFile || !token.empty()
                             ? "what was given as the token is none: one word is"
                             : "--link needs a token: --token-file FILE, or PARVANE_TOKEN");
    }
    return token;
}

WebTarget ReadTarget(const Texts &texts, const Parvane::Environment &environment)
{
    auto target = ParseWebAddress(*texts.mLink);
    if (!target) {
        throw UsageError("--link: " + Quoted(*texts.mLink) + ": " + target.GetError());
    }
    WebTarget known = std::move(target).Value();
    known.mToken = ReadToken(texts, environment);
    const std::string given =
        texts.mFingerprint.value_or(Parvane::ValueOf(environment, "PARVANE_FINGERPRINT"));
    if (texts.mFingerprint && !known.mIsTls) {
        throw UsageError("--fingerprint has no effect without TLS: wss://");
    }
    if (texts.mFingerprint || !given.empty()) {
        const auto fingerprint = ParseFingerprint(given);
        if (!fingerprint) {
            throw UsageError("the fingerprint " + Quoted(given) +
                             " is none: 64 hexadecimal digits, with or without colons, are");
        }
        known.mFingerprint = *fingerprint;
    }
    return known;
}

/** The watch that is meant: a socket of this machine, or a gateway. */
void InterpretPlace(const Texts &texts, const Parvane::Environment &environment,
                    Invocation &invocation)
{
    constexpr std::string_view kUnix = "unix:";
    if (texts.mSocket && texts.mLink) {
        throw UsageError("--socket and --link both say where the watch is; give one of them");
    }
    const bool isWeb = texts.mLink && !texts.mLink->starts_with(kUnix);
    if (!isWeb && (texts.mTokenFile || texts.mFingerprint)) {
        throw UsageError(std::string(texts.mTokenFile ? "--token-file" : "--fingerprint") +
                         " has no effect without --link wss://HOST or ws://HOST");
    }
    if (isWeb) {
        invocation.mWeb = ReadTarget(texts, environment);
        return;
    }
    const std::string path = texts.mLink     ? texts.mLink->substr(kUnix.size())
                             : texts.mSocket ? *texts.mSocket
                                             : DefaultSocketPath(environment);
    invocation.mSocketPath = Parvane::CheckedSocketPath(path, "the accessory link's socket");
}

/**
 * Where the steps of a watch are kept: a file for each socket, named after its path, and for each gateway.
 * Empty where the environment knows no place.
 */
std::string StepsPath(const Parvane::Environment &environment, const Invocation &invocation)
{
    std::string state = Parvane::ValueOf(environment, "XDG_STATE_HOME");
    if (!state.starts_with('/')) { // others are to be ignored
        const std::string home = Parvane::ValueOf(environment, "HOME");
        if (!home.starts_with('/')) {
            return {};
        }
        state = home + "/.local/state";
    }
    std::error_code ignored; // such a path stays as it is
    std::string name = invocation.mWeb ? '/' + invocation.mWeb->mAddress
                                       : std::filesystem::absolute(invocation.mSocketPath, ignored)
                                             .lexically_normal()
                                             .string();
    std::replace(name.begin(), name.end(), '/', '%');
    return state + "/parvane-host/steps" + name;
}

void InterpretMeasure(const Texts &texts, Invocation &invocation)
{
    invocation.mAction = Invocation::Action::Measure;
    invocation.mSensors =
        ParseSensors("measure", texts.mSensor,
                     {Sensor::HeartRate, Sensor::WearState, Sensor::Pedometer, Sensor::Activity});
    invocation.mEvery = ParseSeconds("--every", texts.mEvery, kLongestSeconds);
    if (!texts.mEvery) {
        invocation.mCount = 1;
    }
    if (texts.mCount && !texts.mEvery) {
        throw UsageError(
            "--count needs --every, as in: parvane-host measure hr --every 10s --count 6");
    }
    if (texts.mCount) {
        invocation.mCount =
            ParseNumber("--count", *texts.mCount, std::numeric_limits<unsigned>::max(), false,
                        "a whole number from 1 to 4294967295");
    }
}

void InterpretExport(const Texts &texts, Invocation &invocation)
{
    constexpr std::array<std::pair<std::string_view, ExportFormat>, 4> kFormats = {{
        {"csv", ExportFormat::Csv},
        {"jsonl", ExportFormat::JsonLines},
        {"tcx", ExportFormat::Tcx},
        {"recording", ExportFormat::Recording},
    }};
    invocation.mAction = Invocation::Action::Export;
    if (texts.mCaptures.empty()) {
        throw UsageError("export: no capture given, as in: parvane-host export --format tcx "
                         "day.pcapng");
    }
    const std::string format = texts.mFormat.value_or("csv");
    const auto *const found = std::find_if(kFormats.begin(), kFormats.end(),
                                           [&](const auto &pair) { return pair.first == format; });
    if (found == kFormats.end()) {
        throw UsageError("--format: " + Quoted(format) +
                         " is not allowed; give csv, jsonl, tcx or recording");
    }
    invocation.mFormat = found->second;
    invocation.mCaptures = texts.mCaptures;
    if (texts.mOutput != "-") {
        invocation.mOutputPath = texts.mOutput;
    }
}

void InterpretAction(const std::string &subcommand, const Texts &texts, Invocation &invocation)
{
    if (subcommand == "measure") {
        InterpretMeasure(texts, invocation);
    } else if (subcommand == "watch") {
        invocation.mAction = Invocation::Action::Watch;
        // The activity, which is answered at once, goes first.
        invocation.mSensors = ParseSensors(
            "watch", texts.mSensor,
            {Sensor::Activity, Sensor::Pedometer, Sensor::HeartRate, Sensor::WearState}, true);
        invocation.mFor = ParseSeconds("--for", texts.mFor, kLongestSeconds);
    } else if (subcommand == "today") {
        invocation.mAction = Invocation::Action::Today;
        invocation.mSensors = {Sensor::Pedometer};
    } else if (subcommand == "stop") {
        invocation.mAction = Invocation::Action::Stop;
        invocation.mSensors = ParseSensors(
            "stop", texts.mSensor ? texts.mSensor : std::string(SensorName(Sensor::Activity)),
            {Sensor::Activity, Sensor::HeartRate, Sensor::WearState, Sensor::Pedometer});
    } else if (subcommand == "export") {
        InterpretExport(texts, invocation);
    } else if (subcommand == "raw") {
        invocation.mAction = Invocation::Action::Raw;
        invocation.mPackets = ParsePackets(texts.mPackets);
        if (texts.mQuietFor) {
            invocation.mQuietFor = ParseMilliseconds("--quiet-for", *texts.mQuietFor);
        }
    }
}

/** Options that another option or the sensor leaves without an effect. */
void RefuseWithoutEffect(const Texts &texts, const Invocation &invocation)
{
    const auto &sensors = invocation.mSensors;
    const bool hasSteps =
        std::find(sensors.begin(), sensors.end(), Sensor::Pedometer) != sensors.end();
    if (!hasSteps && (texts.mRaw || texts.mNoState)) {
        throw UsageError(std::string(texts.mRaw ? "--raw" : "--no-state") +
                         " has no effect here: it is for the steps");
    }
    if (texts.mTimestamps && texts.mJson) {
        throw UsageError("--timestamps has no effect with --json, which has time_ms");
    }
    if (texts.mForce && !texts.mOutput && !texts.mCapture) {
        throw UsageError("--force has no effect without a file to write: --capture, --output");
    }
}

Invocation Interpret(const CLI::App &app, const Texts &texts,
                     const Parvane::Environment &environment)
{
    Invocation invocation;
    invocation.mJson = texts.mJson;
    InterpretPlace(texts, environment, invocation);
    if (texts.mCapture && texts.mCapture->empty()) {
        throw UsageError("--capture: the path is empty; give the file to write");
    }
    if (texts.mCapture == "-") {
        throw UsageError("--capture: a capture goes to a file; ./- is one of that name");
    }
    invocation.mCapturePath = texts.mCapture;
    invocation.mForce = texts.mForce;
    invocation.mTimeout = ParseSeconds("--timeout", texts.mTimeout, kLongestSeconds);
    invocation.mWait =
        ParseSeconds("--wait", texts.mWait, kLongestSeconds).value_or(milliseconds{0});
    invocation.mTimeStyle = ParseTimeStyle(texts.mTimestamps);
    invocation.mRaw = texts.mRaw;
    if (!texts.mNoState) {
        invocation.mStepsPath = StepsPath(environment, invocation);
    }
    InterpretAction(app.get_subcommands().front()->get_name(), texts, invocation);
    RefuseWithoutEffect(texts, invocation);
    return invocation;
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

    Invocation invocation;
    const auto end = Parvane::ParseUsage(
        app, Words(), Parvane::WithOptionalValue(arguments, "--wait", Words().mValues.at("--wait")),
        [&] { invocation = Interpret(app, texts, environment); });
    if (end) {
        return Ending{end->mIsBadUsage ? ExitCode::BadUsage : ExitCode::Success, end->mOutput,
                      end->mError};
    }
    return invocation;
}

} // namespace ParvaneHost
