#include "ControlCommands.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "ConfigSchema.h"
#include "ControlMessages.h"
#include "ControlServer.h"
#include "LogWriter.h"
#include "ManualSource.h"
#include "RecordingReader.h"
#include "ReplaySource.h"
#include "RuntimeLog.h"
#include "StartupError.h"

namespace ParvanePlatform {

namespace {

using nlohmann::json;

constexpr int kLargestHeartRate = 65535;
constexpr std::array kActivities = {"other", "still", "walking", "running"};
constexpr double kLeastSpeed = 0.1;
constexpr int kMostSpeed = 1000;
constexpr char kInstalledRecordings[] = "/usr/share/parvane/recordings";

/** A request that is not carried out, and what its sender is told. */
struct Refusal
{
    /** One of docs/control.md. */
    const char *mCode;
    std::string mText;
};

/** A value as it came, short enough for a message. */
std::string Quoted(const json &value)
{
    constexpr std::size_t kLongest = 60;
    if (value.is_structured()) {
        return value.is_array() ? "an array" : "an object";
    }
    // In ASCII: the cut below could leave half a character of more than one byte.
    const std::string text = value.dump(-1, ' ', true, json::error_handler_t::replace);
    return text.size() <= kLongest ? text : text.substr(0, kLongest) + "...";
}

/** "up, down" */
template <typename Words>
std::string Joined(const Words &words)
{
    std::string text;
    for (const char *word : words) {
        text += (text.empty() ? "" : ", ") + std::string(word);
    }
    return text;
}

/** One request whose members are looked at one by one. */
class Request
{
public:
    explicit Request(std::string_view message) : mObject(Parse(message))
    {
        if (!mObject.is_object()) {
            throw Refusal{"bad-message",
                          "the message is no JSON object but " + std::string(mObject.type_name())};
        }
        CheckVersion();
        const auto name = mObject.find("request");
        if (name == mObject.end()) {
            throw Refusal{"unknown-request", "\"request\" is missing; allowed: " + Joined(kNames)};
        }
        mName = name->is_string() ? name->get<std::string>() : "";
        if (std::find(kNames.begin(), kNames.end(), mName) == kNames.end()) {
            throw Refusal{"unknown-request",
                          "\"request\" is " + Quoted(*name) + "; allowed: " + Joined(kNames)};
        }
    }

    const std::string &Name() const { return mName; }

    /** Refuses members that this request does not have: a wish that is not understood. */
    void AllowOnly(std::initializer_list<const char *> members) const
    {
        for (const auto &[key, value] : mObject.items()) {
            const bool isKnown =
                key == "version" || key == "request" ||
                std::any_of(members.begin(), members.end(),
                            [&key = key](const char *member) { return key == member; });
            if (!isKnown) {
                throw Refusal{"bad-value", "\"" + mName + "\" has no member " + Quoted(key) +
                                               "; allowed: version, request" +
                                               (members.size() > 0 ? ", " : "") + Joined(members)};
            }
        }
    }

    /** A member that has to be there. @param allowed  what it may be, for the message */
    const json &Get(const char *member, const std::string &allowed) const
    {
        const auto found = mObject.find(member);
        if (found == mObject.end()) {
            throw Refusal{"bad-value",
                          "\"" + std::string(member) + "\" is missing; allowed: " + allowed};
        }
        return *found;
    }

    /** A member that is a list, unless somebody has sent something else; empty without it. */
    json List(const char *member) const { return mObject.value(member, json::array()); }

    [[noreturn]] void Refuse(const char *member, const std::string &allowed) const
    {
        throw Refusal{"bad-value", "\"" + std::string(member) + "\" is " +
                                       Quoted(mObject.at(member)) + "; allowed: " + allowed};
    }

    /** A member that is one of `names`. @return its place among them */
    template <std::size_t count>
    std::size_t Choice(const char *member, const std::array<const char *, count> &names) const
    {
        const std::string allowed = Joined(names);
        const json &value = Get(member, allowed);
        const auto found = std::find_if(names.begin(), names.end(), [&value](const char *name) {
            return value.is_string() && value.get_ref<const std::string &>() == name;
        });
        if (found == names.end()) {
            Refuse(member, allowed);
        }
        return static_cast<std::size_t>(found - names.begin());
    }

