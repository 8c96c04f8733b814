#include "Settings.h"

#include <algorithm>
#include <map>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "StartupError.h"
#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Variables = std::map<std::string, std::string>;

/** HOME is always there, unless a test says otherwise; there is no file unless it names one. */
Settings Read(Variables variables, const std::string &systemFile = "/dev/shm/no/such/file")
{
    variables.emplace("HOME", "/home/user");
    const auto environment = [&variables](const char *name) {
        const auto found = variables.find(name);
        return found != variables.end() ? found->second.c_str() : nullptr;
    };
    return ReadSettings(environment, systemFile);
}

std::string ErrorOf(const Variables &variables,
                    const std::string &systemFile = "/dev/shm/no/such/file")
{
    try {
        Read(variables, systemFile);
    } catch (const StartupError &failure) {
        return failure.what();
    }
    return "no error";
}

} // namespace

TEST(SettingsTest, DirectoriesComeFromTheServiceManagerFirst)
{
    const Settings settings = Read({{"STATE_DIRECTORY", "/var/lib/parvane"},
                                    {"RUNTIME_DIRECTORY", "/run/p/"},
                                    {"XDG_STATE_HOME", "/xdg/state"},
                                    {"XDG_RUNTIME_DIR", "/xdg/run"}});
    EXPECT_EQ(settings.mStateDirectory, "/var/lib/parvane");
    EXPECT_EQ(settings.mRuntimeDirectory, "/run/p");
}

TEST(SettingsTest, WhereEachValueIsFromIsKnown)
{
    const TemporaryDirectory directory;
    const std::string file = directory / "p.conf";
    WriteFile(file, "[replay]\nspeed=2\nloop=true\n[iio]\nperiod_ms=200\n");
    const Settings settings = Read({{"PARVANE_PLATFORM_CONF", file},
                                    {"STATE_DIRECTORY", "/a"},
                                    {"XDG_RUNTIME_DIR", "/xdg"},
                                    {"PARVANE_LOOP", "0"},
                                    {"PARVANE_TRACE", "run.csv"}});
    EXPECT_EQ(settings.mFile, file);
    EXPECT_TRUE(settings.mHasFile);
    EXPECT_EQ(settings.mOrigins,
              (std::map<ConfigName, std::string>{{{"directories", "state"}, "STATE_DIRECTORY"},
                                                 {{"directories", "runtime"}, "XDG_RUNTIME_DIR"},
                                                 {{"iio", "period_ms"}, "line 5"},
                                                 {{"replay", "speed"}, "line 2"},
                                                 {{"replay", "loop"}, "PARVANE_LOOP"},
                                                 {{"replay", "files"}, "PARVANE_TRACE"}}));
    EXPECT_FALSE(settings.mReplay.mLoop);
    EXPECT_FALSE(Read({}).mHasFile);
    EXPECT_TRUE(Read({}).mOrigins.empty());
}

TEST(SettingsTest, FirstDirectoryOfAListCounts)
{
    EXPECT_EQ(Read({{"STATE_DIRECTORY", "/a:/b"}}).mStateDirectory, "/a");
    EXPECT_EQ(Read({{"RUNTIME_DIRECTORY", "/a:/b"}}).mRuntimeDirectory, "/a");
}

TEST(SettingsTest, UserDirectoriesComeSecond)
{
    const Settings settings = Read({{"STATE_DIRECTORY", ""},
                                    {"RUNTIME_DIRECTORY", ""},
                                    {"XDG_STATE_HOME", "/xdg/state"},
                                    {"XDG_RUNTIME_DIR", "/xdg/run"}});
    EXPECT_EQ(settings.mStateDirectory, "/xdg/state/parvane");
    EXPECT_EQ(settings.mRuntimeDirectory, "/xdg/run/parvane");
}

TEST(SettingsTest, RelativeUserDirectoriesAreIgnored)
{
    const Settings settings = Read({{"XDG_STATE_HOME", "state"}, {"XDG_RUNTIME_DIR", "run"}});
    EXPECT_EQ(settings.mStateDirectory, "/home/user/.local/state/parvane");
    EXPECT_EQ(settings.mRuntimeDirectory, "/run/parvane");
}

TEST(SettingsTest, RelativeManagedDirectoriesAreRefused)
{
    EXPECT_EQ(ErrorOf({{"STATE_DIRECTORY", "lib"}}),
              "STATE_DIRECTORY is 'lib': it must be an absolute path");
    EXPECT_EQ(ErrorOf({{"RUNTIME_DIRECTORY", "run:/b"}}),
              "RUNTIME_DIRECTORY is 'run:/b': it must be an absolute path");
    EXPECT_EQ(ErrorOf({{"STATE_DIRECTORY", ":/b"}}),
              "STATE_DIRECTORY is ':/b': it must be an absolute path");
}

