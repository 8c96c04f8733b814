#pragma once

#include <array>
#include <functional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "Settings.h"

namespace ParvanePlatform {

/** A setting; what is chosen of some words is the word. */
using ConfigValue = std::variant<bool, int, double, std::string, std::vector<std::string>>;

/** One key of the configuration file: what it may hold, and the setting that it is. */
struct ConfigKey
{
    /** Sets the setting; false, and nothing is set, when the value is not allowed. */
    using Apply = std::function<bool(const std::vector<std::string> &value, Settings &settings)>;
    using Show = std::function<ConfigValue(const Settings &settings)>;

    std::string mSection;
    std::string mName;
    /** What it may hold: the end of the sentence "it must be ...". */
    std::string mAllowed;
    /** Takes one value, without escapes; a list has any number of them. */
    Apply mApply;
    Show mShow;
    /** Whether the value is a list with ';' between its elements. */
    bool mIsList = false;
};

/** All keys there are, section by section; their defaults are those of Settings. */
const std::vector<ConfigKey> &ConfigSchema();

/** A key, by its names; null when there is none. */
const ConfigKey *FindConfigKey(std::string_view section, std::string_view name);

/** A key that there is. */
const ConfigKey &ConfigKeyOf(const std::string &section, const std::string &name);

/** The names of the sections, in their order. */
std::vector<std::string> ConfigSections();

/** An item with a source of its own, and its key in the section "sensors". */
struct SensorItem
{
    const char *mKey;
    SourceKind SensorSettings::*mSource;
};

constexpr const char *kSensorSection = "sensors";

constexpr std::array<SensorItem, 4> kSensorItems = {{{"heart_rate", &SensorSettings::mHeartRate},
                                                     {"pedometer", &SensorSettings::mPedometer},
                                                     {"activity", &SensorSettings::mActivity},
                                                     {"gesture", &SensorSettings::mGesture}}};

} // namespace ParvanePlatform
