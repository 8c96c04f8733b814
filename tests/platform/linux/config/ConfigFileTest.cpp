#include "ConfigFile.h"

#include <clocale>
#include <cstdlib>
#include <random>
#include <string>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ConfigSchema.h"
#include "StartupError.h"
#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Lt;
using testing::SizeIs;
using testing::StartsWith;

using Severity = ConfigProblem::Severity;

Configuration Parse(std::string_view text, const std::string &trace = "")
{
    return ParseConfiguration("/etc/parvane/platform.conf", text, trace);
}

/** "W" or "E" and the problem with its place. */
std::vector<std::string> ProblemsOf(const Configuration &configuration)
{
    std::vector<std::string> problems;
    for (const ConfigProblem &problem : configuration.mProblems) {
        problems.push_back((problem.mSeverity == Severity::Warning ? "W " : "E ") +
                           ToString("p.conf", problem));
    }
    return problems;
}

std::vector<std::string> ProblemsOf(std::string_view text, const std::string &trace = "")
{
    return ProblemsOf(Parse(text, trace));
}

std::string LoadErrorOf(const std::string &path, IfMissing ifMissing = IfMissing::Fail)
{
    try {
        LoadConfiguration(path, ifMissing, "");
    } catch (const StartupError &failure) {
        return failure.what();
    }
    return "no error";
}

} // namespace

TEST(ConfigFileTest, AnEmptyFileGivesTheDefaults)
{
    for (const char *text : {"", "\n", "# nothing\n", "[sensors]\n", "\xEF\xBB\xBF", "[iio]"}) {
        const Configuration configuration = Parse(text);
        EXPECT_EQ(configuration.mSettings, Settings()) << text;
        EXPECT_THAT(ProblemsOf(configuration), IsEmpty()) << text;
    }
}

TEST(ConfigFileTest, EveryPartIsOffByDefault)
{
    const Settings settings;
    for (const SensorItem &item : kSensorItems) {
        EXPECT_EQ(settings.mSensors.*item.mSource, SourceKind::None);
    }
    EXPECT_EQ(settings.mPower.mLock, PowerSettings::Lock::None);
    EXPECT_EQ(settings.mMemory.mMonitor, MemorySettings::Monitor::None);
    EXPECT_EQ(settings.mBattery.mMonitor, BatterySettings::Monitor::None);
    EXPECT_EQ(settings.mBluetooth.mAdapter, BluetoothSettings::Adapter::None);
}

TEST(ConfigFileTest, SeveralSectionsAreReadAsOne)
{
    const Configuration configuration = Parse("[sensors]\n"
                                              "heart_rate = ble\n"
                                              "[ble]\n"
                                              "  adapter=hci1  \n"
                                              "[sensors]\n"
                                              "pedometer\t=\tiio\n");
    EXPECT_THAT(ProblemsOf(configuration), IsEmpty());
    EXPECT_EQ(configuration.mSettings.mSensors.mHeartRate, SourceKind::Ble);
    EXPECT_EQ(configuration.mSettings.mSensors.mPedometer, SourceKind::Iio);
    EXPECT_EQ(configuration.mSettings.mSensors.mActivity, SourceKind::None);
    EXPECT_EQ(configuration.mSettings.mBle.mAdapter, "hci1");
}

TEST(ConfigFileTest, UnknownSectionIsOneWarningWithItsLine)
{
    EXPECT_THAT(
        ProblemsOf("# c\n\n[sensor]\nheart_rate=fast\nx=y\n[sensor]\n[iio]\n"),
        ElementsAre("W p.conf: line 3: unknown section [sensor]; known are sensors, "
                    "replay, iio, ble, power, memory, battery, bluetooth, link, control, log, "
                    "directories"));
}