TEST(SettingsTest, StateNeedsAPlace)
{
    EXPECT_EQ(ErrorOf({{"HOME", ""}}),
              "there is no place for the state: set STATE_DIRECTORY, XDG_STATE_HOME, [directories] "
              "state or HOME to an absolute path");
}

TEST(SettingsTest, WithoutVariablesNothingIsPlayed)
{
    const Settings settings = Read({{"PARVANE_TRACE", ""}, {"PARVANE_BT_ADDRESS", ""}});
    EXPECT_THAT(settings.mReplay.mFiles, IsEmpty());
    EXPECT_EQ(settings.mReplay.mSpeed, 1.0);
    EXPECT_TRUE(settings.mReplay.mLoop);
    EXPECT_EQ(settings.mBluetooth.mAddress, "");
}

TEST(SettingsTest, TraceVariablesAreRead)
{
    const Settings settings =
        Read({{"PARVANE_TRACE", "run.csv"}, {"PARVANE_SPEED", "2.5"}, {"PARVANE_LOOP", "0"}});
    EXPECT_THAT(settings.mReplay.mFiles, ElementsAre("run.csv"));
    EXPECT_EQ(settings.mReplay.mSpeed, 2.5);
    EXPECT_FALSE(settings.mReplay.mLoop);
    EXPECT_TRUE(Read({{"PARVANE_LOOP", "1"}}).mReplay.mLoop);
    EXPECT_EQ(Read({{"PARVANE_SPEED", "100000"}}).mReplay.mSpeed, 100000.0);
}

TEST(SettingsTest, BadSpeedsAreRefused)
{
    for (const char *speed : {"0", "-1", "0.0001", "100000.1", "fast", "2x", "1e3", "inf", "nan",
                              " 1", "1,5", "0x10", "+2"}) {
        EXPECT_EQ(ErrorOf({{"PARVANE_SPEED", speed}}),
                  std::string("PARVANE_SPEED is '") + speed +
                      "': it must be a decimal number from 0.001 to 100000");
    }
}

TEST(SettingsTest, BadLoopIsRefused)
{
    EXPECT_EQ(ErrorOf({{"PARVANE_LOOP", "yes"}}), "PARVANE_LOOP is 'yes': it must be 0 or 1");
}

TEST(SettingsTest, VariablesAreQuotedInOneShortPrintableLine)
{
    EXPECT_EQ(ErrorOf({{"PARVANE_LOOP", "no\n\x1b[31m"}}),
              "PARVANE_LOOP is 'no\\x0A\\x1B[31m': it must be 0 or 1");
    EXPECT_EQ(ErrorOf({{"RUNTIME_DIRECTORY", "a\nb"}}),
              "RUNTIME_DIRECTORY is 'a\\x0Ab': it must be an absolute path");
    const std::string cut = std::string(200, '9') + "...";
    EXPECT_EQ(ErrorOf({{"PARVANE_SPEED", std::string(1000, '9')}}),
              "PARVANE_SPEED is '" + cut + "': it must be a decimal number from 0.001 to 100000");
}

TEST(SettingsTest, BluetoothAddressBecomesUpperCase)
{
    EXPECT_EQ(Read({{"PARVANE_BT_ADDRESS", "aa:bb:cc:dd:ee:0f"}}).mBluetooth.mAddress,
              "AA:BB:CC:DD:EE:0F");
}

TEST(SettingsTest, BadBluetoothAddressIsRefused)
{
    for (const char *address : {"AA:BB:CC:DD:EE", "AA:BB:CC:DD:EE:FG", "AA-BB-CC-DD-EE-FF",
                                "AABBCCDDEEFF", "AA:BB:CC:DD:EE:FF:", "AA:BB:CC:DD:EE:F "}) {
        EXPECT_EQ(ErrorOf({{"PARVANE_BT_ADDRESS", address}}),
                  std::string("PARVANE_BT_ADDRESS is '") + address +
                      "': it must be six hexadecimal octets such as AA:BB:CC:DD:EE:FF");
    }
}

/** With a configuration file. */
class ConfiguredSettingsTest : public testing::Test
{
protected:
    /** Writes the file. @return its path */
    std::string Configure(const std::string &text) const
    {
        WriteFile(mDirectory / "platform.conf", text);
        return mDirectory / "platform.conf";
    }

    const TemporaryDirectory mDirectory;
};

