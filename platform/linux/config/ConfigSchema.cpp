#include "ConfigSchema.h"

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <utility>

#include <glib.h>

#include "BluetoothAddress.h"
#include "Numbers.h"

namespace ParvanePlatform {

namespace {

/** The words that a key may hold, each with what it stands for. */
template <typename Value>
using Words = std::vector<std::pair<std::string, Value>>;

Words<SourceKind> SourceWords(std::initializer_list<SourceKind> kinds)
{
    Words<SourceKind> words;
    for (const SourceKind kind : kinds) {
        words.emplace_back(NameOf(kind), kind);
    }
    return words;
}

template <typename Value>
std::string ListOf(const Words<Value> &words)
{
    std::string list;
    for (const auto &[word, value] : words) {
        list += (list.empty() ? "" : ", ") + word;
    }
    return list;
}

/** The field of a setting that lies in a section's settings. */
template <typename Section, typename Value>
auto In(Section Settings::*section, Value Section::*setting)
{
    return [section, setting](auto &all) -> decltype(auto) { return (all.*section.*setting); };
}

template <typename Field>
ConfigKey::Show Shown(Field field)
{
    return [field](const Settings &settings) { return std::invoke(field, settings); };
}

/** A key that holds one of some words; `field` gives the setting in the settings. */
template <typename Value, typename Field>
ConfigKey Choice(std::string section, std::string name, Words<Value> words, Field field)
{
    std::string allowed = "one of " + ListOf(words);
    auto show = [words, field](const Settings &settings) {
        const auto isChosen = [&](const auto &word) {
            return word.second == std::invoke(field, settings);
        };
        return std::find_if(words.begin(), words.end(), isChosen)->first;
    };
    auto apply = [words = std::move(words), field](const std::vector<std::string> &value,
                                                   Settings &settings) {
        const auto found = std::find_if(words.begin(), words.end(), [&value](const auto &word) {
            return word.first == value.front();
        });
        if (found == words.end()) {
            return false;
        }
        std::invoke(field, settings) = found->second;
        return true;
    };
    return {std::move(section), std::move(name), std::move(allowed), std::move(apply),
            std::move(show)};
}

template <typename Field>
ConfigKey Boolean(std::string section, std::string name, Field field)
{
    const auto apply = [field](const std::vector<std::string> &value, Settings &settings) {
        const std::string &word = value.front();
        const bool isTrue = word == "true" || word == "1";
        if (!isTrue && word != "false" && word != "0") {
            return false;
        }
        std::invoke(field, settings) = isTrue;
        return true;
    };
    return {std::move(section), std::move(name), "true, false, 1 or 0", apply, Shown(field)};
}

/** A whole number from `least` to `most`, a multiple of `step`; `note` ends what is allowed. */
template <typename Field>
ConfigKey Number(std::string section, std::string name, int least, int most, int step,
                 const std::string &note, Field field)
{
    const auto apply = [least, most, step, field](const std::vector<std::string> &value,
                                                  Settings &settings) {
        const auto number = ParseInteger<int>(value.front());
        if (!number || *number < least || *number > most || *number % step != 0) {
            return false;
        }
        std::invoke(field, settings) = *number;
        return true;
    };
    return {std::move(section), std::move(name),
            "a whole number from " + std::to_string(least) + " to " + std::to_string(most) + note,
            apply, Shown(field)};
}

/** What a text must be like; returns it as it is kept, empty when it is not like that. */
using Normalise = std::string (*)(const std::string &text);

std::string AbsolutePath(const std::string &text)
{
    if (text.empty() || text.front() != '/') {
        return {};
    }
    std::string path = text;
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

/** A socket's path has 107 bytes, "/control.sock" included. */
std::string SocketDirectory(const std::string &text)
{
    constexpr std::size_t kMostBytes = 94;
    const std::string path = AbsolutePath(text);
    return path.size() <= kMostBytes ? path : std::string();
}

/** BlueZ's name of an adapter is the end of a D-Bus object path. */
std::string AdapterName(const std::string &text)
{
    const bool isName = std::all_of(text.begin(), text.end(), [](char character) {
        return g_ascii_isalnum(character) || character == '_';
    });
    return isName ? text : std::string();
}

std::string DeviceName(const std::string &text)
{
    const bool isName = std::none_of(text.begin(), text.end(),
                                     [](char character) { return g_ascii_iscntrl(character); });
    return isName ? text : std::string();
}

std::string Tags(const std::string &text)
{
    const bool hasEmpty =
        text.starts_with(',') || text.ends_with(',') || text.find(",,") != std::string::npos;
    return hasEmpty ? std::string() : DeviceName(text);
}

std::string UserName(const std::string &text)
{
    constexpr std::size_t kMostBytes = 32;
    const bool isName =
        text.size() <= kMostBytes && std::all_of(text.begin(), text.end(), [](char character) {
            return g_ascii_isalnum(character) || character == '_' || character == '-' ||
                   character == '.';
        });
    return isName ? text : std::string();
}

std::string Address(const std::string &text)
{
    return NormaliseBluetoothAddress(text).value_or(std::string());
}

/** A text that must not be empty. */
template <typename Field>
ConfigKey Text(std::string section, std::string name, std::string allowed, Normalise normalise,
               Field field)
{
    const auto apply = [normalise, field](const std::vector<std::string> &value,
                                          Settings &settings) {
        std::string text = normalise(value.front());
        if (text.empty()) {
            return false;
        }
        std::invoke(field, settings) = std::move(text);
        return true;
    };
    return {std::move(section), std::move(name), std::move(allowed), apply, Shown(field)};
}

/** A text that may be left empty. */
template <typename Field>
ConfigKey OptionalText(std::string section, std::string name, std::string allowed,
                       Normalise normalise, Field field)
{
    ConfigKey key = Text(std::move(section), std::move(name), std::move(allowed), normalise, field);
    key.mApply = [apply = std::move(key.mApply), field](const std::vector<std::string> &value,
                                                        Settings &settings) {
        if (value.front().empty()) {
            std::invoke(field, settings).clear();
            return true;
        }
        return apply(value, settings);
    };
    return key;
}

bool ApplyFiles(const std::vector<std::string> &value, Settings &settings)
{
    std::vector<std::string> files;
    for (const std::string &element : value) {
        constexpr char kBlanks[] = " \t";
        const std::size_t begin = element.find_first_not_of(kBlanks);
        if (begin == std::string::npos) {
            return false;
        }
        files.push_back(element.substr(begin, element.find_last_not_of(kBlanks) + 1 - begin));
    }
    settings.mReplay.mFiles = std::move(files);
    return true;
}

bool ApplySpeed(const std::vector<std::string> &value, Settings &settings)
{
    const auto speed = ParseDecimal(value.front());
    if (!speed || *speed < kMinTraceSpeed || *speed > kMaxTraceSpeed) {
        return false;
    }
    settings.mReplay.mSpeed = *speed;
    return true;
}

constexpr char kPath[] = "an absolute path";
constexpr char kAdapter[] = "an adapter's name such as hci0, of letters, digits and _";
constexpr char kUser[] = "a user's name or number, or empty";
constexpr char kAddress[] = "six hexadecimal octets such as AA:BB:CC:DD:EE:FF";

constexpr int kLeastIioPeriodMs = 100;
constexpr int kMostIioPeriodMs = 3600000;
constexpr int kLeastBatteryPeriodMs = 1000;
constexpr int kMostBatteryPeriodMs = 86400000;
// What the kernel grants to a process without privileges.
constexpr int kWindowStepMs = 2000;
constexpr int kMostWindowMs = 10000;

std::vector<ConfigKey> SensorKeys()
{
    using enum SourceKind;
    return {Choice(kSensorSection, "heart_rate", SourceWords({None, Replay, Ble, Manual}),
                   In(&Settings::mSensors, &SensorSettings::mHeartRate)),
            Choice(kSensorSection, "pedometer", SourceWords({None, Replay, Iio, Manual}),
                   In(&Settings::mSensors, &SensorSettings::mPedometer)),
            Choice(kSensorSection, "activity", SourceWords({None, Replay, Iio, Manual}),
                   In(&Settings::mSensors, &SensorSettings::mActivity)),
            Choice(kSensorSection, "gesture", SourceWords({None, Replay, Manual}),
                   In(&Settings::mSensors, &SensorSettings::mGesture))};
}

std::vector<ConfigKey> SourceKeys()
{
    return {{"replay", "files", "a list of files with ; between them", ApplyFiles,
             Shown(In(&Settings::mReplay, &ReplaySettings::mFiles)), true},
            {"replay", "speed", "a decimal number from 0.001 to 100000", ApplySpeed,
             Shown(In(&Settings::mReplay, &ReplaySettings::mSpeed))},
            Boolean("replay", "loop", In(&Settings::mReplay, &ReplaySettings::mLoop)),
            Text("iio", "root", kPath, AbsolutePath, In(&Settings::mIio, &IioSettings::mRoot)),
            OptionalText("iio", "device", "a device's name, without control characters", DeviceName,
                         In(&Settings::mIio, &IioSettings::mDevice)),
            Number("iio", "period_ms", kLeastIioPeriodMs, kMostIioPeriodMs, 1, "",
                   In(&Settings::mIio, &IioSettings::mPeriodMs)),
            OptionalText("ble", "adapter", kAdapter, AdapterName,
                         In(&Settings::mBle, &BleSettings::mAdapter)),
            OptionalText("ble", "device", kAddress, Address,
                         In(&Settings::mBle, &BleSettings::mDevice))};
}

std::vector<ConfigKey> PowerKeys()
{
    using Lock = PowerSettings::Lock;
    using Battery = BatterySettings::Monitor;
    using Memory = MemorySettings::Monitor;
    const Words<Lock> locks = {{"none", Lock::None},
                               {"auto", Lock::Auto},
                               {"logind", Lock::Logind},
                               {"wake_lock", Lock::WakeLock}};
    const Words<Memory> memory = {{"none", Memory::None},
                                  {"auto", Memory::Auto},
                                  {"glib", Memory::Glib},
                                  {"pressure", Memory::Pressure}};
    const Words<Battery> battery = {{"none", Battery::None},
                                    {"auto", Battery::Auto},
                                    {"upower", Battery::UPower},
                                    {"sysfs", Battery::Sysfs}};
    return {
        Choice("power", "lock", locks, In(&Settings::mPower, &PowerSettings::mLock)),
        Text("power", "root", kPath, AbsolutePath, In(&Settings::mPower, &PowerSettings::mRoot)),
        Choice("memory", "monitor", memory, In(&Settings::mMemory, &MemorySettings::mMonitor)),
        Text("memory", "pressure_file", kPath, AbsolutePath,
             In(&Settings::mMemory, &MemorySettings::mPressureFile)),
        Number("memory", "stall_ms", 1, kMostWindowMs - 1, 1, ", less than window_ms",
               In(&Settings::mMemory, &MemorySettings::mStallMs)),
        Number("memory", "window_ms", kWindowStepMs, kMostWindowMs, kWindowStepMs,
               ", a multiple of " + std::to_string(kWindowStepMs),
               In(&Settings::mMemory, &MemorySettings::mWindowMs)),
        Choice("battery", "monitor", battery, In(&Settings::mBattery, &BatterySettings::mMonitor)),
        Text("battery", "root", kPath, AbsolutePath,
             In(&Settings::mBattery, &BatterySettings::mRoot)),
        Number("battery", "low_percent", 1, 100, 1, "",
               In(&Settings::mBattery, &BatterySettings::mLowPercent)),
        Number("battery", "period_ms", kLeastBatteryPeriodMs, kMostBatteryPeriodMs, 1, "",
               In(&Settings::mBattery, &BatterySettings::mPeriodMs))};
}

std::vector<ConfigKey> OtherKeys()
{
    using Adapter = BluetoothSettings::Adapter;
    const Words<Adapter> adapters = {{"none", Adapter::None}, {"bluez", Adapter::Bluez}};
    const Words<int> levels = {{"auto", LogFilter::kAutomatic},
                               {"verbose", 0},
                               {"debug", 3},
                               {"info", 4},
                               {"warning", 5},
                               {"error", 6},
                               {"fatal", 7}};
    return {Choice("bluetooth", "adapter", adapters,
                   In(&Settings::mBluetooth, &BluetoothSettings::mAdapter)),
            OptionalText("bluetooth", "name", kAdapter, AdapterName,
                         In(&Settings::mBluetooth, &BluetoothSettings::mName)),
            OptionalText("bluetooth", "address", kAddress, Address,
                         In(&Settings::mBluetooth, &BluetoothSettings::mAddress)),
            OptionalText("link", "allow", kUser, UserName, &Settings::mLinkAllow),
            Boolean("control", "enabled", &Settings::mControl),
            OptionalText("control", "allow", kUser, UserName, &Settings::mControlAllow),
            Choice("log", "level", levels, In(&Settings::mLog, &LogFilter::mLevel)),
            OptionalText("log", "tags", "tags with , between them", Tags,
                         In(&Settings::mLog, &LogFilter::mTags)),
            OptionalText("directories", "state", kPath, AbsolutePath, &Settings::mStateDirectory),
            OptionalText("directories", "runtime", "an absolute path of at most 94 bytes",
                         SocketDirectory, &Settings::mRuntimeDirectory)};
}

std::vector<ConfigKey> MakeSchema()
{
    std::vector<ConfigKey> schema;
    for (std::vector<ConfigKey> keys : {SensorKeys(), SourceKeys(), PowerKeys(), OtherKeys()}) {
        std::move(keys.begin(), keys.end(), std::back_inserter(schema));
    }
    return schema;
}

} // namespace

const std::vector<ConfigKey> &ConfigSchema()
{
    static const std::vector<ConfigKey> schema = MakeSchema();
    return schema;
}

const ConfigKey *FindConfigKey(std::string_view section, std::string_view name)
{
    for (const ConfigKey &key : ConfigSchema()) {
        if (key.mSection == section && key.mName == name) {
            return &key;
        }
    }
    return nullptr;
}

const ConfigKey &ConfigKeyOf(const std::string &section, const std::string &name)
{
    const ConfigKey *key = FindConfigKey(section, name);
    if (key == nullptr) {
        throw std::logic_error("no such key: [" + section + "] " + name);
    }
    return *key;
}

std::vector<std::string> ConfigSections()
{
    std::vector<std::string> sections;
    for (const ConfigKey &key : ConfigSchema()) {
        if (sections.empty() || sections.back() != key.mSection) {
            sections.push_back(key.mSection);
        }
    }
    return sections;
}

} // namespace ParvanePlatform
