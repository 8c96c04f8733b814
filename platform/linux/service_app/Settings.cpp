#include "Settings.h"

#include <cstdlib>

#include "base/Numbers.h"
#include "base/StartupError.h"
#include "bluetooth/BluetoothAddress.h"

namespace ParvanePlatform {

namespace {

std::string Value(const Environment &environment, const std::string &name)
{
    return environment(name).value_or(std::string());
}

bool IsAbsolute(const std::string &path)
{
    return !path.empty() && path.front() == '/';
}

/** The first path of a variable that the service manager sets; empty when it is not set. */
std::string ManagedDirectory(const Environment &environment, const std::string &name)
{
    const std::string value = Value(environment, name);
    std::string path = value.substr(0, value.find(':'));
    if (!value.empty() && !IsAbsolute(path)) {
        throw StartupError(name + " is '" + value + "': it must be an absolute path");
    }
    return path;
}

std::string StateDirectory(const Environment &environment)
{
    if (std::string path = ManagedDirectory(environment, "STATE_DIRECTORY"); !path.empty()) {
        return path;
    }
    if (const std::string base = Value(environment, "XDG_STATE_HOME"); IsAbsolute(base)) {
        return base + "/parvane";
    }
    const std::string home = Value(environment, "HOME");
    if (!IsAbsolute(home)) {
        throw StartupError(
            "there is no place for the state: set STATE_DIRECTORY, XDG_STATE_HOME or "
            "HOME to an absolute path");
    }
    return home + "/.local/state/parvane";
}

std::string RuntimeDirectory(const Environment &environment)
{
    if (std::string path = ManagedDirectory(environment, "RUNTIME_DIRECTORY"); !path.empty()) {
        return path;
    }
    if (const std::string base = Value(environment, "XDG_RUNTIME_DIR"); IsAbsolute(base)) {
        return base + "/parvane";
    }
    return "/run/parvane";
}

std::string WithoutTrailingSlashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

double TraceSpeed(const Environment &environment)
{
    const std::string text = Value(environment, "PARVANE_SPEED");
    if (text.empty()) {
        return 1.0;
    }
    const auto speed = ParseDecimal(text);
    if (!speed || *speed < kMinTraceSpeed || *speed > kMaxTraceSpeed) {
        throw StartupError("PARVANE_SPEED is '" + text +
                           "': it must be a decimal number from 0.001 to 100000");
    }
    return *speed;
}

bool TraceLoop(const Environment &environment)
{
    const std::string text = Value(environment, "PARVANE_LOOP");
    if (!text.empty() && text != "0" && text != "1") {
        throw StartupError("PARVANE_LOOP is '" + text + "': it must be 0 or 1");
    }
    return text != "0";
}

std::string ConfiguredBluetoothAddress(const Environment &environment)
{
    const std::string text = Value(environment, "PARVANE_BT_ADDRESS");
    if (text.empty()) {
        return {};
    }
    const auto address = NormaliseBluetoothAddress(text);
    if (!address) {
        throw StartupError("PARVANE_BT_ADDRESS is '" + text +
                           "': it must be six hexadecimal octets such as AA:BB:CC:DD:EE:FF");
    }
    return *address;
}

} // namespace

std::optional<std::string> ProcessEnvironment(const std::string &name)
{
    const char *value = std::getenv(name.c_str());
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

Settings ReadSettings(const Environment &environment)
{
    Settings settings;
    settings.mStateDirectory = WithoutTrailingSlashes(StateDirectory(environment));
    settings.mRuntimeDirectory = WithoutTrailingSlashes(RuntimeDirectory(environment));
    if (const std::string file = Value(environment, "PARVANE_TRACE"); !file.empty()) {
        settings.mReplay.mFiles = {file};
        settings.mSensors = {SourceKind::Replay, SourceKind::Replay, SourceKind::Replay,
                             SourceKind::Replay};
    }
    settings.mReplay.mSpeed = TraceSpeed(environment);
    settings.mReplay.mLoop = TraceLoop(environment);
    settings.mBluetooth.mAddress = ConfiguredBluetoothAddress(environment);
    return settings;
}

} // namespace ParvanePlatform