TEST_F(ConfiguredSettingsTest, TheSystemsFileIsRead)
{
    const Settings settings = Read({}, Configure("[replay]\nfiles=a.csv\nspeed=3\nloop=false\n"
                                                 "[bluetooth]\naddress=aa:bb:cc:dd:ee:ff\n"));
    EXPECT_THAT(settings.mReplay.mFiles, ElementsAre(mDirectory / "a.csv"));
    EXPECT_EQ(settings.mSensors.mGesture, SourceKind::Replay);
    EXPECT_EQ(settings.mReplay.mSpeed, 3.0);
    EXPECT_FALSE(settings.mReplay.mLoop);
    EXPECT_EQ(settings.mBluetooth.mAddress, "AA:BB:CC:DD:EE:FF");
}

TEST_F(ConfiguredSettingsTest, TheNamedFileIsReadInItsPlace)
{
    const std::string systemFile = Configure("[replay]\nspeed=3\n[iio]\nroot=/system\n");
    WriteFile(mDirectory / "named.conf", "[replay]\nspeed=4\n");
    const Settings settings =
        Read({{"PARVANE_PLATFORM_CONF", mDirectory / "named.conf"}}, systemFile);
    EXPECT_EQ(settings.mReplay.mSpeed, 4.0);
    EXPECT_EQ(settings.mIio.mRoot, "/sys");
    EXPECT_EQ(Read({{"PARVANE_PLATFORM_CONF", ""}}, systemFile).mReplay.mSpeed, 3.0);
}

TEST_F(ConfiguredSettingsTest, TheNamedFileMustBeThere)
{
    EXPECT_EQ(ErrorOf({{"PARVANE_PLATFORM_CONF", mDirectory / "no.conf"}}, Configure("")),
              "cannot read the configuration file " + (mDirectory / "no.conf") +
                  ": No such file or directory");
}

TEST_F(ConfiguredSettingsTest, TheSystemsFileMustBeReadableIfItIsThere)
{
    EXPECT_EQ(Read({}, mDirectory / "no.conf").mIio, IioSettings());
    EXPECT_EQ(ErrorOf({}, mDirectory.Path()),
              "cannot read the configuration file " + mDirectory.Path() + ": Is a directory");
}

TEST_F(ConfiguredSettingsTest, VariablesOverrideTheFile)
{
    const std::string file = Configure("[replay]\nfiles=a.csv;b.csv\nspeed=3\nloop=true\n"
                                       "[bluetooth]\naddress=aa:bb:cc:dd:ee:ff\n"
                                       "[directories]\nstate=/file/state\nruntime=/file/run\n");
    const Settings settings = Read({{"PARVANE_TRACE", "run.csv"},
                                    {"PARVANE_SPEED", "2"},
                                    {"PARVANE_LOOP", "0"},
                                    {"PARVANE_BT_ADDRESS", "11:22:33:44:55:66"},
                                    {"STATE_DIRECTORY", "/managed/state"},
                                    {"RUNTIME_DIRECTORY", "/managed/run"}},
                                   file);
    EXPECT_THAT(settings.mReplay.mFiles, ElementsAre("run.csv"));
    EXPECT_EQ(settings.mReplay.mSpeed, 2.0);
    EXPECT_FALSE(settings.mReplay.mLoop);
    EXPECT_EQ(settings.mBluetooth.mAddress, "11:22:33:44:55:66");
    EXPECT_EQ(settings.mStateDirectory, "/managed/state");
    EXPECT_EQ(settings.mRuntimeDirectory, "/managed/run");
}

TEST_F(ConfiguredSettingsTest, WhatNamesTheRecordingsIsKnown)
{
    const std::string file = Configure("# recordings\n[replay]\nfiles=a.csv\n");
    EXPECT_EQ(Read({}, file).mReplay.mNamedBy, file + ": line 3: [replay] files: ");
    EXPECT_EQ(Read({{"PARVANE_TRACE", "run.csv"}}, file).mReplay.mNamedBy, "");
    EXPECT_EQ(Read({}, Configure("")).mReplay.mNamedBy, "");
}