TEST(ConfigFileTest, UnknownKeyIsOneWarningWithItsLine)
{
    EXPECT_THAT(
        ProblemsOf("[replay]\nsped=2\nsped=3\nLoop=0\n[iio]\nspeed=2\n"),
        ElementsAre(
            "W p.conf: line 2: unknown key 'sped' in [replay]; known are files, speed, loop",
            "W p.conf: line 4: unknown key 'Loop' in [replay]; known are files, speed, loop",
            "W p.conf: line 6: unknown key 'speed' in [iio]; known are root, device, "
            "period_ms"));
}

TEST(ConfigFileTest, TranslatedKeyIsAnUnknownOne)
{
    const Configuration configuration = Parse("[replay]\nspeed[de]=2\n");
    EXPECT_THAT(ProblemsOf(configuration),
                ElementsAre("W p.conf: line 2: unknown key 'speed[de]' in [replay]; known are "
                            "files, speed, loop"));
    EXPECT_EQ(configuration.mSettings, Settings());
}

TEST(ConfigFileTest, KeyThatStandsTwiceIsAWarningAndTheLastOneCounts)
{
    const Configuration configuration =
        Parse("[replay]\nspeed=fast\n[iio]\n[replay]\nspeed = 2\n\nspeed=3\n");
    EXPECT_THAT(
        ProblemsOf(configuration),
        ElementsAre(
            "W p.conf: line 5: [replay] speed stands in line 2 already; the last one counts",
            "W p.conf: line 7: [replay] speed stands in line 5 already; the last one counts"));
    EXPECT_EQ(configuration.mSettings.mReplay.mSpeed, 3.0);
}

TEST(ConfigFileTest, ABadValueIsToldAtTheLineThatCounts)
{
    EXPECT_THAT(ProblemsOf("[replay]\nspeed=1\nspeed=x\n"),
                ElementsAre("W p.conf: line 3: [replay] speed stands in line 2 already; the last "
                            "one counts",
                            "E p.conf: line 3: [replay] speed is 'x': it must be a decimal number "
                            "from 0.001 to 100000"));
}

TEST(ConfigFileTest, AllProblemsAreToldInTheOrderOfTheLines)
{
    const Configuration configuration = Parse("[control]\n"
                                              "enabled=no\n"
                                              "[what]\n"
                                              "[sensors]\n"
                                              "heart_rate=iio\n"
                                              "[battery]\n"
                                              "low=5\n"
                                              "low_percent=0\n");
    EXPECT_THAT(
        ProblemsOf(configuration),
        ElementsAre(
            "E p.conf: line 2: [control] enabled is 'no': it must be true, false, 1 or 0",
            StartsWith("W p.conf: line 3: unknown section [what]"),
            "E p.conf: line 5: [sensors] heart_rate is 'iio': it must be one of none, replay, "
            "ble, manual",
            StartsWith("W p.conf: line 7: unknown key 'low'"),
            "E p.conf: line 8: [battery] low_percent is '0': it must be a whole number from 1 to "
            "100"));
    ASSERT_NE(configuration.FirstError(), nullptr);
    EXPECT_EQ(configuration.FirstError()->mLine, 2);
}

TEST(ConfigFileTest, AProblemTellsSectionAndKeyApart)
{
    const Configuration configuration = Parse("[replay]\nspeed=x\n[a]\n");
    ASSERT_THAT(configuration.mProblems, SizeIs(2));
    EXPECT_EQ(configuration.mProblems[0].mSection, "replay");
    EXPECT_EQ(configuration.mProblems[0].mKey, "speed");
    EXPECT_EQ(configuration.mProblems[1].mSection, "a");
    EXPECT_EQ(configuration.mProblems[1].mKey, "");
}

TEST(ConfigFileTest, WarningsAreNoErrors)
{
    EXPECT_EQ(Parse("[what]\n").FirstError(), nullptr);
}

TEST(ConfigFileTest, StallMustBeShorterThanTheWindow)
{
    EXPECT_THAT(ProblemsOf("[memory]\nstall_ms=2000\n"),
                ElementsAre("E p.conf: line 2: [memory] stall_ms is '2000': it must be less than "
                            "window_ms, which is 2000"));
    EXPECT_THAT(ProblemsOf("[memory]\nwindow_ms=4000\nstall_ms=4001\n"),
                ElementsAre("E p.conf: line 3: [memory] stall_ms is '4001': it must be less than "
                            "window_ms, which is 4000"));
    EXPECT_THAT(ProblemsOf("[memory]\nstall_ms=3999\nwindow_ms=4000\n"), IsEmpty());
}

