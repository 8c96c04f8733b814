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

std::vector<Sensor> OneOf(Sensor sensor)
{
    return {sensor};
}

void ExpectUsageError(const std::vector<std::string> &arguments, const std::string &text)
{
    const Ending ending = Refused(arguments);
    EXPECT_EQ(ending.mCode, ExitCode::BadUsage);
    EXPECT_EQ(ending.mOutput, "");
    EXPECT_EQ(ending.mError, "parvane-host: " + text + "\nTry 'parvane-host --help'.\n");
}

TEST(CommandLineTest, StepsAreKeptInAFileForEachSocket)
{
    const auto stepsPath = [](const std::vector<std::string> &words, const char *state) {
        const Parvane::Environment environment = [state](const char *name) {
            return std::string(name) == "XDG_STATE_HOME" ? state
                   : std::string(name) == "HOME"         ? "/home/me"
                                                         : nullptr;
        };
        return std::get<Invocation>(ParseCommandLine(words, environment)).mStepsPath;
    };
    const std::vector<std::string> today{"today", "--socket", "/run/a/../link.sock"};
    EXPECT_EQ(stepsPath(today, "/state"), "/state/parvane-host/steps%run%link.sock");
    EXPECT_EQ(stepsPath(today, "relative"),
              "/home/me/.local/state/parvane-host/steps%run%link.sock");
    EXPECT_EQ(stepsPath({"today", "--no-state"}, "/state"), "");
    EXPECT_EQ(std::get<Invocation>(ParseCommandLine(today, NoEnvironment)).mStepsPath, "");
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
        EXPECT_EQ(invocation.mSensors, OneOf(Sensor::HeartRate));
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
    EXPECT_EQ(Parsed({"measure", "hr"}).mSensors, OneOf(Sensor::HeartRate));
    EXPECT_EQ(Parsed({"measure", "wear"}).mSensors, OneOf(Sensor::WearState));
    EXPECT_EQ(Parsed({"measure", "steps"}).mSensors, OneOf(Sensor::Pedometer));
    EXPECT_EQ(Parsed({"measure", "activity"}).mSensors, OneOf(Sensor::Activity));
}

TEST(CommandLineTest, WatchTakesASensorAndATime)
{
    EXPECT_EQ(Parsed({"watch", "steps"}).mFor, std::nullopt);

    const Invocation invocation = Parsed({"watch", "activity", "--for", "0.25"});
    EXPECT_EQ(invocation.mAction, Invocation::Action::Watch);
    EXPECT_EQ(invocation.mSensors, OneOf(Sensor::Activity));
    EXPECT_EQ(invocation.mFor, milliseconds{250});
}

TEST(CommandLineTest, WatchTakesAllSensors)
{
    EXPECT_EQ(Parsed({"watch", "hr"}).mSensors, OneOf(Sensor::HeartRate));
    EXPECT_EQ(Parsed({"watch", "wear"}).mSensors, OneOf(Sensor::WearState));
    EXPECT_EQ(Parsed({"watch", "all"}).mSensors,
              (std::vector<Sensor>{Sensor::Activity, Sensor::Pedometer, Sensor::HeartRate,
                                   Sensor::WearState}));
}

TEST(CommandLineTest, AMeasurementIsOneUnlessToldHowOften)
{
    const Invocation once = Parsed({"measure", "hr"});
    EXPECT_EQ(once.mEvery, std::nullopt);
    EXPECT_EQ(once.mCount, 1U);

    const Invocation series = Parsed({"measure", "hr", "--every", "10s"});
    EXPECT_EQ(series.mEvery, milliseconds{10000});
    EXPECT_EQ(series.mCount, std::nullopt);
    EXPECT_EQ(Parsed({"measure", "hr", "--every", "1", "--count", "3"}).mCount, 3U);

    ExpectUsageError({"measure", "hr", "--count", "3"},
                     "--count needs --every, as in: parvane-host measure hr --every 10s --count 6");
    ExpectUsageError({"measure", "hr", "--every", "1", "--count", "0"},
                     "--count: '0' is not allowed; give a whole number from 1 to 4294967295");
}

TEST(CommandLineTest, WaitTakesTheNumberThatFollows)
{
    EXPECT_EQ(Parsed({"list"}).mWait, milliseconds{0});
    EXPECT_EQ(Parsed({"list", "--wait"}).mWait, milliseconds{10000});
    EXPECT_EQ(Parsed({"--wait", "list"}).mWait, milliseconds{10000});
    EXPECT_EQ(Parsed({"--wait", "2.5", "list"}).mWait, milliseconds{2500});
    EXPECT_EQ(Parsed({"list", "--wait=2"}).mWait, milliseconds{2000});

    const Invocation measure = Parsed({"measure", "--wait", "hr"});
    EXPECT_EQ(measure.mWait, milliseconds{10000});
    EXPECT_EQ(measure.mSensors, OneOf(Sensor::HeartRate));
    EXPECT_EQ(Parsed({"measure", "--wait", "3", "hr"}).mWait, milliseconds{3000});
}

