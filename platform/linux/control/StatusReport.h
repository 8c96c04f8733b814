#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

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

} // namespace ParvanePlatform
