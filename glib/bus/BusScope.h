#pragma once

#include <functional>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "ObjectPtr.h"

namespace Parvane {

/** Runs what came from the bus; nothing leaves it: what is thrown is logged. */
void RunBusHandler(const std::function<void()> &handler) noexcept;

/** What a D-Bus error says, without the name that GLib puts before it. */
std::string BusReason(const GError *error);

/** Whether an error came over the bus by this name, such as "org.bluez.Error.Failed". */
bool IsBusError(const GError *error, const char *name);

/** Returns when the bus has got all that was sent over the connection before, after a time at the latest. */
void FlushBus(GDBusConnection *connection, int longestWaitMs);

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

    /** Which signals of the peer, by strings that live as long as the process. */
    struct Signals
    {
        const char *mInterface = nullptr;
        const char *mName = nullptr;
        /** Of the arguments; a signal with others is not delivered. */
        const char *mType = nullptr;
        /** Only those whose first argument is this string; null for all. */
        const char *mFirstArgument = nullptr;
        /** Only those of this object; null for all. */
        const char *mPath = nullptr;
    };

    /** Gets the path of the sender's object and the signal's arguments, both borrowed. */
    using SignalHandler = std::function<void(const std::string &path, GVariant *arguments)>;

    /** Gets the unique name of who owns a name now; empty when nobody does. */
    using OwnerHandler = std::function<void(const std::string &owner)>;

    /** Whether a peer that is not there is started, where the bus can do that. */
    enum class AutoStart { No, Yes };

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
     * @param undo  a method without arguments, which is sent when the call succeeds although the
     *              scope has ended: for what the peer refuses to take back before it has answered
     */
    void Call(const std::string &path, const char *interface, const char *method,
              GVariant *arguments, const char *replyType, ReplyHandler handler,
              const char *undo = nullptr);

    /** Calls a method whose reply nobody waits for; the end of the scope does not take it back. */
    void Send(const std::string &path, const char *interface, const char *method,
              GVariant *arguments = nullptr) const;

    void Subscribe(const Signals &signals, SignalHandler handler);

    /** Tells who owns the peer's name, soon and then at each change. Once in a scope. */
    void WatchOwner(AutoStart autoStart, OwnerHandler handler);

    /** The connection, borrowed for the life of the scope. */
    [[nodiscard]] GDBusConnection *Connection() const { return mConnection.get(); }
    [[nodiscard]] const std::string &Peer() const { return mPeer; }

private:
    ObjectPtr<GDBusConnection> mConnection;
    std::string mPeer;
    ObjectPtr<GCancellable> mEnd;
    std::vector<guint> mSubscriptions;
    guint mOwnerWatch = 0;
};

} // namespace Parvane
