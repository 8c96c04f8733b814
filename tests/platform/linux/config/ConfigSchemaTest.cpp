#include "ConfigSchema.h"

#include <set>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ConfigFile.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;

std::vector<std::string> ErrorsOf(const std::string &text)
{
    std::vector<std::string> errors;
    for (const ConfigProblem &problem : ParseConfiguration("/etc/p.conf", text, "").mProblems) {
        errors.push_back(ToString("p.conf", problem));
    }
    return errors;
}

/** One key: values that it may hold, and values that it may not. */
struct KeyCase
{
    std::string mSection;
    std::string mName;
    /** The value, and what the setting is then, written as text. */
    std::vector<std::pair<std::string, std::string>> mGood;
    std::vector<std::string> mBad;
    /** The end of the message about a bad value. */
    std::string mAllowed;
    std::string (*mSetting)(const Settings &settings);
};

void PrintTo(const KeyCase &key, std::ostream *stream)
{
    *stream << '[' << key.mSection << "] " << key.mName;
}

template <typename Value>
std::string Number(Value value)
{
    return std::to_string(static_cast<int>(value));
}

std::string Files(const Settings &settings)
{
    std::string files;
    for (const std::string &file : settings.mReplay.mFiles) {
        files += "<" + file + ">";
    }
    return files;
}

const std::string kSensorAllowed = "it must be one of none, replay, iio, manual";
const std::string kPathAllowed = "it must be an absolute path";
const std::string kAdapterAllowed =
    "it must be an adapter's name such as hci0, of letters, digits and _";
const std::string kAddressAllowed = "it must be six hexadecimal octets such as AA:BB:CC:DD:EE:FF";
const std::string kBooleanAllowed = "it must be true, false, 1 or 0";
const std::vector<std::pair<std::string, std::string>> kBooleans = {
    {"true", "1"}, {"1", "1"}, {"false", "0"}, {"0", "0"}};
const std::vector<std::string> kBadBooleans = {"", "yes", "True", "2", "true false"};
const std::vector<std::pair<std::string, std::string>> kPaths = {
    {"/x", "/x"}, {"/x y/z//", "/x y/z"}, {"/", "/"}, {"/\\s", "/ "}};
const std::vector<std::pair<std::string, std::string>> kOptionalPaths = {{"/x/", "/x"}, {"", ""}};
const std::vector<std::pair<std::string, std::string>> kAdapters = {
    {"hci0", "hci0"}, {"a_B9", "a_B9"}, {"", ""}};
const std::vector<std::string> kBadAdapters = {"hci 0", "/org", "hci-0", "hci0;hci1", "h\xC3\xA4"};
const std::vector<std::pair<std::string, std::string>> kAddresses = {
    {"aa:bb:cc:dd:ee:0f", "AA:BB:CC:DD:EE:0F"}, {"", ""}};
const std::vector<std::string> kBadAddresses = {"AA:BB:CC:DD:EE", "AA-BB-CC-DD-EE-FF", "any"};
const std::string kUserAllowed = "it must be a user's name or number, or empty";
const std::vector<std::pair<std::string, std::string>> kUsers = {
    {"parvane-gateway", "parvane-gateway"}, {"1000", "1000"}, {"a.b_c", "a.b_c"}, {"", ""}};
const std::vector<std::string> kBadUsers = {"a b", "a:b", "a;b",
                                            "012345678901234567890123456789012"};