TEST(CommandLineTest, TimestampsAreIsoOrUnix)
{
    EXPECT_EQ(Parsed({"list"}).mTimeStyle, TimeStyle::Short);
    EXPECT_EQ(Parsed({"watch", "hr", "--timestamps", "iso"}).mTimeStyle, TimeStyle::Iso);
    EXPECT_EQ(Parsed({"watch", "hr", "--timestamps", "unix"}).mTimeStyle, TimeStyle::Unix);
    ExpectUsageError({"watch", "hr", "--timestamps", "utc"},
                     "--timestamps: 'utc' is not allowed; give iso or unix");
}

TEST(CommandLineTest, TheLastOfAnOptionCounts)
{
    EXPECT_EQ(Parsed({"list", "--timeout", "1", "--timeout", "2"}).mTimeout, milliseconds{2000});
}

TEST(CommandLineTest, WordsTooManyAreNamedWithAnExample)
{
    const auto text = [](const std::string &command, const std::string &example) {
        return command + ": 'more' is one word too many, as in: parvane-host " + example;
    };
    ExpectUsageError({"list", "more"}, text("list", "list"));
    ExpectUsageError({"measure", "hr", "more"}, text("measure", "measure hr"));
    ExpectUsageError({"watch", "hr", "more"}, text("watch", "watch all"));
    ExpectUsageError({"stop", "hr", "more"}, text("stop", "stop activity"));
    for (const char *command : {"list", "measure", "watch", "stop", "raw"}) {
        ExpectUsageError({command, "--frob"}, std::string(command) + ": unknown option '--frob'");
    }
}

TEST(CommandLineTest, OptionsWithoutTheirValueAreNamedWithAnExample)
{
    ExpectUsageError({"list", "--capture", ""},
                     "--capture: the path is empty; give the file to write");
    ExpectUsageError({"list", "--capture", "-"},
                     "--capture: a capture goes to a file; ./- is one of that name");
    ExpectUsageError({"list", "--socket"},
                     "--socket needs a value, as in: --socket /run/parvane/link.sock");
    ExpectUsageError({"list", "--timeout"}, "--timeout needs a value, as in: --timeout 2.5");
    ExpectUsageError({"list", "--timestamps"},
                     "--timestamps needs a value, as in: --timestamps iso");
    ExpectUsageError({"measure", "hr", "--every"}, "--every needs a value, as in: --every 10s");
    ExpectUsageError({"measure", "hr", "--count"}, "--count needs a value, as in: --count 6");
    ExpectUsageError({"watch", "hr", "--for"}, "--for needs a value, as in: --for 60");
    for (const char *flag : {"--json=maybe", "--json=3", "--json=true"}) {
        ExpectUsageError({"list", flag}, "--json takes no value");
    }
    ExpectUsageError({"raw", "01", "--quiet-for"},
                     "--quiet-for needs a value, as in: --quiet-for 500");
}

TEST(CommandLineTest, OptionsWithoutAnEffectAreWrongUsage)
{
    ExpectUsageError({"list", "--timestamps", "iso"}, "list: --timestamps has no effect here");
    ExpectUsageError({"--no-state", "stop"}, "stop: --no-state has no effect here");
    ExpectUsageError({"raw", "01", "--no-state"}, "raw: --no-state has no effect here");
    ExpectUsageError({"export", "a.pcapng", "--json"}, "export: --json has no effect here");
    ExpectUsageError({"measure", "hr", "--raw"}, "--raw has no effect here: it is for the steps");
    ExpectUsageError({"watch", "hr", "--no-state"},
                     "--no-state has no effect here: it is for the steps");
    ExpectUsageError({"watch", "hr", "--json", "--timestamps", "iso"},
                     "--timestamps has no effect with --json, which has time_ms");
    ExpectUsageError({"list", "--force"},
                     "--force has no effect without a file to write: --capture, --output");
    EXPECT_TRUE(Parsed({"watch", "all", "--raw"}).mRaw);
}

TEST(CommandLineTest, StopMeansTheActivityUnlessTold)
{
    EXPECT_EQ(Parsed({"stop"}).mAction, Invocation::Action::Stop);
    EXPECT_EQ(Parsed({"stop"}).mSensors, OneOf(Sensor::Activity));
    EXPECT_EQ(Parsed({"stop", "wear"}).mSensors, OneOf(Sensor::WearState));
}

