#include "CommandLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ParvaneHost {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
using testing::Not;

const char *NoEnvironment(const char * /*name*/)
{
    return nullptr;
}

Invocation Parsed(const std::vector<std::string> &arguments)
{
    const auto parsed = ParseCommandLine(arguments, NoEnvironment);
    if (const auto *ending = std::get_if<Ending>(&parsed)) {
        throw std::runtime_error(ending->mError + ending->mOutput);
    }
    return std::get<Invocation>(parsed);
}

Ending Refused(const std::vector<std::string> &arguments)
{
    const auto parsed = ParseCommandLine(arguments, NoEnvironment);
    const auto *ending = std::get_if<Ending>(&parsed);
    return ending == nullptr ? Ending{ExitCode::Success, "", "accepted"} : *ending;
}

void ExpectUsageError(const std::vector<std::string> &arguments, const std::string &text)
{
    const Ending ending = Refused(arguments);
    EXPECT_EQ(ending.mCode, ExitCode::BadUsage);
    EXPECT_EQ(ending.mOutput, "");
    EXPECT_EQ(ending.mError, "parvane-host: " + text + "\nTry 'parvane-host --help'.\n");
}

TEST(CommandLineTest, ListTakesTheDefaults)
{
    const Invocation invocation = Parsed({"list"});

    EXPECT_EQ(invocation.mAction, Invocation::Action::List);
    EXPECT_EQ(invocation.mSocketPath, "/run/parvane/link.sock");
    EXPECT_FALSE(invocation.mJson);
    EXPECT_EQ(invocation.mTimeout, std::nullopt);
}

TEST(CommandLineTest, GlobalOptionsStandBeforeOrAfterTheSubcommand)
{
    for (const auto &arguments :
         {std::vector<std::string>{"--socket", "/s", "--timeout", "2.5", "--json", "measure", "hr"},
          std::vector<std::string>{"measure", "hr", "--json", "--timeout=2.5", "--socket=/s"}}) {
        const Invocation invocation = Parsed(arguments);
        EXPECT_EQ(invocation.mAction, Invocation::Action::Measure);
        EXPECT_EQ(invocation.mSensor, Sensor::HeartRate);
        EXPECT_EQ(invocation.mSocketPath, "/s");
        EXPECT_TRUE(invocation.mJson);
        EXPECT_EQ(invocation.mTimeout, milliseconds{2500});
    }
}

TEST(CommandLineTest, TheEnvironmentNamesTheSocketUnlessTheCommandLineDoes)
{
    const Parvane::Environment environment = [](const char *name) {
        return std::string(name) == "PARVANE_LINK" ? "/from/environment" : "/other";
    };

    EXPECT_EQ(std::get<Invocation>(ParseCommandLine({"list"}, environment)).mSocketPath,
              "/from/environment");
    EXPECT_EQ(
        std::get<Invocation>(ParseCommandLine({"list", "--socket", "/s"}, environment)).mSocketPath,
        "/s");
}

TEST(CommandLineTest, WithoutAPathTheLinkIsInTheRuntimeDirectory)
{
    const Parvane::Environment environment = [](const char *name) {
        return std::string(name) == "XDG_RUNTIME_DIR" ? "/run/user/7" : "";
    };
    EXPECT_EQ(std::get<Invocation>(ParseCommandLine({"list"}, environment)).mSocketPath,
              "/run/user/7/parvane/link.sock");
}

TEST(CommandLineTest, TextFromTheCommandLineCannotSteerTheTerminal)
{
    ExpectUsageError(
        {"measure", "\033[2J\u202E"},
        "measure: unknown sensor '\\x1B[2J\\xE2\\x80\\xAE'; allowed: hr, wear, steps, activity");
    EXPECT_THAT(Refused({"list", "--\033[2J"}).mError, Not(HasSubstr("\033")));
}

TEST(CommandLineTest, MeasureTakesAllFourSensors)
{
    EXPECT_EQ(Parsed({"measure", "hr"}).mSensor, Sensor::HeartRate);
    EXPECT_EQ(Parsed({"measure", "wear"}).mSensor, Sensor::WearState);
    EXPECT_EQ(Parsed({"measure", "steps"}).mSensor, Sensor::Pedometer);
    EXPECT_EQ(Parsed({"measure", "activity"}).mSensor, Sensor::Activity);
}

TEST(CommandLineTest, WatchTakesASensorAndATime)
{
    EXPECT_EQ(Parsed({"watch", "steps"}).mFor, std::nullopt);

    const Invocation invocation = Parsed({"watch", "activity", "--for", "0.25"});
    EXPECT_EQ(invocation.mAction, Invocation::Action::Watch);
    EXPECT_EQ(invocation.mSensor, Sensor::Activity);
    EXPECT_EQ(invocation.mFor, milliseconds{250});
}

TEST(CommandLineTest, StopMeansTheActivityUnlessTold)
{
    EXPECT_EQ(Parsed({"stop"}).mAction, Invocation::Action::Stop);
    EXPECT_EQ(Parsed({"stop"}).mSensor, Sensor::Activity);
    EXPECT_EQ(Parsed({"stop", "wear"}).mSensor, Sensor::WearState);
}