const std::vector<KeyCase> kCases = {
    {"sensors",
     "heart_rate",
     {{"none", "0"}, {"ble", "3"}, {"manual", "4"}},
     {"", "iio", "None", "ble2", "ble;manual"},
     "it must be one of none, replay, ble, manual",
     [](const Settings &s) { return Number(s.mSensors.mHeartRate); }},
    {"sensors",
     "pedometer",
     {{"none", "0"}, {"iio", "2"}, {"manual", "4"}},
     {"", "ble", "steps"},
     kSensorAllowed,
     [](const Settings &s) { return Number(s.mSensors.mPedometer); }},
    {"sensors",
     "activity",
     {{"none", "0"}, {"iio", "2"}, {"manual", "4"}},
     {"", "ble", "walking"},
     kSensorAllowed,
     [](const Settings &s) { return Number(s.mSensors.mActivity); }},
    {"sensors",
     "gesture",
     {{"none", "0"}, {"manual", "4"}},
     {"", "iio", "ble"},
     "it must be one of none, replay, manual",
     [](const Settings &s) { return Number(s.mSensors.mGesture); }},
    {"replay",
     "files",
     {{"/a.csv", "</a.csv>"},
      {"/a.csv;", "</a.csv>"},
      {"/a.csv; /b c.csv ;/d\\;e", "</a.csv></b c.csv></d;e>"},
      {"", ""}},
     {";", "/a;;/b", "/a; ;/b", "/a;\\s"},
     "it must be a list of files with ; between them",
     Files},
    {"replay",
     "speed",
     {{"2.5", "2.500000"}, {"0.001", "0.001000"}, {"100000", "100000.000000"}, {"1.", "1.000000"}},
     {"", "0", "-1", "0.0009", "100000.1", "2,5", "1e3", "0x10", "inf", "nan", "+2", "2 3", "fast"},
     "it must be a decimal number from 0.001 to 100000",
     [](const Settings &s) { return std::to_string(s.mReplay.mSpeed); }},
    {"replay", "loop", kBooleans, kBadBooleans, kBooleanAllowed,
     [](const Settings &s) { return Number(s.mReplay.mLoop); }},
    {"iio",
     "root",
     kPaths,
     {"", "sys", "./sys", "~"},
     kPathAllowed,
     [](const Settings &s) { return s.mIio.mRoot; }},
    {"iio",
     "device",
     {{"lsm6dsx step", "lsm6dsx step"}, {"h\xC3\xA4/\\\\", "h\xC3\xA4/\\"}, {"", ""}},
     {"two\\nlines", "a\x01z"},
     "it must be a device's name, without control characters",
     [](const Settings &s) { return s.mIio.mDevice; }},
    {"iio",
     "period_ms",
     {{"100", "100"}, {"3600000", "3600000"}},
     {"", "99", "3600001", "1.5", "-100", "1 s", "99999999999999999999"},
     "it must be a whole number from 100 to 3600000",
     [](const Settings &s) { return Number(s.mIio.mPeriodMs); }},
    {"ble", "adapter", kAdapters, kBadAdapters, kAdapterAllowed,
     [](const Settings &s) { return s.mBle.mAdapter; }},
    {"ble", "device", kAddresses, kBadAddresses, kAddressAllowed,
     [](const Settings &s) { return s.mBle.mDevice; }},
    {"power",
     "lock",
     {{"none", "0"}, {"auto", "1"}, {"logind", "2"}, {"wake_lock", "3"}},
     {"", "wakelock", "systemd"},
     "it must be one of none, auto, logind, wake_lock",
     [](const Settings &s) { return Number(s.mPower.mLock); }},
    {"power",
     "root",
     kPaths,
     {"", "sys/power"},
     kPathAllowed,
     [](const Settings &s) { return s.mPower.mRoot; }},
    {"memory",
     "monitor",
     {{"none", "0"}, {"auto", "1"}, {"glib", "2"}, {"pressure", "3"}},
     {"", "psi", "sysfs"},
     "it must be one of none, auto, glib, pressure",
     [](const Settings &s) { return Number(s.mMemory.mMonitor); }},
    {"memory",
     "pressure_file",
     kPaths,
     {"", "memory"},
     kPathAllowed,
     [](const Settings &s) { return s.mMemory.mPressureFile; }},
    {"memory",
     "stall_ms",
     {{"1", "1"}, {"1999", "1999"}},
     {"", "0", "-1", "10000", "1s"},
     "it must be a whole number from 1 to 9999, less than window_ms",
     [](const Settings &s) { return Number(s.mMemory.mStallMs); }},
    {"memory",
     "window_ms",
     {{"2000", "2000"}, {"10000", "10000"}, {"6000", "6000"}},
     {"", "0", "1000", "3000", "12000", "-2000"},
     "it must be a whole number from 2000 to 10000, a multiple of 2000",
     [](const Settings &s) { return Number(s.mMemory.mWindowMs); }},
    {"battery",
     "monitor",
     {{"none", "0"}, {"auto", "1"}, {"upower", "2"}, {"sysfs", "3"}},
     {"", "UPower", "glib"},
     "it must be one of none, auto, upower, sysfs",
     [](const Settings &s) { return Number(s.mBattery.mMonitor); }},
    {"battery",
     "root",
     kPaths,
     {"", "power_supply"},
     kPathAllowed,
     [](const Settings &s) { return s.mBattery.mRoot; }},
    {"battery",
     "low_percent",
     {{"1", "1"}, {"100", "100"}},
     {"", "0", "101", "5%", "5.5"},
     "it must be a whole number from 1 to 100",
     [](const Settings &s) { return Number(s.mBattery.mLowPercent); }},
    {"battery",
     "period_ms",
     {{"1000", "1000"}, {"86400000", "86400000"}},
     {"", "999", "86400001"},
     "it must be a whole number from 1000 to 86400000",
     [](const Settings &s) { return Number(s.mBattery.mPeriodMs); }},
    {"bluetooth",
     "adapter",
     {{"none", "0"}, {"bluez", "1"}},
     {"", "hci0", "auto"},
     "it must be one of none, bluez",
     [](const Settings &s) { return Number(s.mBluetooth.mAdapter); }},
    {"bluetooth", "name", kAdapters, kBadAdapters, kAdapterAllowed,
     [](const Settings &s) { return s.mBluetooth.mName; }},
    {"bluetooth", "address", kAddresses, kBadAddresses, kAddressAllowed,
     [](const Settings &s) { return s.mBluetooth.mAddress; }},
    {"link", "allow", kUsers, kBadUsers, kUserAllowed,
     [](const Settings &s) { return s.mLinkAllow; }},
    {"control", "enabled", kBooleans, kBadBooleans, kBooleanAllowed,
     [](const Settings &s) { return Number(s.mControl); }},
    {"control", "allow", kUsers, kBadUsers, kUserAllowed,
     [](const Settings &s) { return s.mControlAllow; }},
    {"log",
     "level",
     {{"auto", "-1"},
      {"verbose", "0"},
      {"debug", "3"},
      {"info", "4"},
      {"warning", "5"},
      {"error", "6"},
      {"fatal", "7"}},
     {"", "5", "Warning", "all"},
     "it must be one of auto, verbose, debug, info, warning, error, fatal",
     [](const Settings &s) { return Number(s.mLog.mLevel); }},
    {"log",
     "tags",
     {{"Parvane", "Parvane"}, {"Parvane,platform", "Parvane,platform"}, {"", ""}},
     {"a\x01z", ",", "a,", "a,,b"},
     "it must be tags with , between them",
     [](const Settings &s) { return s.mLog.mTags; }},
    {"directories",
     "state",
     kOptionalPaths,
     {"state", "a:/b"},
     kPathAllowed,
     [](const Settings &s) { return s.mStateDirectory; }},
    {"directories",
     "runtime",
     {{"/x/", "/x"}, {"", ""}, {"/" + std::string(93, 'r'), "/" + std::string(93, 'r')}},
     {"run", "/" + std::string(94, 'r')},
     "it must be an absolute path of at most 94 bytes",
     [](const Settings &s) { return s.mRuntimeDirectory; }}};

