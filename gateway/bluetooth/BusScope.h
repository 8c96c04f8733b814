#pragma once

#include <functional>
#include <string>
#include <vector>

#include "BusTypes.h"

namespace ParvaneGateway {

/** Runs what came from the bus; nothing leaves it: what is thrown is logged. */
void RunBusHandler(const std::function<void()> &handler) noexcept;

/** What a D-Bus error says, without the name that GLib puts before it. */
std::string BusReason(const GError *error);

/** Whether an error came over the bus by this name, such as "org.bluez.Error.Failed". */
bool IsBusError(const GError *error, const char *name);

/**
 * Calls to one peer on the bus and subscriptions to its signals, which end together: once the scope
 * is gone nothing of it is called back, and the bus is told to send no more signals.
 *
 * A handler may end the scope in its call, since what it captures lives until it has returned; an
 * exception that leaves one is logged. Main-loop thread only.
 */
class BusScope
{
public:
    /** Gets the reply, or the error; one of the two is null, both are borrowed. */
    using ReplyHandler = std::function<void(GVariant *reply, const GError *error)>;
    /** Gets the path of the sender's object and the signal's arguments, both borrowed. */
    using SignalHandler = std::function<void(const std::string &path, GVariant *arguments)>;
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
     * @param handler  called once, unless the scope ends before
     */
    void Call(const std::string &path, const char *interface, const char *method,
              GVariant *arguments, const char *replyType, ReplyHandler handler);

    /** Calls a method whose reply nobody waits for; the end of the scope does not take it back. */
    void Send(const std::string &path, const char *interface, const char *method,
              GVariant *arguments) const;

    /**
     * Hears a signal of all the peer's objects. Its arguments are of the type `type`, or it is not told.
     *
     * @param firstArgument  only signals whose first argument is this string; null for all
     */
    void Subscribe(const char *interface, const char *name, const char *type,
                   const char *firstArgument, SignalHandler handler);

    /** Tells who owns the peer's name, soon and then at each change. Once in a scope. */
    void WatchOwner(OwnerHandler handler);

    /** The connection, borrowed for the life of the scope. */
    [[nodiscard]] GDBusConnection *Connection() const { return mConnection.get(); }
    [[nodiscard]] const std::string &Peer() const { return mPeer; }

private:
    Parvane::ObjectPtr<GDBusConnection> mConnection;
    std::string mPeer;
    Parvane::ObjectPtr<GCancellable> mEnd;
    std::vector<guint> mSubscriptions;
    guint mOwnerWatch = 0;
};

} // namespace ParvaneGateway
