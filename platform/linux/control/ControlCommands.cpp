#include "ControlCommands.h"

#include <algorithm>
#include <array>
#include <functional>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "ConfigSchema.h"
#include "ControlMessages.h"
#include "ControlRequest.h"
#include "ControlServer.h"
#include "LogWriter.h"
#include "ManualSource.h"
#include "ReplayCommand.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

namespace {

using nlohmann::json;

constexpr int kLargestHeartRate = 65535;
constexpr std::array kActivities = {"other", "still", "walking", "running"};

/** Carries one request out. */
class Execution
{
public:
    Execution(ControlledParts &parts, const Instant &start, int peerPid)
        : mParts(parts), mStart(start), mPid(peerPid)
    {}

    ControlAnswer Run(const ControlRequest &request)
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
            return Done(ReplayCommand(mParts, mPid).Run(request));
        }
        return name == "record" ? Record(request) : End(request);
    }

private:
    /** Changes what is asked for, and tells which lines of the log are written then. */
    ControlAnswer Log(const ControlRequest &request) const
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
    ControlAnswer Record(const ControlRequest &request)
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

    ControlAnswer Set(const ControlRequest &request)
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

    ControlAnswer SetLink(const ControlRequest &request)
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
    ControlAnswer End(const ControlRequest &request)
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
        return Execution(mParts, mStart, peerPid).Run(ControlRequest(message));
    } catch (const Refusal &refusal) {
        return {ErrorMessage(refusal.mCode, refusal.mText), false, nullptr};
    }
}

std::vector<std::string> ControlCommands::TakeChanges()
{
    return ChangeMessages(mParts, ControlServer::kMaxReplyBytes, mTold);
}

} // namespace ParvanePlatform
