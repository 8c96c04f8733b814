#pragma once

#include <functional>

#include <gio/gio.h>

#include "ObjectPtr.h"
#include "RetryTimer.h"

namespace ParvanePlatform {

/**
 * Keeps something on the bus up, over the loss of the connection: tells of the connection, of its
 * end, and of the next one, for which it asks after a pause. Main-loop thread only.
 */
class BusWatch
{
public:
    /** Gives a connection that is not closed; null when there is none now. */
    using Connect = std::function<Parvane::ObjectPtr<GDBusConnection>()>;
    using Up = std::function<void(GDBusConnection *connection)>;
    using Down = std::function<void()>;

    /**
     * @param retry  the pauses, borrowed; nobody else's while there is no connection
     * @param up    called with each new connection, which is borrowed until `down` is called
     * @param down  called when the connection has been lost
     */
    BusWatch(RetryTimer &retry, Connect connect, Up up, Down down);
    ~BusWatch() { Stop(); }

    BusWatch(const BusWatch &) = delete;
    BusWatch &operator=(const BusWatch &) = delete;

    /** Tries to connect, once at once. Calls `up` in the call when that works. */
    void Start();

    /** Lets the connection go, or asks for none any more; `down` is not called. */
    void Stop();

    /** The connection; null while there is none. */
    GDBusConnection *Connection() const { return mConnection.get(); }

private:
    static void OnClosed(GDBusConnection *connection, gboolean byPeer, GError *error,
                         gpointer user_data) noexcept;
    void Disconnect();

    RetryTimer &mRetry;
    Connect mConnect;
    Up mUp;
    Down mDown;
    Parvane::ObjectPtr<GDBusConnection> mConnection;
    gulong mClosed = 0;
};

} // namespace ParvanePlatform
