#pragma once

#include <functional>

#include "base/LoopSource.h"
#include "bus/module/GObjectPtr.h"

namespace ParvanePlatform {

/**
 * Keeps something on the bus up, over the loss of the connection: tells of the connection, of its
 * end, and of the next one, for which it asks after 1 second, then 2, 4 ... at most 60. Main-loop
 * thread only.
 */
class BusWatch
{
public:
    /** Gives a connection that is not closed; null when there is none now. */
    using Connect = std::function<GObjectPtr<GDBusConnection>()>;
    using Up = std::function<void(GDBusConnection *connection)>;
    using Down = std::function<void()>;

    /**
     * @param up    called with each new connection, which is borrowed until `down` is called
     * @param down  called when the connection has been lost
     */
    BusWatch(Connect connect, Up up, Down down);
    ~BusWatch();

    BusWatch(const BusWatch &) = delete;
    BusWatch &operator=(const BusWatch &) = delete;

    /** Tries to connect, once at once. Calls `up` in the call when that works. */
    void Start();

    /** The connection; null while there is none. */
    GDBusConnection *Connection() const { return mConnection.get(); }

private:
    static void OnClosed(GDBusConnection *connection, gboolean byPeer, GError *error,
                         gpointer user_data) noexcept;
    void Disconnect();
    void RetryLater();

    Connect mConnect;
    Up mUp;
    Down mDown;
    GObjectPtr<GDBusConnection> mConnection;
    gulong mClosed = 0;
    LoopSource mRetry;
    int mRetrySeconds = 0;
};

} // namespace ParvanePlatform
