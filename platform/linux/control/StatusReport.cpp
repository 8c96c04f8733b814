#include "StatusReport.h"

#include <algorithm>
#include <array>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <unistd.h>
#include <utility>
#include <variant>
#include <vector>

#include "ConfigSchema.h"
#include "ControlMessages.h"
#include "ControlServer.h"
#include "LinkTransport.h"
#include "LogText.h"
#include "ReplaySource.h"

namespace ParvanePlatform {

namespace {

using nlohmann::json;

/** "2026-01-31T12:34:56.789Z" */
std::string IsoTime(std::int64_t wallMs)
{
    std::array<char, 32> buffer{};
    LogText text(buffer.data(), buffer.size());
    text.AddTime(wallMs);
    return {buffer.data(), text.Needed()};
}

constexpr std::size_t kLongBytes = 3000; // there are but a dozen texts, so that a reply holds them

/** By LinkSession::HostState. */
constexpr std::array kHostStates = {"none", "waiting", "indicated", "open", "ending"};

json ValuesOf(const SensorReading &reading)
{
    json values = json::object();
    for (const SensorValue &value : reading) {
        std::visit([&](auto number) { values[value.mKey] = number; }, value.mValue);
    }
    return values;
}

/** What is left of a part of a status when nothing in it but ages, and what readings tell, counts. */
json WithoutAges(json part)
{
    if (part.is_object()) {
        for (const char *age :
             {"for_ms", "ends", "ends_in_ms", "delivered", "last_reading", "position_ms"}) {
            part.erase(age);
        }
    }
    if (part.is_structured()) {
        std::transform(part.begin(), part.end(), part.begin(), WithoutAges);
    }
    return part;
}

/** Makes the parts of a status at one instant. */
class Reporter
{
public:
    explicit Reporter(const ControlledParts &parts)
        : mParts(parts), mNow(parts.mClock.Now()), mLoopNowUs(parts.mClock.MonotonicUs())
    {}

    json Service(const Instant &start) const
    {
        json service = Since(start);
        service["version"] = PARVANE_PLATFORM_VERSION;
        service["pid"] = ::getpid();
        service["user"] = ::geteuid();
        return service;
    }

    json Host(const LinkSession::LinkStatus &link) const
    {
        if (link.mConnected.mWallMs == 0) {
            return nullptr;
        }
        json host = Since(link.mConnected);
        host["pid"] = link.mPeer.mPid;
        host["user"] = link.mPeer.mUid;
        return host;
    }

    json Link(const LinkSession::LinkStatus &link) const
    {
        int key = 0;
        const bool hasKey = mParts.mKeys.GetInt(LinkSession::kStatusKey, key) == 0;
        const LinkSession::Statistics &counts = link.mStatistics;
        return {{"state", link.mIsDown ? "down" : "up"},
                {"set_by", mParts.mLinkSetBy != 0 ? json(mParts.mLinkSetBy) : json(nullptr)},
                {"key", hasKey ? json(key) : json(nullptr)},
                {"host_state", kHostStates.at(static_cast<std::size_t>(link.mHostState))},
                {"packets_in", counts.mPacketsIn},
                {"bytes_in", counts.mBytesIn},
                {"packets_out", counts.mPacketsOut},
                {"bytes_out", counts.mBytesOut},
                {"refused_hosts", counts.mRefusedHosts},
                {"queue_full", counts.mQueueFull}};
    }

    json Items() const
    {
        json items = json::array();
        for (const ContextManager::ItemStatus &item : mParts.mContext.Status()) {
            items.push_back(Item(item));
        }
        return items;
    }

    json PowerLocksHeld() const
    {
        json locks = json::array();
        for (const PowerLocks::Status &lock : mParts.mPower.List()) {
            const std::int64_t leftMs = std::max<std::int64_t>(lock.mEndUs - mLoopNowUs, 0) / 1000;
            json entry = Since(lock.mTaken);
            entry["state"] = lock.mState;
            entry["held_by"] = lock.mBackend;
            entry["ends"] = IsoTime(mNow.mWallMs + leftMs);
            entry["ends_in_ms"] = leftMs;
            locks.push_back(std::move(entry));
        }
        return locks;
    }

