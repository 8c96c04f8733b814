#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "Clock.h"
#include "ContextManager.h"
#include "KeyValueStore.h"
#include "LifecycleEvents.h"
#include "LinkSession.h"
#include "PowerLocks.h"
#include "PreferenceStore.h"
#include "Settings.h"

namespace ParvanePlatform {

/** What the control socket shows and steers. All borrowed. */
struct ControlledParts
{
    const Clock &mClock;
    PreferenceStore &mPreferences;
    const KeyValueStore &mKeys;
    ContextManager &mContext;
    const PowerLocks &mPower;
    LinkSession &mLink;
    LifecycleEvents &mEvents;
    const Settings &mSettings;
    /** The process that has taken the link down or up last; 0 for none. */
    int mLinkSetBy = 0;
    /** The recording that a request has opened; empty while those of the settings play. */
    std::string mOpened = {};
    /** How many requests have changed how recordings are played. */
    int mReplayChanges = 0;
};

/**
 * Makes the reply to "status" (docs/control.md).
 *
 * @param start     when the service was started
 * @param maxBytes  preferences that would make the reply longer are left out and counted
 */
std::string StatusMessage(const ControlledParts &parts, const Instant &start, std::size_t maxBytes);

/** Makes the reply to "config" (docs/control.md). */
std::string ConfigMessage(const Settings &settings);

/** How recordings are played; null when no item has the source replay. */
nlohmann::json ReplayReport(const ControlledParts &parts);

/** Makes the event of a reading that comes now. */
std::string ReadingMessage(const Clock &clock, ContextItem item, const SensorReading &reading);

/** Makes the event of a packet that crosses the link now; bytes beyond 16,384 are left out of it. */
std::string PacketMessage(const Clock &clock, const LinkSession::Packet &packet);

/**
 * Makes the events of what has changed in a status, by comparing it: nobody has to tell.
 *
 * @param last  what was so at the last call, by names of its own; brought up to date
 */
std::vector<std::string> ChangeMessages(const ControlledParts &parts, std::size_t maxBytes,
                                        std::map<std::string, std::string> &last);

} // namespace ParvanePlatform