TEST_F(ConfiguredSettingsTest, EmptyVariablesLeaveTheFileItsSay)
{
    const Settings settings = Read({{"PARVANE_TRACE", ""},
                                    {"PARVANE_SPEED", ""},
                                    {"PARVANE_LOOP", ""},
                                    {"PARVANE_BT_ADDRESS", ""},
                                    {"STATE_DIRECTORY", ""},
                                    {"XDG_STATE_HOME", ""},
                                    {"RUNTIME_DIRECTORY", ""},
                                    {"XDG_RUNTIME_DIR", ""}},
                                   Configure("[replay]\nfiles=a.csv\nspeed=3\nloop=0\n"
                                             "[bluetooth]\naddress=aa:bb:cc:dd:ee:ff\n"
                                             "[directories]\nstate=/f/state/\nruntime=/f/run\n"));
    EXPECT_THAT(settings.mReplay.mFiles, ElementsAre(mDirectory / "a.csv"));
    EXPECT_EQ(settings.mReplay.mSpeed, 3.0);
    EXPECT_FALSE(settings.mReplay.mLoop);
    EXPECT_EQ(settings.mBluetooth.mAddress, "AA:BB:CC:DD:EE:FF");
    EXPECT_EQ(settings.mStateDirectory, "/f/state");
    EXPECT_EQ(settings.mRuntimeDirectory, "/f/run");
}

TEST_F(ConfiguredSettingsTest, DirectoriesOfTheUserGoBeforeTheFileAndHomeAfterIt)
{
    const std::string file = Configure("[directories]\nstate=/f/state\nruntime=/f/run\n");
    const Settings user =
        Read({{"XDG_STATE_HOME", "/xdg/state"}, {"XDG_RUNTIME_DIR", "/xdg/run"}}, file);
    EXPECT_EQ(user.mStateDirectory, "/xdg/state/parvane");
    EXPECT_EQ(user.mRuntimeDirectory, "/xdg/run/parvane");
    const Settings home = Read({{"HOME", "/home/user"}}, file);
    EXPECT_EQ(home.mStateDirectory, "/f/state");
    EXPECT_EQ(home.mRuntimeDirectory, "/f/run");
    EXPECT_EQ(Read({{"HOME", ""}}, file).mStateDirectory, "/f/state");
}

TEST_F(ConfiguredSettingsTest, ATraceServesTheItemsThatTheFileDoesNotName)
{
    const Settings settings = Read({{"PARVANE_TRACE", "run.csv"}},
                                   Configure("[sensors]\nheart_rate=ble\npedometer=none\n"));
    EXPECT_EQ(settings.mSensors.mHeartRate, SourceKind::Ble);
    EXPECT_EQ(settings.mSensors.mPedometer, SourceKind::None);
    EXPECT_EQ(settings.mSensors.mActivity, SourceKind::Replay);
    EXPECT_EQ(settings.mSensors.mGesture, SourceKind::Replay);
}

TEST_F(ConfiguredSettingsTest, ABadValueStopsTheStartEvenIfAVariableOverridesIt)
{
    const std::string file = Configure("[replay]\nspeed=fast\nloop=maybe\n");
    EXPECT_EQ(ErrorOf({{"PARVANE_SPEED", "2"}}, file),
              file + ": line 2: [replay] speed is 'fast': it must be a decimal number from 0.001 "
                     "to 100000");
}

TEST_F(ConfiguredSettingsTest, WarningsAreLoggedEachInOneLine)
{
    const std::string file = Configure("[control]\nport=1\n[what]\n");
    StderrCapture capture;
    const Settings settings = Read({}, file);
    EXPECT_EQ(capture.Take(),
              "W platform: " + file +
                  ": line 2: unknown key 'port' in [control]; known are enabled, allow\n"
                  "W platform: " +
                  file +
                  ": line 3: unknown section [what]; known are sensors, replay, iio, ble, power, "
                  "memory, battery, bluetooth, link, control, log, directories\n");
    EXPECT_TRUE(settings.mControl);
}

TEST_F(ConfiguredSettingsTest, WarningsAreLoggedWithAnErrorToo)
{
    const std::string file = Configure("[control]\nenabled=x\nport=1\n");
    StderrCapture capture;
    EXPECT_EQ(ErrorOf({}, file),
              file + ": line 2: [control] enabled is 'x': it must be true, false, 1 or 0");
    EXPECT_EQ(capture.Take(),
              "W platform: " + file +
                  ": line 3: unknown key 'port' in [control]; known are enabled, allow\n");
}

TEST_F(ConfiguredSettingsTest, ForeignFilesDoNotFloodTheLog)
{
    std::string text;
    for (int i = 0; i < 1000; ++i) {
        text += "[section" + std::to_string(i) + "]\n";
    }
    const std::string file = Configure(text);
    StderrCapture capture;
    Read({}, file);
    const std::string log = capture.Take();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 21);
    EXPECT_THAT(log, testing::EndsWith("W platform: " + file + ": 980 more warnings\n"));
}

} // namespace ParvanePlatform
