#pragma once

#include <gio/gio.h>

#include "ObjectPtr.h"

namespace ParvanePlatform {

/**
 * The connection to the system bus that the parts of this module share.
 *
 * It is made when it is first asked for, and again when it has been lost; the end of the bus does
 * not end the process. Main-loop thread only.
 */
class SystemBus
{
public:
    SystemBus() = default;

    /** Lets the bus have what was sent last; waits for half a second at most. */
    ~SystemBus();

    SystemBus(const SystemBus &) = delete;
    SystemBus &operator=(const SystemBus &) = delete;

    /**
     * The connection, borrowed until the next call; null when there is no bus, which is logged once
     * per change of state. May block for half a second when it has to be made.
     */
    GDBusConnection *Connection();

    /** The same connection, with a reference of the caller's own. */
    Parvane::ObjectPtr<GDBusConnection> Share();

private:
    Parvane::ObjectPtr<GDBusConnection> mConnection;
    bool mIsMissing = false;
};

} // namespace ParvanePlatform