TEST(ConfigFileTest, StallIsNotComparedWithAWindowThatIsNone)
{
    EXPECT_THAT(ProblemsOf("[memory]\nstall_ms=3000\nwindow_ms=3000\n"),
                ElementsAre("E p.conf: line 3: [memory] window_ms is '3000': it must be a whole "
                            "number from 2000 to 10000, a multiple of 2000"));
}

TEST(ConfigFileTest, BadEscapesAreRefused)
{
    EXPECT_THAT(
        ProblemsOf("[iio]\ndevice=a\\q\nroot=/a\\\n[replay]\nfiles=a\\q\n"),
        ElementsAre("E p.conf: line 2: [iio] device is 'a\\q': a backslash must be followed "
                    "by one of s n t r \\, and it must be a device's name, without control "
                    "characters",
                    "E p.conf: line 3: [iio] root is '/a\\': a backslash must be followed by "
                    "one of s n t r \\, and it must be an absolute path",
                    "E p.conf: line 5: [replay] files is 'a\\q': a backslash must be "
                    "followed by one of s n t r \\ ;, and it must be a list of files with ; "
                    "between them"));
}

TEST(ConfigFileTest, RecordingsAreBelowTheFilesDirectory)
{
    const std::string text = "[replay]\nfiles=a.csv;/b.csv;c/../d.csv\n";
    EXPECT_THAT(ParseConfiguration("/etc/p/x.conf", text, "").mSettings.mReplay.mFiles,
                ElementsAre("/etc/p/a.csv", "/b.csv", "/etc/p/c/../d.csv"));
    EXPECT_THAT(ParseConfiguration("/x.conf", text, "").mSettings.mReplay.mFiles,
                ElementsAre("/a.csv", "/b.csv", "/c/../d.csv"));
    EXPECT_THAT(ParseConfiguration("x.conf", text, "").mSettings.mReplay.mFiles,
                ElementsAre("./a.csv", "/b.csv", "./c/../d.csv"));
    EXPECT_THAT(ParseConfiguration("p/x.conf", text, "").mSettings.mReplay.mFiles,
                ElementsAre("p/a.csv", "/b.csv", "p/c/../d.csv"));
}

TEST(ConfigFileTest, ATraceTakesThePlaceOfTheRecordings)
{
    EXPECT_THAT(Parse("[replay]\nfiles=a.csv;b.csv\n", "run.csv").mSettings.mReplay.mFiles,
                ElementsAre("run.csv"));
}

TEST(ConfigFileTest, ItemsWithoutAKeyAreReplayedWhenThereAreRecordings)
{
    const auto sources = [](const std::string &text, const std::string &trace) {
        const SensorSettings &sensors = Parse(text, trace).mSettings.mSensors;
        return std::vector<SourceKind>{sensors.mHeartRate, sensors.mPedometer, sensors.mActivity,
                                       sensors.mGesture};
    };
    using enum SourceKind;
    const std::string some = "[sensors]\nheart_rate=manual\ngesture=none\n";
    EXPECT_THAT(sources(some, ""), ElementsAre(Manual, None, None, None));
    EXPECT_THAT(sources(some, "run.csv"), ElementsAre(Manual, Replay, Replay, None));
    EXPECT_THAT(sources(some + "[replay]\nfiles=a.csv\n", ""),
                ElementsAre(Manual, Replay, Replay, None));
    EXPECT_THAT(sources("", "run.csv"), ElementsAre(Replay, Replay, Replay, Replay));
    EXPECT_THAT(sources("[replay]\nfiles=\n", ""), ElementsAre(None, None, None, None));
}

