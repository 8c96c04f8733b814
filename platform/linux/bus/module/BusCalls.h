#pragma once

#include "GObjectPtr.h"

namespace ParvanePlatform {

/** How long one step, connecting or a call, may keep the main loop waiting. */
constexpr int kLongestWaitMs = 500;

/**
 * Connects to the system bus, and takes a name on it.
 *
 * @param failure  why there is no connection, when there is none; among that a bus that does not
 *                 answer in kLongestWaitMs
 */
GObjectPtr<GDBusConnection> ConnectToSystemBus(GErrorPtr &failure);

/**
 * Returns when the bus has got all that was sent over the connection before, after kLongestWaitMs
 * at the latest.
 */
void Flush(GDBusConnection *connection);

/**
 * Whether a service is on the bus, or the bus can start it; false when the bus does not say so in
 * kLongestWaitMs.
 */
bool IsServiceThere(GDBusConnection *connection, const char *name);

} // namespace ParvanePlatform
