#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bus/module/GObjectPtr.h"

namespace ParvanePlatform {

/**
 * Calls to one peer on the bus and subscriptions to its signals, which end together: once the scope
 * is gone nothing of it is called back, and the bus is told to send no more signals.
 *
 * Everything is called back on the main loop. A handler may end the scope in its call, since what it
 * captures lives until it has returned; an exception that leaves one is logged and goes no further.
 * Main-loop thread only.
 */
class BusScope
{
public:
    /** Gets the reply, or the error; one of the two is null, both are borrowed. */
    using ReplyHandler = std::function<void(GVariant *reply, const GError *error)>;

    /** Gets the path of the sender's object and the signal's arguments, both borrowed. */
    using SignalHandler = std::function<void(const char *path, GVariant *arguments)>;

    /** Gets the unique name of who owns a name now; empty when nobody does. */
    using OwnerHandler = std::function<void(const std::string &owner)>;

    /** @param peer  the name on the bus that is called and listened to */
    BusScope(GDBusConnection *connection, std::string peer);
    ~BusScope();

    BusScope(const BusScope &) = delete;
    BusScope &operator=(const BusScope &) = delete;

    /**
     * Calls a method; a reply of another type than `replyType` is an error.
     *
     * @param arguments  a tuple, which is taken over when it is floating; null for none
     * @param handler  called once, unless the scope or the connection ends before
     */
    void Call(const std::string &path, const char *interface, const char *method,
              GVariant *arguments, const char *replyType, ReplyHandler handler);

    /** Calls a method whose reply nobody waits for; the end of the scope does not take it back. */
    void Send(const std::string &path, const char *interface, const char *method) const;

    /**
     * Subscribes to a signal of any of the peer's objects.
     *
     * @param firstArgument  only signals whose first argument is this string; null for all
     * @param type  signals with arguments of another type are not delivered
     */
    void Subscribe(const char *interface, const char *signal, const char *firstArgument,
                   const char *type, SignalHandler handler);

    /** Tells who owns the peer's name, at first and at each change; it is not started for that. */
    void WatchOwner(OwnerHandler handler);

    /** Calls `handler` when the connection is lost. */
    void WatchEnd(std::function<void()> handler);

    /** The connection, borrowed for the life of the scope. */
    GDBusConnection *Connection() const { return mConnection.get(); }

private:
    GObjectPtr<GDBusConnection> mConnection;
    std::string mPeer;
    GObjectPtr<GCancellable> mCancellable;
    std::vector<guint> mSubscriptions;
    guint mOwnerWatch = 0;
    gulong mEndWatch = 0;
};

} // namespace ParvanePlatform
