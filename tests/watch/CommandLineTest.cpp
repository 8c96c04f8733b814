#include "CommandLine.h"

#include <nlohmann/json.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneWatch {
namespace {

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;

const char *NoVariable(const char * /*name*/)
{
    return nullptr;
}

Invocation Parsed(const std::vector<std::string> &arguments)
{
    auto parsed = ParseCommandLine(arguments, NoVariable);
    const auto *ending = std::get_if<Ending>(&parsed);
    EXPECT_EQ(ending, nullptr) << ending->mError;
    return std::get<Invocation>(parsed);
}

json RequestOf(const std::vector<std::string> &arguments)
{
    return json::parse(Parsed(arguments).mRequest);
}

std::string ErrorOf(const std::vector<std::string> &arguments)
{
    const auto parsed = ParseCommandLine(arguments, NoVariable);
    const auto *ending = std::get_if<Ending>(&parsed);
    if (ending == nullptr) {
        return "none";
    }
    EXPECT_EQ(ending->mCode, ExitCode::BadUsage);
    EXPECT_THAT(ending->mError, EndsWith("\nTry 'parvane-watch --help'.\n"));
    return ending->mError.substr(0, ending->mError.find('\n'));
}

TEST(CommandLineTest, EachCommandIsItsRequest)
{
    EXPECT_EQ(RequestOf({"status"}), json({{"version", 1}, {"request", "status"}}));
    EXPECT_EQ(RequestOf({"set", "hr", "72"}),
              json({{"version", 1}, {"request", "set"}, {"item", "heart_rate"}, {"value", 72}}));
    EXPECT_EQ(RequestOf({"set", "hr", "off-wrist"}).at("value"), "off-wrist");
    EXPECT_EQ(RequestOf({"set", "steps", "+10"}),
              json({{"version", 1}, {"request", "set"}, {"item", "steps"}, {"add", 10}}));
    EXPECT_EQ(RequestOf({"set", "activity", "walking"}).at("value"), "walking");
    EXPECT_EQ(RequestOf({"set", "gesture", "3"}).at("value"), 3);
    EXPECT_EQ(RequestOf({"link", "down"}),
              json({{"version", 1}, {"request", "link"}, {"state", "down"}}));
    EXPECT_EQ(RequestOf({"memory", "low"}),
              json({{"version", 1}, {"request", "memory"}, {"state", "low"}}));
    EXPECT_EQ(RequestOf({"battery", "low"}).at("request"), "battery");
    EXPECT_EQ(RequestOf({"quit"}), json({{"version", 1}, {"request", "quit"}}));
}

TEST(CommandLineTest, ConfigAndLogAskAndLogChanges)
{
    EXPECT_EQ(RequestOf({"config"}), json({{"version", 1}, {"request", "config"}}));
    EXPECT_EQ(RequestOf({"log"}), json({{"version", 1}, {"request", "log"}}));
    EXPECT_EQ(RequestOf({"log", "warning"}).at("level"), "warning");
    EXPECT_EQ(RequestOf({"log", "--tags", "a,b"}),
              json({{"version", 1}, {"request", "log"}, {"tags", "a,b"}}));
    EXPECT_EQ(RequestOf({"log", "--tags", ""}).at("tags"), "");
    for (const std::string tags : {",", "a,", ",a", "a,,b"}) {
        EXPECT_EQ(ErrorOf({"log", "--tags", tags}),
                  "parvane-watch: log: unknown tags '" + tags +
                      "'; allowed: tags with a comma between each two, as in Parvane,platform; '' "
                      "for any");
    }
    EXPECT_THAT(ErrorOf({"log", "--tags", "a\tb"}), HasSubstr("log: unknown tags 'a"));
}

TEST(CommandLineTest, ReplayAsksOrSteers)
{
    const json plain = {{"version", 1}, {"request", "replay"}};
    EXPECT_EQ(RequestOf({"replay"}), plain);
    EXPECT_EQ(RequestOf({"replay", "status"}), plain);
    EXPECT_EQ(RequestOf({"replay", "list"}), plain);
    const auto steering = [](std::vector<std::string> words) {
        words.insert(words.begin(), "replay");
        json request = RequestOf(words);
        request.erase("version");
        request.erase("request");
        return request;
    };
    EXPECT_EQ(steering({"pause"}), json({{"action", "pause"}}));
    EXPECT_EQ(steering({"resume"}), json({{"action", "resume"}}));
    EXPECT_EQ(steering({"seek", "12.5"}), json({{"action", "seek"}, {"position_ms", 12500}}));
    EXPECT_EQ(steering({"speed", "0.1"}), json({{"action", "speed"}, {"speed", 0.1}}));
    EXPECT_EQ(steering({"open", "a.csv"}), json({{"action", "open"}, {"recording", "a.csv"}}));
    EXPECT_EQ(ErrorOf({"replay", "stop"}),
              "parvane-watch: replay: unknown action 'stop'; allowed: status, list, pause, resume, "
              "seek, speed, open");
    for (const char *seconds : {"-1", "nan", "1s", ""}) {
        EXPECT_EQ(ErrorOf({"replay", "seek", seconds}),
                  std::string("parvane-watch: replay seek: unknown value '") + seconds +
                      "'; allowed: seconds, as in 12.5");
    }
    EXPECT_EQ(ErrorOf({"replay", "speed"}),
              "parvane-watch: replay speed: no value given; allowed: a number from 0.1 to 1000");
    for (const char *speed : {"0", "0.09", "1001"}) {
        EXPECT_EQ(ErrorOf({"replay", "speed", speed}),
                  std::string("parvane-watch: replay speed: unknown value '") + speed +
                      "'; allowed: a number from 0.1 to 1000");
    }
    EXPECT_EQ(ErrorOf({"replay", "open"}), "parvane-watch: replay open: no recording given; "
                                           "allowed: those that 'replay list' tells");
    EXPECT_EQ(ErrorOf({"replay", "pause", "5"}),
              "parvane-watch: replay pause: there is no value to it, but '5'");
}

TEST(CommandLineTest, PlayTakesAScriptASeedAndASpeed)
{
    const Invocation plain = Parsed({"play", "a.csv"});
    EXPECT_EQ(plain.mAction, Invocation::Action::Play);
    EXPECT_EQ(plain.mFile, "a.csv");
    EXPECT_EQ(plain.mSeed, 1U);
    EXPECT_EQ(plain.mSpeed, 1.0);
    const Invocation other = Parsed(
        {"play", "a.csv", "--seed", "18446744073709551615", "--speed", "2.5", "--socket", "/s"});
    EXPECT_EQ(other.mSeed, 18446744073709551615U);
    EXPECT_EQ(other.mSpeed, 2.5);
    EXPECT_EQ(other.mSocketPath, "/s");
    EXPECT_EQ(ErrorOf({"play"}),
              "parvane-watch: play: no script given; allowed: the path of a scenario");
    EXPECT_EQ(ErrorOf({"play", "a", "--seed=-1"}),
              "parvane-watch: play: unknown seed '-1'; allowed: a whole number from 0 on");
    for (const char *speed : {"0", "-1", "nan", "100001", "fast"}) {
        EXPECT_EQ(ErrorOf({"play", "a", std::string("--speed=") + speed}),
                  std::string("parvane-watch: play: unknown speed '") + speed +
                      "'; allowed: a number from 0.001 to 100000");
    }
}

TEST(CommandLineTest, StepsActivityAndGestureNeedNoSet)
{
    EXPECT_EQ(RequestOf({"steps", "+10"}), RequestOf({"set", "steps", "+10"}));
    EXPECT_EQ(RequestOf({"activity", "running"}), RequestOf({"set", "activity", "running"}));
    EXPECT_EQ(RequestOf({"gesture", "-3"}), RequestOf({"set", "gesture", "-3"}));
    EXPECT_EQ(
        ErrorOf({"steps", "10"}),
        "parvane-watch: steps: unknown value '10'; allowed: steps to add, as in +10, up to +2147483647");
    EXPECT_EQ(ErrorOf({"activity"}), "parvane-watch: activity: no value given; allowed: walking, "
                                     "running, still, other");
}

TEST(CommandLineTest, RecordTakesAFileThatMayHaveToBeNew)
{
    const Invocation careful = Parsed({"record", "a.csv"});
    EXPECT_EQ(careful.mAction, Invocation::Action::Record);
    EXPECT_EQ(careful.mFile, "a.csv");
    EXPECT_FALSE(careful.mForce);
    EXPECT_TRUE(Parsed({"record", "--force", "a.csv"}).mForce);
}

TEST(CommandLineTest, GlobalOptionsMayFollowTheSubcommand)
{
    const Invocation invocation = Parsed({"status", "--json", "--socket", "/x/control.sock"});
    EXPECT_TRUE(invocation.mJson);
    EXPECT_EQ(invocation.mSocketPath, "/x/control.sock");
    EXPECT_EQ(Parsed({"status"}).mSocketPath, "/run/parvane/control.sock");
}

TEST(CommandLineTest, CaptureHasAFileAndMayEndByItself)
{
    const Invocation plain = Parsed({"capture", "link.pcapng"});
    EXPECT_EQ(plain.mAction, Invocation::Action::Capture);
    EXPECT_EQ(plain.mFile, "link.pcapng");
    EXPECT_EQ(plain.mFor, std::nullopt);
    EXPECT_EQ(plain.mQuiet, std::nullopt);
    EXPECT_FALSE(plain.mForce);
    EXPECT_EQ(RequestOf({"capture", "link.pcapng"}),
              json({{"version", 1}, {"request", "capture"}}));

    const Invocation quiet = Parsed({"capture", "--until-quiet", "link.pcapng", "--for", "30"});
    EXPECT_EQ(quiet.mQuiet, std::chrono::seconds(20));
    EXPECT_EQ(quiet.mFor, std::chrono::seconds(30));
    EXPECT_EQ(quiet.mFile, "link.pcapng");
    EXPECT_EQ(Parsed({"capture", "--force", "a", "--until-quiet", "3s"}).mQuiet,
              std::chrono::seconds(3));
    EXPECT_THAT(ErrorOf({"capture", "a", "--until-quiet", "0"}),
                HasSubstr("--until-quiet: '0' is not allowed; give seconds above 0"));
    EXPECT_THAT(ErrorOf({"capture"}), HasSubstr("capture: no file given"));
    EXPECT_THAT(ErrorOf({"capture", "-"}), HasSubstr("./- is one of that name"));
}

TEST(CommandLineTest, WrongUsageSaysWhatIsAllowed)
{
    EXPECT_EQ(ErrorOf({}),
              "parvane-watch: no subcommand given; allowed: status, monitor, config, "
              "log, set, steps, activity, gesture, link, memory, battery, quit, record, "
              "capture, play, replay, check-config");
    EXPECT_THAT(ErrorOf({"frob"}), HasSubstr("unknown subcommand 'frob'; allowed: status"));
    EXPECT_EQ(ErrorOf({"set"}),
              "parvane-watch: set: no item given; allowed: hr, steps, activity, gesture");
    EXPECT_EQ(ErrorOf({"set", "pulse", "7"}),
              "parvane-watch: set: unknown item 'pulse'; allowed: hr, steps, activity, gesture");
    EXPECT_EQ(ErrorOf({"set", "hr", "7x"}),
              "parvane-watch: set hr: unknown value '7x'; allowed: "
              "a whole number of beats per minute from 0 to 65535, off-wrist");
    EXPECT_EQ(ErrorOf({"set", "hr", "99999999999999999999"}),
              "parvane-watch: set hr: unknown value '99999999999999999999'; allowed: a whole "
              "number of beats per minute from 0 to 65535, off-wrist");
    for (const char *steps : {"10", "+", "+-1", "++1", "+1.5", "+ 1"}) {
        EXPECT_EQ(ErrorOf({"set", "steps", steps}),
                  "parvane-watch: set steps: unknown value '" + std::string(steps) +
                      "'; allowed: steps to add, as in +10, up to +2147483647");
    }
    EXPECT_EQ(ErrorOf({"set", "activity"}), "parvane-watch: set activity: no value given; "
                                            "allowed: walking, running, still, other");
    EXPECT_EQ(ErrorOf({"link", "off"}),
              "parvane-watch: link: unknown state 'off'; allowed: up, down");
    EXPECT_EQ(ErrorOf({"memory"}), "parvane-watch: memory: no state given; allowed: low");
    for (const char *length : {"0s", "1h", "31536001", "-1"}) {
        EXPECT_EQ(ErrorOf({"monitor", std::string("--for=") + length}),
                  std::string("parvane-watch: --for: '") + length +
                      "' is not allowed; give seconds above 0 and up to 31536000, as in 2.5");
    }
    EXPECT_EQ(Parsed({"monitor", "--for", "30s", "--plain"}).mFor, std::chrono::seconds(30));
    EXPECT_EQ(Parsed({"monitor", "--for", "1.5"}).mFor, std::chrono::milliseconds(1500));
    EXPECT_EQ(ErrorOf({"record", "--on", "hr,pulse", "a.csv"}),
              "parvane-watch: record --on: unknown item 'pulse'; allowed: hr, steps, activity, "
              "gesture");
    EXPECT_EQ(ErrorOf({"record", "--on", "", "a.csv"}),
              "parvane-watch: record --on: no item given; allowed: hr, steps, activity, gesture");
    EXPECT_EQ(ErrorOf({"record"}),
              "parvane-watch: record: no file given; allowed: the path of a file that is made");
    EXPECT_THAT(ErrorOf({"--socket", std::string(108, 'x'), "status"}),
                HasSubstr("has 108 bytes; at most 107 are allowed"));
    EXPECT_THAT(ErrorOf({"--socket", "", "status"}), HasSubstr("the path is empty"));
}

TEST(CommandLineTest, NumbersAndLevelsOutOfRangeAreWrongUsage)
{
    EXPECT_EQ(RequestOf({"set", "hr", "65535"}).at("value"), 65535);
    for (const char *rate : {"65536", "-1"}) {
        EXPECT_EQ(ErrorOf({"set", "hr", rate}),
                  std::string("parvane-watch: set hr: unknown value '") + rate +
                      "'; allowed: a whole number of beats per minute from 0 to 65535, off-wrist");
    }
    EXPECT_EQ(RequestOf({"steps", "+2147483647"}).at("add"), 2147483647);
    EXPECT_THAT(ErrorOf({"steps", "+2147483648"}), EndsWith("as in +10, up to +2147483647"));
    EXPECT_EQ(RequestOf({"gesture", "-2147483648"}).at("value"), -2147483648);
    EXPECT_THAT(ErrorOf({"gesture", "2147483648"}), EndsWith("a whole number of 32 bits"));
    EXPECT_EQ(ErrorOf({"log", "loud"}),
              "parvane-watch: log: unknown level 'loud'; allowed: auto, verbose, debug, info, "
              "warning, error, fatal");
}

TEST(CommandLineTest, WhatTheParserFindsWrongIsSaidAsEverythingElseIs)
{
    EXPECT_EQ(ErrorOf({"status", "more"}), "parvane-watch: status: 'more' is one word too many, as "
                                           "in: parvane-watch status");
    EXPECT_EQ(ErrorOf({"play", "--frob"}), "parvane-watch: play: unknown option '--frob'");
    EXPECT_EQ(ErrorOf({"--frob"}), "parvane-watch: unknown option '--frob'");
    EXPECT_EQ(ErrorOf({"status", "--socket"}),
              "parvane-watch: --socket needs a value, as in: --socket /run/parvane/control.sock");
    for (const char *option : {"--for", "--tags", "--on", "--seed", "--speed"}) {
        const std::string command = option == std::string("--for")    ? "monitor"
                                    : option == std::string("--tags") ? "log"
                                    : option == std::string("--on")   ? "record"
                                                                      : "play";
        EXPECT_THAT(ErrorOf({command, option}), HasSubstr(" needs a value, as in: "));
    }
    for (const char *flag : {"--json=3", "--json=true"}) {
        EXPECT_EQ(ErrorOf({"status", flag}), "parvane-watch: --json takes no value");
    }
    EXPECT_EQ(ErrorOf({"record", "--force=1", "a"}), "parvane-watch: --force takes no value");
    EXPECT_EQ(Parsed({"play", "a", "--seed", "1", "--seed", "2"}).mSeed, 2U);
}

TEST(CommandLineTest, OptionsWithoutAnEffectAreWrongUsage)
{
    EXPECT_EQ(ErrorOf({"check-config", "a.conf", "--socket", "/s"}),
              "parvane-watch: check-config: --socket has no effect here");
    EXPECT_EQ(ErrorOf({"monitor", "--plain", "--json"}),
              "parvane-watch: monitor: --plain has no effect with --json");
    EXPECT_EQ(ErrorOf({"record", "--force", "-"}),
              "parvane-watch: record: --force has no effect on standard output");
}

TEST(CommandLineTest, HelpListsTheExitCodes)
{
    const auto parsed = ParseCommandLine({"--help"}, NoVariable);
    EXPECT_EQ(std::get<Ending>(parsed).mCode, ExitCode::Success);
    EXPECT_THAT(std::get<Ending>(parsed).mOutput,
                HasSubstr("  3  no answer in time, or no service that serves this user\n"));
}

TEST(CommandLineTest, HelpHasBracketsAroundWhatMayBeLeftOut)
{
    const auto help = [](const char *command) {
        return std::get<Ending>(ParseCommandLine({command, "--help"}, NoVariable)).mOutput;
    };
    EXPECT_THAT(help("set"), HasSubstr("Usage: parvane-watch set [OPTIONS] item value\n"));
    EXPECT_THAT(help("record"), HasSubstr("Usage: parvane-watch record [OPTIONS] file\n"));
    EXPECT_THAT(help("log"), HasSubstr("Usage: parvane-watch log [OPTIONS] [level]\n"));
}

} // namespace
} // namespace ParvaneWatch