/** A value as a file would have it. */
std::vector<std::string> TextOf(const ConfigValue &value)
{
    if (const bool *choice = std::get_if<bool>(&value)) {
        return {*choice ? "true" : "false"};
    }
    if (const int *number = std::get_if<int>(&value)) {
        return {std::to_string(*number)};
    }
    if (const double *number = std::get_if<double>(&value)) {
        return {std::to_string(*number)};
    }
    if (const std::string *text = std::get_if<std::string>(&value)) {
        return {*text};
    }
    return std::get<std::vector<std::string>>(value);
}

} // namespace

class ConfigKeyTest : public testing::TestWithParam<KeyCase>
{};

TEST_P(ConfigKeyTest, TakesWhatIsAllowed)
{
    const KeyCase &key = GetParam();
    for (const auto &[value, setting] : key.mGood) {
        const std::string text = "[" + key.mSection + "]\n" + key.mName + "=" + value + "\n";
        const Configuration configuration = ParseConfiguration("/p.conf", text, "");
        EXPECT_THAT(ErrorsOf(text), ElementsAre()) << text;
        EXPECT_EQ(key.mSetting(configuration.mSettings), setting) << text;
    }
}

TEST_P(ConfigKeyTest, RefusesTheRestAndKeepsItsDefault)
{
    const KeyCase &key = GetParam();
    for (const std::string &value : key.mBad) {
        const std::string text = "[" + key.mSection + "]\n" + key.mName + "=" + value + "\n";
        const std::string shown = value == "a\x01z" ? "a\\x01z" : value;
        EXPECT_THAT(ErrorsOf(text),
                    ElementsAre("p.conf: line 2: [" + key.mSection + "] " + key.mName + " is '" +
                                shown + "': " + key.mAllowed));
        EXPECT_EQ(key.mSetting(ParseConfiguration("/p.conf", text, "").mSettings),
                  key.mSetting(Settings()));
    }
}

