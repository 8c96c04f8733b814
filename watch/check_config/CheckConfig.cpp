#include "CheckConfig.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>
#include <utility>
#include <vector>

#include "ConfigFile.h"
#include "ConfigSchema.h"
#include "MessageText.h"
#include "RecordingReader.h"
#include "Settings.h"
#include "StartupError.h"

namespace ParvaneWatch {

namespace {

using ParvanePlatform::ConfigProblem;
using ParvanePlatform::Configuration;
using Severity = ConfigProblem::Severity;
/** Keeps the keys in the order in which they are written here. */
using Json = nlohmann::ordered_json;

constexpr int kOk = 0;
constexpr int kWouldNotStart = 1;
constexpr int kUnreadable = 2;

const char *NameOf(Severity severity)
{
    return severity == Severity::Warning ? "warning" : "error";
}

/** Why recordings cannot be played in turn; empty when they can be. */
std::string ReasonAgainst(const std::vector<std::string> &recordings)
{
    try {
        ParvanePlatform::LoadRecordings(recordings);
        return {};
    } catch (const ParvanePlatform::StartupError &failure) {
        return failure.what();
    }
}

/** Why the service would not play recordings: what is wrong with each, else with all together. */
std::vector<std::string> ReasonsAgainst(const std::vector<std::string> &recordings)
{
    std::vector<std::string> reasons;
    const auto judge = [&reasons](const std::vector<std::string> &some) {
        if (std::string reason = ReasonAgainst(some); !reason.empty()) {
            reasons.push_back(std::move(reason));
        }
    };
    for (const std::string &recording : recordings) {
        judge({recording});
    }
    if (reasons.empty() && recordings.size() > 1) {
        judge(recordings);
    }
    return reasons;
}

/** Adds what is wrong with the recordings that the service would play. */
void CheckRecordings(Configuration &configuration)
{
    using ParvanePlatform::kSensorItems;
    const ParvanePlatform::Settings &settings = configuration.mSettings;
    const bool arePlayed =
        std::any_of(kSensorItems.begin(), kSensorItems.end(), [&settings](const auto &item) {
            return settings.mSensors.*item.mSource == ParvanePlatform::SourceKind::Replay;
        });
    if (!arePlayed || settings.mReplay.mFiles.empty()) {
        return;
    }
    const int line = configuration.mLines.at({"replay", "files"});
    for (const std::string &reason : ReasonsAgainst(settings.mReplay.mFiles)) {
        configuration.mProblems.push_back(
            {Severity::Error, line, "replay", "files", "[replay] files: " + reason});
    }
    std::stable_sort(configuration.mProblems.begin(), configuration.mProblems.end(),
                     [](const auto &left, const auto &right) { return left.mLine < right.mLine; });
}

Json OrNull(const std::string &text)
{
    return text.empty() ? Json(nullptr) : Json(text);
}

void PrintJson(const std::string &path, const std::vector<ConfigProblem> &problems, bool ok,
               std::ostream &out)
{
    Json list = Json::array();
    for (const ConfigProblem &problem : problems) {
        list.push_back({{"severity", NameOf(problem.mSeverity)},
                        {"line", problem.mLine > 0 ? Json(problem.mLine) : Json(nullptr)},
                        {"section", OrNull(problem.mSection)},
                        {"key", OrNull(problem.mKey)},
                        {"message", problem.mText}});
    }
    const Json report = {{"file", path}, {"ok", ok}, {"problems", list}};
    // The name of a file may be any bytes.
    out << report.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
}

void PrintText(const std::string &path, const Configuration &configuration, bool ok,
               std::ostream &out, std::ostream &err)
{
    for (const ConfigProblem &problem : configuration.mProblems) {
        err << NameOf(problem.mSeverity) << ": " << ToString(path, problem) << '\n';
    }
    if (!ok) {
        return;
    }
    if (!configuration.mHasFile) {
        out << ParvanePlatform::PrintablePath(path)
            << " is not there: every setting has its default\n";
    }
    for (const ParvanePlatform::SensorItem &item : ParvanePlatform::kSensorItems) {
        const ParvanePlatform::SourceKind source = configuration.mSettings.mSensors.*item.mSource;
        out << item.mKey << ": " << ParvanePlatform::NameOf(source) << '\n';
    }
    const std::size_t warnings = configuration.mProblems.size(); // with an error it were not ok
    out << ParvanePlatform::PrintablePath(path) << ": ok";
    if (warnings > 0) {
        out << ", with " << warnings << (warnings == 1 ? " warning" : " warnings");
    }
    out << '\n';
}

} // namespace

int CheckConfig(const std::string &named, bool json, std::ostream &out, std::ostream &err)
{
    using ParvanePlatform::IfMissing;
    const std::string path = named.empty() ? ParvanePlatform::kSystemConfigFile : named;
    Configuration configuration;
    try {
        configuration = ParvanePlatform::LoadConfiguration(
            path, named.empty() ? IfMissing::UseDefaults : IfMissing::Fail, "");
    } catch (const ParvanePlatform::StartupError &failure) {
        if (json) {
            PrintJson(path, {{Severity::Error, 0, "", "", failure.what()}}, false, out);
        } else {
            err << "error: " << failure.what() << '\n';
        }
        return kUnreadable;
    }
    CheckRecordings(configuration);
    const bool ok = configuration.FirstError() == nullptr;
    if (json) {
        PrintJson(path, configuration.mProblems, ok, out);
    } else {
        PrintText(path, configuration, ok, out, err);
    }
    return ok ? kOk : kWouldNotStart;
}

} // namespace ParvaneWatch
