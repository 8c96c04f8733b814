#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/Clock.h"
#include "context_manager/ContextManager.h"
#include "power/PowerLocks.h"
#include "preference/PreferenceStore.h"
#include "service_app/LifecycleEvents.h"
#include "tal_client/AccessoryLink.h"
#include "vconf/KeyValueStore.h"

namespace ParvanePlatform {

/** What the control socket shows and steers. All borrowed. */
struct ControlledParts
{
    const Clock &mClock;
    PreferenceStore &mPreferences;
    const KeyValueStore &mKeys;
    ContextManager &mContext;
    const PowerLocks &mPower;
    AccessoryLink &mLink;
    LifecycleEvents &mEvents;
    std::string mStateDirectory;
    std::string mRuntimeDirectory;
};

/** When the service was started: in milliseconds since the epoch, and on Clock::BootUs(). */
struct ServiceStart
{
    std::int64_t mWallMs = 0;
    std::int64_t mUs = 0;
};

/** The names of the items on the control socket and in the configuration: "heart_rate" ... */
const char *NameOf(ContextItem item);

/**
 * Makes the reply to "status" (docs/control.md).
 *
 * @param maxBytes  preferences that would make the reply longer are left out and counted
 */
std::string StatusMessage(const ControlledParts &parts, const ServiceStart &start,
                          std::size_t maxBytes);

} // namespace ParvanePlatform
