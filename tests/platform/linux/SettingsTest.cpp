#include "service_app/Settings.h"

#include <map>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/StartupError.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Variables = std::map<std::string, std::string>;

/** HOME is always there, unless a test says otherwise. */
Settings Read(Variables variables)
{
    variables.emplace("HOME", "/home/user");
    return ReadSettings([&variables](const std::string &name) {
        const auto found = variables.find(name);
        return found != variables.end() ? std::optional<std::string>(found->second) : std::nullopt;
    });
}

std::string ErrorOf(const Variables &variables)
{
    try {
        Read(variables);
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
              "there is no place for the state: set STATE_DIRECTORY, XDG_STATE_HOME or HOME to an "
              "absolute path");
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

} // namespace ParvanePlatform