TEST(ConfigFileTest, ReplayNeedsARecording)
{
    const std::string text = "[sensors]\nheart_rate=none\npedometer=replay\n";
    EXPECT_THAT(ProblemsOf(text),
                ElementsAre("E p.conf: line 3: [sensors] pedometer is 'replay': there must be a "
                            "recording then, in [replay] files or PARVANE_TRACE"));
    EXPECT_THAT(ProblemsOf(text + "[replay]\nfiles=\n"), SizeIs(1));
    EXPECT_THAT(ProblemsOf(text + "[replay]\nfiles=a.csv\n"), IsEmpty());
    EXPECT_THAT(ProblemsOf(text, "run.csv"), IsEmpty());
}

TEST(ConfigFileTest, BadRecordingsAreOneProblemAndNotTwo)
{
    EXPECT_THAT(ProblemsOf("[sensors]\npedometer=replay\n[replay]\nfiles=;\n"),
                ElementsAre("E p.conf: line 4: [replay] files is ';': it must be a list of files "
                            "with ; between them"));
}

TEST(ConfigFileTest, WhatIsNoKeyFileIsToldInGLibsWordsWithItsLine)
{
    EXPECT_THAT(
        ProblemsOf("[iio]\nroot\n"),
        ElementsAre(
            "E p.conf: line 2: Key file contains line \xE2\x80\x9Croot\xE2\x80\x9D which is "
            "not a key-value pair, group, or comment"));
    EXPECT_THAT(ProblemsOf("root=/sys\n"),
                ElementsAre("E p.conf: line 1: Key file does not start with a group"));
    EXPECT_THAT(ProblemsOf("\n# c\n\nroot=/sys\n[iio]\n"),
                ElementsAre("E p.conf: line 4: Key file does not start with a group"));
    EXPECT_THAT(ProblemsOf("[iio\nroot=/sys\n"),
                ElementsAre(StartsWith("E p.conf: line 1: Key file contains line")));
    EXPECT_THAT(ProblemsOf("[]\n"), ElementsAre("E p.conf: line 1: Invalid group name: "));
    EXPECT_THAT(ProblemsOf("[iio]\na]=1\n"), ElementsAre("E p.conf: line 2: Invalid key name: a]"));
    EXPECT_THAT(ProblemsOf("[iio]\n=1\n"),
                ElementsAre(StartsWith("E p.conf: line 2: Key file contains line")));
}

TEST(ConfigFileTest, LineOfTheMistakeIsFoundWhereverItIs)
{
    for (int before = 0; before < 40; ++before) {
        std::string text = "[iio]\n";
        for (int i = 0; i < before; ++i) {
            text += i % 2 == 0 ? "# comment\n" : "root=/x\n";
        }
        text += "here it is\n\nand again\n[";
        EXPECT_THAT(ProblemsOf(text),
                    ElementsAre(StartsWith("E p.conf: line " + std::to_string(before + 2) + ": ")));
    }
}

TEST(ConfigFileTest, ManyUnknownKeysAreToldEachWithItsLine)
{
    std::string text = "[control]\n";
    constexpr int kKeys = 50000;
    for (int i = 0; i < kKeys; ++i) {
        text += "k" + std::to_string(i) + "=1\n";
    }
    const std::vector<std::string> problems = ProblemsOf(text);
    ASSERT_THAT(problems, SizeIs(kKeys));
    EXPECT_EQ(problems.back(),
              "W p.conf: line 50001: unknown key 'k49999' in [control]; known are enabled, allow");
}

TEST(ConfigFileTest, NameOfTheFileIsPrintable)
{
    EXPECT_EQ(ToString("a\nb\x1b[31m.conf", {ConfigProblem::Severity::Error, 3, "", "", "wrong"}),
              "a\\x0Ab\\x1B[31m.conf: line 3: wrong");
}

TEST(ConfigFileTest, NulBytesAreRefusedWithTheirLine)
{
    using std::string_view_literals::operator""sv;
    EXPECT_THAT(ProblemsOf("[iio]\nroot=/s\0ys\n"sv),
                ElementsAre("E p.conf: line 2: there is a NUL byte in it"));
    EXPECT_THAT(ProblemsOf("\0"sv), ElementsAre("E p.conf: line 1: there is a NUL byte in it"));
}