    /** Sets what a member that may be there says, by the rules of a key of the configuration. */
    void Apply(const char *member, const ConfigKey &key, Settings &settings) const
    {
        const auto value = mObject.find(member);
        if (value != mObject.end() &&
            !(value->is_string() && key.mApply({value->get<std::string>()}, settings))) {
            Refuse(member, key.mAllowed);
        }
    }

    /** A member that is a whole number, as JSON has it without point and exponent. */
    int WholeNumber(const char *member, int smallest, int largest, std::string allowed = "") const
    {
        if (allowed.empty()) {
            allowed = "a whole number from " + std::to_string(smallest) + " to " +
                      std::to_string(largest);
        }
        const json &value = Get(member, allowed);
        // A number that no 64 bits hold is read as a floating-point one.
        const bool fits =
            value.is_number_unsigned()
                ? value.get<std::uint64_t>() <= std::uint64_t{std::numeric_limits<int>::max()}
                : value.is_number_integer();
        const std::int64_t number = fits ? value.get<std::int64_t>() : 0;
        if (!fits || number < smallest || number > largest) {
            Refuse(member, allowed);
        }
        return static_cast<int>(number);
    }

    bool Has(const char *member) const { return mObject.contains(member); }

    double Number(const char *member, const json &least, const json &most) const
    {
        const std::string allowed = "a number from " + least.dump() + " to " + most.dump();
        const json &value = Get(member, allowed);
        if (!value.is_number() || value < least || value > most) {
            Refuse(member, allowed);
        }
        return value.get<double>();
    }

private:
    /** @param byte  the first that is wrong, counted from 1 */
    static Refusal NoJson(std::size_t byte)
    {
        return {"bad-message", "the message is no JSON from byte " + std::to_string(byte) +
                                   " on; send one object, in UTF-8"};
    }

    static json Parse(std::string_view message)
    {
        // The parser takes a zero byte for the end, whatever comes after it.
        if (const std::size_t zero = message.find('\0'); zero != std::string_view::npos) {
            throw NoJson(zero + 1);
        }
        try {
            return json::parse(message);
        } catch (const json::parse_error &failure) {
            throw NoJson(failure.byte);
        } catch (const json::exception &) {
            throw Refusal{"bad-message",
                          "the message has a number that is too large; send one JSON object"};
        }
    }

    void CheckVersion() const
    {
        const auto version = mObject.find("version");
        if (version != mObject.end() && *version != kControlVersion) {
            throw Refusal{"unsupported-version",
                          "\"version\" is " + Quoted(*version) +
                              "; allowed: " + std::to_string(kControlVersion)};
        }
    }

    static constexpr std::array kNames = {"status", "config",  "log",     "set",
                                          "link",   "memory",  "battery", "quit",
                                          "record", "observe", "capture", "replay"};

    json mObject;
    std::string mName;
};

/** Carries one request out. */
class Execution
{
public:
    Execution(ControlledParts &parts, const Instant &start, int peerPid)
        : mParts(parts), mStart(start), mPid(peerPid)
    {}

    ControlAnswer Run(const Request &request)
    {
        const std::string &name = request.Name();
        if (name == "status" || name == "observe") {
            request.AllowOnly({});
            return {StatusMessage(mParts, mStart, ControlServer::kMaxReplyBytes), false, nullptr,
                    name == "observe"};
        }
        if (name == "capture") {
            request.AllowOnly({});
            ControlAnswer answer = Done();
            answer.mStartsCapture = true;
            return answer;
        }
        if (name == "config") {
            request.AllowOnly({});
            return {ConfigMessage(mParts.mSettings), false, nullptr};
        }
        if (name == "log") {
            return Log(request);
        }
        if (name == "set") {
            return Set(request);
        }
        if (name == "link") {
            return SetLink(request);
        }
        if (name == "replay") {
            return Replay(request);
        }
        return name == "record" ? Record(request) : End(request);
    }

private:
    /** Tells how recordings are played, after what is asked for has been changed, or which there are. */
    ControlAnswer Replay(const Request &request)
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
            return Done({{"replay", ReplayReport(mParts)}, {"recordings", ShownRecordings()}});
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
        return Done({{"replay", std::move(told)}});
    }

