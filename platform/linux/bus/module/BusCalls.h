#pragma once

#include "bus/module/GObjectPtr.h"

namespace ParvanePlatform {

/** How long a call may keep the main loop waiting. */
constexpr int kLongestWaitMs = 500;

/**
 * Whether a service is on the bus, or the bus can start it; false when the bus does not say so in
 * kLongestWaitMs.
 */
bool IsServiceThere(GDBusConnection *connection, const char *name);

} // namespace ParvanePlatform
