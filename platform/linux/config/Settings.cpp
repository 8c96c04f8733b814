#include "Settings.h"

#include <array>
#include <stdexcept>
#include <utility>

#include "ConfigFile.h"
#include "ConfigSchema.h"
#include "MessageText.h"
#include "RuntimeLog.h"
#include "StartupError.h"

namespace ParvanePlatform {

using Parvane::ValueOf;

namespace {

/** A file that was meant for something else must not flood the log. */
constexpr int kMaxConfigWarnings = 20;

std::string StateDirectory(const Environment &environment, const std::string &configured)
{
    if (std::string path = Parvane::ManagedDirectory(environment, "STATE_DIRECTORY");
        !path.empty()) {
        return path;
    }
    if (const std::string base = ValueOf(environment, "XDG_STATE_HOME");
        Parvane::IsAbsolute(base)) {
        return base + "/parvane";
    }
    if (!configured.empty()) {
        return configured;
    }
    const std::string home = ValueOf(environment, "HOME");
    if (!Parvane::IsAbsolute(home)) {
        throw StartupError(
            "there is no place for the state: set STATE_DIRECTORY, XDG_STATE_HOME, [directories] "
            "state or HOME to an absolute path");
    }
    return home + "/.local/state/parvane";
}

std::string WithoutTrailingSlashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/') {
        path.pop_back();
    }
    return path;
}

/** Notes which variable gives a directory, if one does. */
void NoteOrigin(const Environment &environment, const char *managed, const char *user,
                const char *key, Settings &settings)
{
    if (!ValueOf(environment, managed).empty()) {
        settings.mOrigins[{"directories", key}] = managed;
    } else if (Parvane::IsAbsolute(ValueOf(environment, user))) {
        settings.mOrigins[{"directories", key}] = user;
    }
}

/** Lets a variable that is set have its say in place of a key of the file. */
void Override(const Environment &environment, const std::string &variable, const ConfigKey &key,
              Settings &settings)
{
    const std::string text = ValueOf(environment, variable.c_str());
    if (text.empty()) {
        return;
    }
    if (!key.mApply({text}, settings)) {
        throw StartupError(variable + " is '" + Printable(text) + "': it must be " + key.mAllowed);
    }
    settings.mOrigins[{key.mSection, key.mName}] = variable;
}

void OverrideLoop(const Environment &environment, Settings &settings)
{
    const std::string text = ValueOf(environment, "PARVANE_LOOP");
    if (!text.empty() && text != "0" && text != "1") {
        throw StartupError("PARVANE_LOOP is '" + Printable(text) + "': it must be 0 or 1");
    }
    Override(environment, "PARVANE_LOOP", ConfigKeyOf("replay", "loop"), settings);
}

/** Logs the warnings about a file, and refuses it with the first of its errors. */
void Judge(const std::string &path, const Configuration &configuration)
{
    int warnings = 0;
    for (const ConfigProblem &problem : configuration.mProblems) {
        if (problem.mSeverity == ConfigProblem::Severity::Warning &&
            ++warnings <= kMaxConfigWarnings) {
            LogWarning("%s", ToString(path, problem).c_str());
        }
    }
    if (warnings > kMaxConfigWarnings) {
        LogWarning("%s: %d more warnings", PrintablePath(path).c_str(),
                   warnings - kMaxConfigWarnings);
    }
    if (const ConfigProblem *error = configuration.FirstError(); error != nullptr) {
        throw StartupError(ToString(path, *error));
    }
}

Settings ConfiguredSettings(const Environment &environment, const std::string &systemFile)
{
    const std::string named = ValueOf(environment, "PARVANE_PLATFORM_CONF");
    const std::string &path = named.empty() ? systemFile : named;
    const std::string trace = ValueOf(environment, "PARVANE_TRACE");
    Configuration configuration =
        LoadConfiguration(path, named.empty() ? IfMissing::UseDefaults : IfMissing::Fail, trace);
    Judge(path, configuration);
    if (const auto files = configuration.mLines.find({"replay", "files"});
        files != configuration.mLines.end() && trace.empty()) {
        configuration.mSettings.mReplay.mNamedBy = ToString(
            path, {ConfigProblem::Severity::Error, files->second, "", "", "[replay] files: "});
    }
    Settings settings = std::move(configuration.mSettings);
    settings.mFile = path;
    settings.mHasFile = configuration.mHasFile;
    for (const auto &[name, line] : configuration.mLines) {
        settings.mOrigins[name] = "line " + std::to_string(line);
    }
    if (!trace.empty()) {
        settings.mOrigins[{"replay", "files"}] = "PARVANE_TRACE";
    }
    return settings;
}

} // namespace

const char *NameOf(SourceKind kind)
{
    constexpr std::array kNames = {"none", "replay", "iio", "ble", "manual"};
    return kNames.at(static_cast<std::size_t>(kind));
}

Settings ReadSettings(const Environment &environment, const std::string &systemFile)
{
    Settings settings = ConfiguredSettings(environment, systemFile);
    try {
        settings.mStateDirectory =
            WithoutTrailingSlashes(StateDirectory(environment, settings.mStateDirectory));
        settings.mRuntimeDirectory = WithoutTrailingSlashes(
            Parvane::RuntimeDirectory(environment, "parvane", settings.mRuntimeDirectory));
    } catch (const std::runtime_error &failure) {
        throw StartupError(failure.what());
    }
    NoteOrigin(environment, "STATE_DIRECTORY", "XDG_STATE_HOME", "state", settings);
    NoteOrigin(environment, "RUNTIME_DIRECTORY", "XDG_RUNTIME_DIR", "runtime", settings);
    Override(environment, "PARVANE_SPEED", ConfigKeyOf("replay", "speed"), settings);
    OverrideLoop(environment, settings);
    Override(environment, "PARVANE_BT_ADDRESS", ConfigKeyOf("bluetooth", "address"), settings);
    return settings;
}

} // namespace ParvanePlatform