    void Open(ReplaySource &source, const Request &request)
    {
        namespace fs = std::filesystem;
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

    /** The recordings of the settings, those that lie beside them, and the installed ones. */
    std::set<std::string> KnownRecordings() const
    {
        namespace fs = std::filesystem;
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

    /** Those of them that a reply has room for. */
    json ShownRecordings() const
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

    /** Changes what is asked for, and tells which lines of the log are written then. */
    ControlAnswer Log(const Request &request) const
    {
        request.AllowOnly({"level", "tags"});
        LogWriter &log = StandardErrorLog();
        Settings settings;
        settings.mLog = log.Filter();
        json told;
        for (const char *member : {"level", "tags"}) {
            const ConfigKey &key = ConfigKeyOf("log", member);
            request.Apply(member, key, settings);
            told[member] = std::get<std::string>(key.mShow(settings));
        }
        if (settings.mLog != log.Filter()) {
            LogInfo("control: process %d sets the log to %s", mPid, told.dump().c_str());
            log.SetFilter(settings.mLog);
        }
        return Done({{"log", std::move(told)}});
    }

    /** Turns on what the recorder wants, for as long as it is there. */
    ControlAnswer Record(const Request &request)
    {
        request.AllowOnly({"on"});
        json wanted = request.List("on");
        json on = json::array();
        std::vector<std::shared_ptr<void>> held;
        for (const ContextManager::ItemStatus &item : mParts.mContext.Status()) {
            const std::string name = NameOf(item.mItem);
            const auto found = std::find(wanted.begin(), wanted.end(), name);
            if (found != wanted.end()) {
                wanted.erase(found);
                held.push_back(mParts.mContext.Keep(item.mItem, mPid));
                if (!held.back()) {
                    throw Refusal{"failed", name + " cannot be turned on: " + WhyOff(item)};
                }
                LogInfo("control: process %d turns %s on", mPid, name.c_str());
                on.push_back(name);
            } else if (item.mRequestId || !item.mKeepers.empty()) {
                on.push_back(name);
            }
        }
        if (!wanted.empty() || !wanted.is_array()) {
            request.Refuse("on", "an array of gesture, pedometer, heart_rate, activity, each once");
        }
        return {Done({{"on", on}}).mReply, true, nullptr, false, std::move(held)};
    }

    /** Why an item cannot be turned on. */
    static std::string WhyOff(const ContextManager::ItemStatus &item)
    {
        if (!item.mProblem.empty()) {
            return item.mProblem;
        }
        return item.mSource == SourceKind::Replay
                   ? "the recording has no reading of it"
                   : std::string("the source ") + NameOf(item.mSource) + " cannot serve it now";
    }

    ControlAnswer Set(const Request &request)
    {
        constexpr std::array kItems = {"heart_rate", "steps", "activity", "gesture"};
        const std::size_t item = request.Choice("item", kItems);
        request.AllowOnly({"item", item == 1 ? "add" : "value"});
        switch (item) {
        case 0: {
            const std::string allowed = "a whole number of beats per minute from 0 to " +
                                        std::to_string(kLargestHeartRate) + ", \"off-wrist\"";
            const bool isOffWrist = request.Get("value", allowed) == "off-wrist";
            const int rate = isOffWrist
                                 ? ManualSource::kNotWorn
                                 : request.WholeNumber("value", 0, kLargestHeartRate, allowed);
            ManualSource &source = Manual(ContextItem::HeartRate);
            LogInfo("control: process %d sets the heart rate to %s", mPid,
                    isOffWrist ? "off-wrist" : std::to_string(rate).c_str());
            source.SetHeartRate(rate);
            return Done();
        }
        case 1: {
            const int steps = request.WholeNumber("add", 0, std::numeric_limits<int>::max());
            ManualSource &source = Manual(ContextItem::Pedometer);
            LogInfo("control: process %d adds %d steps", mPid, steps);
            source.AddSteps(steps);
            return Done();
        }
        case 2: {
            const std::size_t activity = request.Choice("value", kActivities);
            ManualSource &source = Manual(ContextItem::Activity);
            LogInfo("control: process %d sets the activity to %s", mPid, kActivities[activity]);
            source.SetActivity(static_cast<int>(activity));
            return Done();
        }
        default: {
            const int gesture = request.WholeNumber("value", std::numeric_limits<int>::min(),
                                                    std::numeric_limits<int>::max());
            ManualSource &source = Manual(ContextItem::Gesture);
            LogInfo("control: process %d makes the gesture %d", mPid, gesture);
            const ContextManager::ItemStatus status = StatusOf(ContextItem::Gesture);
            source.MakeGesture(gesture);
            return Done({{"heard", (status.mRequestId ? 1U : 0U) + status.mKeepers.size()}});
        }
        }
    }

    ContextManager::ItemStatus StatusOf(ContextItem item) const
    {
        for (const ContextManager::ItemStatus &status : mParts.mContext.Status()) {
            if (status.mItem == item) {
                return status;
            }
        }
        return {};
    }

    /** The source that can be set, if it serves the item. */
    ManualSource &Manual(ContextItem item) const
    {
        const SourceKind kind = StatusOf(item).mSource;
        ManualSource *source = mParts.mContext.Manual();
        if (kind != SourceKind::Manual || source == nullptr) {
            const std::string name = NameOf(item);
            throw Refusal{"not-manual", name + " has the source " + NameOf(kind) +
                                            "; only the source manual can be set (" + name +
                                            "=manual in section [sensors] of platform.conf)"};
        }
        return *source;
    }

    ControlAnswer SetLink(const Request &request)
    {
        constexpr std::array kStates = {"up", "down"};
        request.AllowOnly({"state"});
        const bool isUp = request.Choice("state", kStates) == 0;
        LogInfo("control: process %d wants the link %s", mPid, isUp ? "up" : "down");
        // What is so already is nobody's doing.
        if (mParts.mLink.Status().mIsDown == isUp) {
            mParts.mLinkSetBy = mPid;
        }
        isUp ? mParts.mLink.BringUp() : mParts.mLink.TakeDown();
        return Done();
    }

    /** What ends the service, or is likely to: it is done when the reply has been sent. */
    ControlAnswer End(const Request &request)
    {
        constexpr std::array kStates = {"low"};
        LifecycleEvents &events = mParts.mEvents;
        if (request.Name() == "quit") {
            request.AllowOnly({});
            LogInfo("control: process %d ends the service", mPid);
            return Done({}, [&events] { events.OnQuit(); });
        }
        request.AllowOnly({"state"});
        request.Choice("state", kStates);
        LogInfo("control: process %d says that the %s is low", mPid, request.Name().c_str());
        if (request.Name() == "memory") {
            return Done({}, [&events] { events.OnLowMemory(); });
        }
        return Done({}, [&events] { events.OnLowBattery(); });
    }

    /** @param reply  its members besides those that all have */
    static ControlAnswer Done(json reply = json::object(), std::function<void()> then = nullptr)
    {
        reply["ok"] = true;
        reply["version"] = kControlVersion;
        return {TextOf(reply), false, std::move(then)};
    }

    ControlledParts &mParts;
    const Instant &mStart;
    int mPid;
};

} // namespace

ControlCommands::ControlCommands(ControlledParts parts)
    : mParts(std::move(parts)), mStart(mParts.mClock.Now())
{}

ControlAnswer ControlCommands::Answer(std::string_view message, int peerPid)
{
    try {
        return Execution(mParts, mStart, peerPid).Run(Request(message));
    } catch (const Refusal &refusal) {
        return {ErrorMessage(refusal.mCode, refusal.mText), false, nullptr};
    }
}

std::vector<std::string> ControlCommands::TakeChanges()
{
    return ChangeMessages(mParts, ControlServer::kMaxReplyBytes, mTold);
}

} // namespace ParvanePlatform