    /** What of the status changes, but for the preferences. */
    json Parts() const
    {
        const LinkSession::LinkStatus link = mParts.mLink.Status();
        return {{"host", Host(link)},
                {"link", Link(link)},
                {"items", Items()},
                {"power_locks", PowerLocksHeld()},
                {"replay", ReplayReport(mParts)}};
    }

    std::string Now() const { return IsoTime(mNow.mWallMs); }

private:
    /** An instant of the past, and how long ago it was, which is true also if the time was set since. */
    json Since(const Instant &instant) const
    {
        return {{"since", IsoTime(instant.mWallMs)}, {"for_ms", AgeMs(instant)}};
    }

    std::int64_t AgeMs(const Instant &instant) const
    {
        return std::max<std::int64_t>(mNow.mBootUs - instant.mBootUs, 0) / 1000;
    }

    json Item(const ContextManager::ItemStatus &status) const
    {
        json item = {{"item", NameOf(status.mItem)},     {"number", static_cast<int>(status.mItem)},
                     {"source", NameOf(status.mSource)}, {"problem", nullptr},
                     {"subscription", nullptr},          {"last_reading", nullptr},
                     {"delivered", status.mDelivered},   {"kept_by", json::array()}};
        if (!status.mProblem.empty()) {
            item["problem"] = status.mProblem;
        }
        if (status.mRequestId) {
            item["subscription"] = Since(status.mSubscribed);
            item["subscription"]["request_id"] = *status.mRequestId;
        }
        for (const ContextManager::Keeper &keeper : status.mKeepers) {
            item["kept_by"].push_back(Since(keeper.mSince));
            item["kept_by"].back()["pid"] = keeper.mPid;
        }
        if (status.mLastReading) {
            item["last_reading"] = {{"time", IsoTime(status.mLastRead.mWallMs)},
                                    {"age_ms", AgeMs(status.mLastRead)},
                                    {"values", ValuesOf(*status.mLastReading)}};
        }
        return item;
    }

