#include "StatusReport.h"

#include <algorithm>
#include <array>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <unistd.h>
#include <variant>
#include <vector>

#include "ConfigSchema.h"
#include "ControlMessages.h"
#include "ControlServer.h"
#include "LinkTransport.h"
#include "LogText.h"

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

/** By LinkSession::HostState. */
constexpr std::array kHostStates = {"none", "waiting", "indicated", "open", "ending"};

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
                     {"delivered", status.mDelivered}};
        if (!status.mProblem.empty()) {
            item["problem"] = status.mProblem;
        }
        if (status.mRequestId) {
            item["subscription"] = Since(status.mSubscribed);
            item["subscription"]["request_id"] = *status.mRequestId;
        }
        if (status.mLastReading) {
            json values = json::object();
            for (const SensorValue &value : *status.mLastReading) {
                std::visit([&](auto number) { values[value.mKey] = number; }, value.mValue);
            }
            item["last_reading"] = {{"time", IsoTime(status.mLastRead.mWallMs)},
                                    {"age_ms", AgeMs(status.mLastRead)},
                                    {"values", std::move(values)}};
        }
        return item;
    }

    const ControlledParts &mParts;
    Instant mNow;
    /** On the time scale of the main loop, on which locks end. */
    std::int64_t mLoopNowUs;
};

std::string TextOf(const json &message)
{
    return message.dump(-1, ' ', false, json::error_handler_t::replace);
}

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
    const LinkSession::LinkStatus link = parts.mLink.Status();
    json status = {{"time", reporter.Now()},
                   {"service", reporter.Service(start)},
                   {"directories",
                    {{"state", parts.mSettings.mStateDirectory},
                     {"runtime", parts.mSettings.mRuntimeDirectory}}},
                   {"host", reporter.Host(link)},
                   {"link", reporter.Link(link)},
                   {"items", reporter.Items()},
                   {"power_locks", reporter.PowerLocksHeld()}};
    const std::size_t used = TextOf(status).size() + kReserve;
    AddPreferences(status, parts.mPreferences, maxBytes > used ? maxBytes - used : 0);
    return TextOf({{"version", kControlVersion}, {"ok", true}, {"status", std::move(status)}});
}

std::string ConfigMessage(const Settings &settings)
{
    constexpr std::size_t kLongBytes = 3000; // there are but ten texts, so that a reply holds them
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

} // namespace ParvanePlatform
