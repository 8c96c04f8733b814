#include "ReplayCommand.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <filesystem>
#include <system_error>
#include <utility>

#include "ControlMessages.h"
#include "ControlServer.h"
#include "RecordingReader.h"
#include "ReplaySource.h"
#include "RuntimeLog.h"
#include "StartupError.h"

namespace ParvanePlatform {

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

constexpr double kLeastSpeed = 0.1;
constexpr int kMostSpeed = 1000;
constexpr char kInstalledRecordings[] = "/usr/share/parvane/recordings";

} // namespace

json ReplayCommand::Run(const ControlRequest &request)
{
    constexpr std::array kActions = {"pause", "resume", "seek", "speed", "open"};
    ReplaySource *const source = mParts.mContext.Replay();
    if (source == nullptr) {
        throw Refusal{"not-replay",
                      "no item has the source replay; it plays the recordings of files=... in "
                      "section [replay] of platform.conf"};
    }
    if (!request.Has("action")) {
        request.AllowOnly({"action"});
        return {{"replay", ReplayReport(mParts)}, {"recordings", ShownRecordings()}};
    }
    const std::size_t action = request.Choice("action", kActions);
    switch (action) {
    case 2:
        request.AllowOnly({"action", "position_ms"});
        source->Seek(request.Number("position_ms", 0, source->LengthMs()));
        break;
    case 3:
        request.AllowOnly({"action", "speed"});
        source->SetSpeed(request.Number("speed", kLeastSpeed, kMostSpeed));
        break;
    case 4:
        request.AllowOnly({"action", "recording"});
        Open(*source, request);
        break;
    default:
        request.AllowOnly({"action"});
        source->SetPaused(action == 0);
    }
    ++mParts.mReplayChanges;
    json told = ReplayReport(mParts);
    LogInfo("control: process %d sets the replay to %s", mPid, TextOf(told).c_str());
    return {{"replay", std::move(told)}};
}

void ReplayCommand::Open(ReplaySource &source, const ControlRequest &request)
{
    constexpr char kAllowed[] = "one of the recordings that \"replay\" without an action tells";
    const std::set<std::string> known = KnownRecordings();
    const json &wanted = request.Get("recording", kAllowed);
    const auto found = std::find_if(known.begin(), known.end(), [&](const std::string &path) {
        return wanted == path || wanted == fs::path(path).filename().string();
    });
    if (found == known.end()) {
        request.Refuse("recording", kAllowed);
    }
    try {
        source.Open(LoadRecordings({*found}));
    } catch (const StartupError &failure) {
        throw Refusal{"failed", failure.what()};
    }
    mParts.mOpened = *found;
}

std::set<std::string> ReplayCommand::KnownRecordings() const
{
    std::set<fs::path> folders = {kInstalledRecordings};
    std::set<std::string> known;
    std::error_code failed;
    for (const std::string &file : mParts.mSettings.mReplay.mFiles) {
        const fs::path path = fs::absolute(file, failed);
        known.insert(path);
        folders.insert(path.parent_path());
    }
    for (const fs::path &folder : folders) {
        for (fs::directory_iterator entry(folder, failed), end; !failed && entry != end;
             entry.increment(failed)) {
            std::error_code unknown;
            if (entry->path().extension() == ".csv" && entry->is_regular_file(unknown)) {
                known.insert(entry->path());
            }
        }
    }
    return known;
}

json ReplayCommand::ShownRecordings() const
{
    std::size_t room = ControlServer::kMaxReplyBytes / 2;
    json shown = json::array();
    for (const std::string &path : KnownRecordings()) {
        const std::size_t size = TextOf(path).size() + 1;
        if (size <= room) {
            room -= size;
            shown.push_back(path);
        }
    }
    return shown;
}

} // namespace ParvanePlatform