TEST(ConfigFileTest, TextThatIsNotUtf8IsRefusedWithItsLine)
{
    EXPECT_THAT(ProblemsOf("[iio]\n# \xE4hm\n"),
                ElementsAre("E p.conf: line 2: it is not UTF-8 text"));
    EXPECT_THAT(ProblemsOf("[iio]\n\xC3"), ElementsAre("E p.conf: line 2: it is not UTF-8 text"));
}

TEST(ConfigFileTest, ForeignLineEndsAndAMissingLastOneAreFine)
{
    for (const char *text :
         {"[iio]\r\nroot=/x\r\nperiod_ms=500\r\n", "[iio]\nroot=/x\nperiod_ms=500",
          "[iio]\r\nroot=/x\r\nperiod_ms=500\r", "\xEF\xBB\xBF[iio]\nroot=/x\nperiod_ms=500\n",
          "\n\n  [iio]  \n\troot=/x \n \nperiod_ms = 500\t\n"}) {
        const Configuration configuration = Parse(text);
        EXPECT_THAT(ProblemsOf(configuration), IsEmpty()) << text;
        EXPECT_EQ(configuration.mSettings.mIio.mRoot, "/x") << text;
        EXPECT_EQ(configuration.mSettings.mIio.mPeriodMs, 500) << text;
    }
}

TEST(ConfigFileTest, LinesCountTheSameWithEveryLineEnd)
{
    EXPECT_THAT(ProblemsOf("\xEF\xBB\xBF# c\r\n\r\n[iio]\r\nroot=x"),
                ElementsAre("E p.conf: line 4: [iio] root is 'x': it must be an absolute path"));
}

TEST(ConfigFileTest, ForeignTextIsQuotedInOneShortPrintableLine)
{
    EXPECT_THAT(ProblemsOf("[iio]\nroot=\x1b[31m\x7f\tx\n"),
                ElementsAre("E p.conf: line 2: [iio] root is '\\x1B[31m\\x7F\\x09x': it must be an "
                            "absolute path"));
    const auto problems = ProblemsOf("[iio]\nroot=" + std::string(100000, 'x') + "\n");
    EXPECT_THAT(problems,
                ElementsAre(AllOf(HasSubstr("x...': it must be"), testing::SizeIs(Lt(300U)))));
}

TEST(ConfigFileTest, ALongQuoteEndsWithAWholeCharacter)
{
    std::string value = "x";
    for (int i = 0; i < 200; ++i) {
        value += "\xC3\xA4";
    }
    const auto problems = ProblemsOf("[iio]\nroot=" + value + "\n");
    ASSERT_THAT(problems, SizeIs(1));
    EXPECT_THAT(problems.front(), HasSubstr("\xC3\xA4...': it must be"));
}

TEST(ConfigFileTest, NumbersDoNotDependOnTheLocale)
{
    const TemporaryDirectory directory;
    const std::string make = "localedef -i de_DE -f UTF-8 '" + (directory / "comma") + "' 2>&1";
    if (std::system(make.c_str()) != 0) {
        GTEST_SKIP() << "no locale with a decimal comma can be made; it takes the package locales";
    }
    setenv("LOCPATH", directory.Path().c_str(), 1);
    const bool isSet = std::setlocale(LC_ALL, "comma") != nullptr;
    unsetenv("LOCPATH");
    const std::string point = std::localeconv()->decimal_point;
    const Configuration configuration = Parse("[replay]\nspeed=2.5\n");
    const auto problems = ProblemsOf("[replay]\nspeed=2,5\n");
    std::setlocale(LC_ALL, "C");

    ASSERT_TRUE(isSet);
    ASSERT_EQ(point, ",");
    EXPECT_EQ(configuration.mSettings.mReplay.mSpeed, 2.5);
    EXPECT_THAT(problems, SizeIs(1));
}