TEST(CommandLineTest, RawTakesPackets)
{
    const Invocation invocation = Parsed({"raw", "01", "12 00:00 03", "--quiet-for", "0"});

    EXPECT_EQ(invocation.mAction, Invocation::Action::Raw);
    EXPECT_EQ(invocation.mPackets, (std::vector<Bytes>{{0x01}, {0x12, 0x00, 0x00, 0x03}}));
    EXPECT_EQ(invocation.mQuietFor, milliseconds{0});
    EXPECT_EQ(Parsed({"raw", "01"}).mQuietFor, std::nullopt);

    // As in a table of bytes: together they are one packet.
    EXPECT_EQ(Parsed({"raw", "01", "00", "00", "03", "0102", "FF"}).mPackets,
              (std::vector<Bytes>{{0x01, 0x00, 0x00, 0x03}, {0x01, 0x02}, {0xFF}}));
}

TEST(CommandLineTest, SubcommandsAreNamedWhenMissingOrUnknown)
{
    ExpectUsageError(
        {}, "no subcommand given; allowed: list, measure, watch, today, stop, raw, export");
    ExpectUsageError(
        {"frob"},
        "unknown subcommand 'frob'; allowed: list, measure, watch, today, stop, raw, export");
    ExpectUsageError({"--frob"}, "unknown option '--frob'");
}

TEST(CommandLineTest, SensorsAreNamedWhenMissingUnknownOrImpossible)
{
    ExpectUsageError({"measure"}, "measure: no sensor given; allowed: hr, wear, steps, activity");
    ExpectUsageError({"measure", "frob"},
                     "measure: unknown sensor 'frob'; allowed: hr, wear, steps, activity");
    ExpectUsageError({"watch", "frob"},
                     "watch: unknown sensor 'frob'; allowed: activity, steps, hr, wear, all");
    ExpectUsageError({"measure", "all"},
                     "measure: unknown sensor 'all'; allowed: hr, wear, steps, activity");
    ExpectUsageError({"stop", "unknown"},
                     "stop: unknown sensor 'unknown'; allowed: activity, hr, wear, steps");
}

TEST(CommandLineTest, TimesOutOfRangeAreNamed)
{
    const std::string seconds = "give seconds above 0 and up to 86400, as in 2.5";
    for (const char *text :
         {"0", "-1", "86401", "nan", "inf", "1ss", "s", "", " 1", "1e9", "0x10"}) {
        ExpectUsageError({"list", "--timeout", text},
                         std::string("--timeout: '") + text + "' is not allowed; " + seconds);
    }
    ExpectUsageError({"list", "--wait=0"}, "--wait: '0' is not allowed; " + seconds);
    ExpectUsageError({"measure", "hr", "--every", "soon"},
                     "--every: 'soon' is not allowed; " + seconds);
    EXPECT_EQ(Parsed({"list", "--timeout", "1.5s"}).mTimeout, milliseconds{1500});
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
        "raw: argument 2: character 2 is no hexadecimal digit; allowed are 0-9, a-f, A-F, "
        "blanks and colons");
    ExpectUsageError(
        {"raw", "012"},
        "raw: argument 1: an odd number of hexadecimal digits (3); two digits make a byte");
    ExpectUsageError({"raw"}, "raw needs at least one byte, as in: parvane-host raw 01 00 00 00");
    ExpectUsageError({"raw", std::string(2UL * 65532UL, '0')},
                     "raw: argument 1: the packet has 65532 bytes; at most 65531 are allowed");
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
    EXPECT_THAT(ending.mOutput, HasSubstr("  3  no answer in time"));
    EXPECT_THAT(ending.mOutput, HasSubstr("$RUNTIME_DIRECTORY/link.sock"));
    EXPECT_THAT(ending.mOutput, HasSubstr("time_ms"));
    EXPECT_THAT(Refused({"watch", "--help"}).mOutput, HasSubstr("--for SECONDS"));
    EXPECT_THAT(Refused({"watch", "--help"}).mOutput, HasSubstr("[OPTIONS] sensor\n"));
    EXPECT_THAT(Refused({"raw", "--help"}).mOutput, HasSubstr("[OPTIONS] packet...\n"));
    EXPECT_THAT(Refused({"stop", "--help"}).mOutput, HasSubstr("[OPTIONS] [sensor]\n"));
}

TEST(CommandLineTest, VersionIsOneLine)
{
    const Ending ending = Refused({"--version"});

    EXPECT_EQ(ending.mCode, ExitCode::Success);
    EXPECT_EQ(ending.mOutput, "parvane-host " PARVANE_HOST_VERSION "\n");
}

} // namespace
} // namespace ParvaneHost