INSTANTIATE_TEST_SUITE_P(Keys, ConfigKeyTest, testing::ValuesIn(kCases), [](const auto &key) {
    return key.param.mSection + "_" + key.param.mName;
});

TEST(ConfigSchemaTest, HasNoKeyWithoutATestAndNoneTwice)
{
    std::vector<std::string> names;
    std::set<std::string> tested;
    for (const ConfigKey &key : ConfigSchema()) {
        names.push_back(key.mSection + "." + key.mName);
    }
    for (const KeyCase &key : kCases) {
        tested.insert(key.mSection + "." + key.mName);
    }
    EXPECT_THAT(tested, testing::UnorderedElementsAreArray(names));
}

TEST(ConfigSchemaTest, HasTheSectionsOfTheRuntimesParts)
{
    EXPECT_THAT(ConfigSections(),
                ElementsAre("sensors", "replay", "iio", "ble", "power", "memory", "battery",
                            "bluetooth", "link", "control", "log", "directories"));
}

TEST(ConfigSchemaTest, WhatIsShownIsWhatHasBeenSet)
{
    for (const KeyCase &test : kCases) {
        for (const auto &[value, setting] : test.mGood) {
            const std::string text = "[" + test.mSection + "]\n" + test.mName + "=" + value + "\n";
            const Settings settings = ParseConfiguration("/p.conf", text, "").mSettings;
            const ConfigKey &key = ConfigKeyOf(test.mSection, test.mName);
            Settings again;
            EXPECT_TRUE(key.mApply(TextOf(key.mShow(settings)), again)) << text;
            EXPECT_EQ(test.mSetting(again), setting) << text;
        }
    }
}

TEST(ConfigSchemaTest, KnowsEachSensorItem)
{
    for (const SensorItem &item : kSensorItems) {
        Settings settings;
        EXPECT_TRUE(ConfigKeyOf(kSensorSection, item.mKey).mApply({"manual"}, settings));
        EXPECT_EQ(settings.mSensors.*item.mSource, SourceKind::Manual) << item.mKey;
    }
}

TEST(ConfigSchemaTest, AKeyThatThereIsNotIsAMistakeOfTheProgram)
{
    EXPECT_THROW(ConfigKeyOf("replay", "sped"), std::logic_error);
}

} // namespace ParvanePlatform