TEST(CommandLineTest, RawTakesPackets)
{
    const Invocation invocation = Parsed({"raw", "01", "12 00:00 03", "--quiet-for", "0"});

    EXPECT_EQ(invocation.mAction, Invocation::Action::Raw);
    EXPECT_EQ(invocation.mPackets, (std::vector<Bytes>{{0x01}, {0x12, 0x00, 0x00, 0x03}}));
    EXPECT_EQ(invocation.mQuietFor, milliseconds{0});
    EXPECT_EQ(Parsed({"raw", "01"}).mQuietFor, std::nullopt);
    EXPECT_EQ(Parsed({"raw", "01", "--wait", "7"}).mQuietFor, milliseconds{7}) << "its old name";
}

TEST(CommandLineTest, SubcommandsAreNamedWhenMissingOrUnknown)
{
    ExpectUsageError({}, "no subcommand given; allowed: list, measure, watch, stop, raw");
    ExpectUsageError({"frob"},
                     "unknown subcommand 'frob'; allowed: list, measure, watch, stop, raw");
    ExpectUsageError({"--frob"}, "unknown option '--frob'");
    ExpectUsageError({"list", "more"}, "The following argument was not expected: more");
}

TEST(CommandLineTest, SensorsAreNamedWhenMissingUnknownOrImpossible)
{
    ExpectUsageError({"measure"}, "measure: no sensor given; allowed: hr, wear, steps, activity");
    ExpectUsageError({"measure", "frob"},
                     "measure: unknown sensor 'frob'; allowed: hr, wear, steps, activity");
    ExpectUsageError({"watch", "hr"}, "watch: not possible for 'hr'; allowed: activity, steps");
    ExpectUsageError({"stop", "unknown"},
                     "stop: unknown sensor 'unknown'; allowed: activity, hr, wear, steps");
}

TEST(CommandLineTest, TimesOutOfRangeAreNamed)
{
    const std::string seconds = "give seconds above 0 and up to 86400, as in 2.5";
    for (const char *text : {"0", "-1", "86401", "nan", "inf", "1s", "", " 1", "1e9", "0x10"}) {
        ExpectUsageError({"list", "--timeout", text},
                         std::string("--timeout: '") + text + "' is not allowed; " + seconds);
    }
    ExpectUsageError({"watch", "steps", "--for", "0"}, "--for: '0' is not allowed; " + seconds);
    ExpectUsageError(
        {"raw", "01", "--quiet-for", "1.5"},
        "--quiet-for: '1.5' is not allowed; give whole milliseconds from 0 to 86400000");
    ExpectUsageError(
        {"raw", "01", "--quiet-for=-1"},
        "--quiet-for: '-1' is not allowed; give whole milliseconds from 0 to 86400000");
}

TEST(CommandLineTest, TheSmallestTimeIsNotRoundedToNone)
{
    EXPECT_EQ(Parsed({"list", "--timeout", "0.0001"}).mTimeout, milliseconds{1});
    EXPECT_EQ(Parsed({"list", "--timeout", "86400"}).mTimeout, milliseconds{86400000});
}

TEST(CommandLineTest, PacketsThatAreNoneAreNamed)
{
    ExpectUsageError(
        {"raw", "01", "0g"},
        "raw: packet 2: character 2 is no hexadecimal digit; allowed are 0-9, a-f, A-F, "
        "blanks and colons");
    ExpectUsageError(
        {"raw", "012"},
        "raw: packet 1: an odd number of hexadecimal digits (3); two digits make a byte");
    ExpectUsageError({"raw"}, "packet is required");
    ExpectUsageError({"raw", std::string(2UL * 65532UL, '0')},
                     "raw: packet 1: 65532 bytes; at most 65531 are allowed");
    EXPECT_EQ(Parsed({"raw", std::string(2UL * 65531UL, '0')}).mPackets.front().size(), 65531U);
}

TEST(CommandLineTest, SocketPathsThatCannotBeAreNamed)
{
    const std::string path(108, 'x');
    ExpectUsageError({"list", "--socket", path},
                     "socket path '" + path + "' has 108 bytes; at most 107 are allowed");
    ExpectUsageError({"list", "--socket", ""},
                     "--socket: the path is empty; give the path of the accessory link's socket");
    EXPECT_EQ(Parsed({"list", "--socket", path.substr(1)}).mSocketPath, path.substr(1));
}

TEST(CommandLineTest, HelpNamesTheExitCodesAndTheKeys)
{
    const Ending ending = Refused({"--help"});

    EXPECT_EQ(ending.mCode, ExitCode::Success);
    EXPECT_EQ(ending.mError, "");
    EXPECT_THAT(ending.mOutput, HasSubstr("  3  no answer in time\n"));
    EXPECT_THAT(ending.mOutput, HasSubstr("$RUNTIME_DIRECTORY/link.sock"));
    EXPECT_THAT(ending.mOutput, HasSubstr("time_ms"));
    EXPECT_THAT(Refused({"watch", "--help"}).mOutput, HasSubstr("--for SECONDS"));
}

TEST(CommandLineTest, VersionIsOneLine)
{
    const Ending ending = Refused({"--version"});

    EXPECT_EQ(ending.mCode, ExitCode::Success);
    EXPECT_EQ(ending.mOutput, "parvane-host " PARVANE_HOST_VERSION "\n");
}

} // namespace
} // namespace ParvaneHost
