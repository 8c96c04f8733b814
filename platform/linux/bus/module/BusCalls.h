#pragma once

#include <gio/gio.h>

#include "ObjectPtr.h"

namespace ParvanePlatform {

/** How long one step, connecting or a call, may keep the main loop waiting. */
constexpr int kLongestWaitMs = 500;

/**
 * Connects to the system bus, and takes a name on it.
 *
 * @param failure  why there is no connection, when there is none; among that a bus that does not
 *                 answer in kLongestWaitMs
 */
Parvane::ObjectPtr<GDBusConnection> ConnectToSystemBus(Parvane::ErrorPtr &failure);

/**
 * Whether a service is on the bus, or the bus can start it; false when the bus does not say so in
 * kLongestWaitMs.
 */
bool IsServiceThere(GDBusConnection *connection, const char *name);

} // namespace ParvanePlatform