TEST(ConfigFileTest, RandomDamageIsSurvivedAndEveryProblemHasItsLine)
{
    const std::string good = "# c\n[sensors]\nheart_rate=ble\n\n[replay]\nfiles=a;b\\;c\nspeed=2\n"
                             "[memory]\nstall_ms=100\nwindow_ms=2000\n";
    std::mt19937 random(20260131);
    const auto below = [&random](std::size_t limit) {
        return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random);
    };
    constexpr char kBytes[] = "[]=#;\\\n\r \t\0\xEF\xBB\xBF\xC3"
                              "az09";
    for (int round = 0; round < 5000; ++round) {
        std::string text = good;
        for (std::size_t changes = 1 + below(4); changes > 0; --changes) {
            const std::size_t at = below(text.size());
            text.replace(at, below(3), 1, kBytes[below(sizeof kBytes)]);
        }
        const auto lines = 1 + std::count(text.begin(), text.end(), '\n');
        for (const ConfigProblem &problem : Parse(text).mProblems) {
            EXPECT_FALSE(problem.mText.empty()) << text;
            EXPECT_GE(problem.mLine, 0) << text;
            EXPECT_LE(problem.mLine, lines) << text;
            EXPECT_EQ(problem.mText.find('\n'), std::string::npos) << text;
        }
    }
}

TEST(ConfigFileTest, AFileIsRead)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "p.conf", "[replay]\nfiles=run.csv\n");
    EXPECT_THAT(
        LoadConfiguration(directory / "p.conf", IfMissing::Fail, "").mSettings.mReplay.mFiles,
        ElementsAre(directory / "run.csv"));
}

TEST(ConfigFileTest, AMissingFileIsTheDefaultsOrAFailure)
{
    const TemporaryDirectory directory;
    const std::string path = directory / "p.conf";
    EXPECT_EQ(LoadConfiguration(path, IfMissing::UseDefaults, "").mSettings, Settings());
    EXPECT_EQ(LoadErrorOf(path),
              "cannot read the configuration file " + path + ": No such file or directory");
}

TEST(ConfigFileTest, AnUnreadableFileIsAFailureInEitherCase)
{
    const TemporaryDirectory directory;
    mkdir((directory / "closed").c_str(), 0700);
    const std::string path = directory / "closed/p.conf";
    WriteFile(path, "");
    const ClosedDirectory closed(directory / "closed");
    const std::string message =
        "cannot read the configuration file " + path + ": Permission denied";
    EXPECT_EQ(LoadErrorOf(path, IfMissing::UseDefaults), message);
    EXPECT_EQ(LoadErrorOf(path, IfMissing::Fail), message);
}

TEST(ConfigFileTest, ADirectoryInItsPlaceIsAFailure)
{
    const TemporaryDirectory directory;
    EXPECT_EQ(LoadErrorOf(directory.Path(), IfMissing::UseDefaults),
              "cannot read the configuration file " + directory.Path() + ": Is a directory");
}

TEST(ConfigFileTest, AFifoInItsPlaceIsAFailureAndHoldsNobodyUp)
{
    const TemporaryDirectory directory;
    const std::string path = directory / "p.conf";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(LoadErrorOf(path),
              "cannot read the configuration file " + path + ": it is not a regular file");
}

TEST(ConfigFileTest, AFileOfMoreThanOneMebibyteIsRefused)
{
    const TemporaryDirectory directory;
    const std::string path = directory / "p.conf";
    std::string text = "[iio]\nroot=/x\n#";
    text.resize(1048576, 'x');
    WriteFile(path, text);
    EXPECT_EQ(LoadConfiguration(path, IfMissing::Fail, "").mSettings.mIio.mRoot, "/x");
    WriteFile(path, text + "x");
    EXPECT_EQ(LoadErrorOf(path, IfMissing::UseDefaults),
              "cannot read the configuration file " + path + ": it is longer than 1 MiB");
}

} // namespace ParvanePlatform