    const ControlledParts &mParts;
    Instant mNow;
    /** On the time scale of the main loop, on which locks end. */
    std::int64_t mLoopNowUs;
};

/** Adds the preferences that fit; null stands for a store that cannot be read. */
void AddPreferences(json &status, PreferenceStore &store, std::size_t room)
{
    constexpr std::size_t kPunctuation = 16;
    std::map<std::string, PreferenceValue> all;
    if (store.GetAll(all) != 0) {
        status["preferences"] = nullptr;
        return;
    }
    json preferences = json::object();
    std::size_t leftOut = 0;
    for (const auto &[key, value] : all) {
        json shown;
        std::visit([&shown](const auto &content) { shown = content; }, value);
        const std::size_t size = TextOf(json(key)).size() + TextOf(shown).size() + kPunctuation;
        if (size > room) {
            ++leftOut;
            continue;
        }
        room -= size;
        preferences[key] = std::move(shown);
    }
    status["preferences"] = std::move(preferences);
    if (leftOut > 0) {
        status["preferences_left_out"] = leftOut;
    }
}

} // namespace

std::string StatusMessage(const ControlledParts &parts, const Instant &start, std::size_t maxBytes)
{
    constexpr std::size_t kReserve = 128; // for what stands around the preferences
    const Reporter reporter(parts);
    json status = reporter.Parts();
    status["time"] = reporter.Now();
    status["service"] = reporter.Service(start);
    status["directories"] = {{"state", parts.mSettings.mStateDirectory},
                             {"runtime", parts.mSettings.mRuntimeDirectory}};
    const std::size_t used = TextOf(status).size() + kReserve;
    AddPreferences(status, parts.mPreferences, maxBytes > used ? maxBytes - used : 0);
    return TextOf({{"version", kControlVersion}, {"ok", true}, {"status", std::move(status)}});
}

std::string ConfigMessage(const Settings &settings)
{
    json values = json::array();
    for (const ConfigKey &key : ConfigSchema()) {
        const auto origin = settings.mOrigins.find({key.mSection, key.mName});
        const bool isDefault = origin == settings.mOrigins.end();
        json value;
        std::visit([&value](const auto &setting) { value = setting; }, key.mShow(settings));
        if (TextOf(value).size() > kLongBytes) {
            value = nullptr;
        }
        values.push_back({{"section", key.mSection},
                          {"key", key.mName},
                          {"value", std::move(value)},
                          {"from", isDefault ? "default" : origin->second}});
    }
    const std::string directory = settings.mRuntimeDirectory + '/';
    return TextOf({{"version", kControlVersion},
                   {"ok", true},
                   {"config",
                    {{"service", {{"version", PARVANE_PLATFORM_VERSION}}},
                     {"file", {{"path", settings.mFile}, {"read", settings.mHasFile}}},
                     {"link_socket", directory + LinkTransport::kSocketName},
                     {"control_socket", directory + ControlServer::kSocketName},
                     {"values", std::move(values)}}}});
}

json ReplayReport(const ControlledParts &parts)
{
    const ReplaySource *source = parts.mContext.Replay();
    if (source == nullptr) {
        return nullptr;
    }
    json files =
        parts.mOpened.empty() ? json(parts.mSettings.mReplay.mFiles) : json::array({parts.mOpened});
    if (TextOf(files).size() > kLongBytes) {
        files = nullptr;
    }
    return {{"files", std::move(files)},           {"length_ms", source->LengthMs()},
            {"position_ms", source->PositionMs()}, {"speed", source->Options().mSpeed},
            {"paused", source->IsPaused()},        {"loop", source->Options().mLoop},
            {"changes", parts.mReplayChanges}};
}

std::string ReadingMessage(const Clock &clock, ContextItem item, const SensorReading &reading)
{
    return TextOf({{"event", "reading"},
                   {"time", IsoTime(clock.WallMs())},
                   {"item", NameOf(item)},
                   {"values", ValuesOf(reading)}});
}

std::string PacketMessage(const Clock &clock, const LinkSession::Packet &packet)
{
    constexpr std::size_t kMostBytes = 16384; // of what no phone and no watch sends
    constexpr char kDigits[] = "0123456789abcdef";
    std::string bytes;
    for (const unsigned char byte :
         packet.mBytes.first(std::min(packet.mBytes.size(), kMostBytes))) {
        bytes += kDigits[byte >> 4U];
        bytes += kDigits[byte & 0xFU];
    }
    return TextOf({{"event", "packet"},
                   {"time_us", clock.WallUs()},
                   {"link", packet.mConnectionId},
                   {"from", packet.mIsFromHost ? "phone" : "watch"},
                   {"size", packet.mBytes.size()},
                   {"bytes", bytes}});
}

std::vector<std::string> ChangeMessages(const ControlledParts &parts, std::size_t maxBytes,
                                        std::map<std::string, std::string> &last)
{
    constexpr std::size_t kReserve = 128; // for what stands around the preferences
    const Reporter reporter(parts);
    std::vector<std::string> messages;
    const auto tell = [&](const char *event, const std::string &name, const json &part) {
        std::string text = TextOf(WithoutAges(part));
        if (text == last[name]) {
            return;
        }
        last[name] = std::move(text);
        json message = {{"event", event}, {"time", reporter.Now()}, {event, part}};
        if (name == "preferences") {
            AddPreferences(message, parts.mPreferences, maxBytes - kReserve);
        }
        messages.push_back(TextOf(message));
    };
    const json now = reporter.Parts();
    for (const json &item : now.at("items")) {
        tell("item", item.at("item"), item);
    }
    for (const char *event : {"host", "link", "power_locks", "replay"}) {
        tell(event, event, now.at(event));
    }
    tell("preferences", "preferences", parts.mPreferences.Revision());
    return messages;
}

} // namespace ParvanePlatform
