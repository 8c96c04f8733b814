#include "BusScope.h"

#include <memory>
#include <optional>
#include <utility>

#include "RunHandler.h"

namespace Parvane {

namespace {

/** Longer than BlueZ takes to give a connection up. */
constexpr int kCallTimeoutMs = 60'000;

/** What travels with a callback; `mEnd` is cancelled when the scope has ended. */
template <typename Handler>
struct Registration
{
    Registration(GCancellable *end, Handler handler)
        : mEnd(G_CANCELLABLE(g_object_ref(end))), mHandler(std::move(handler))
    {}

    bool HasEnded() const { return g_cancellable_is_cancelled(mEnd.get()) != FALSE; }

    ObjectPtr<GCancellable> mEnd;
    Handler mHandler;
};

using OwnerWatch = Registration<BusScope::OwnerHandler>;

/** A method of an object, which is sent without waiting for the reply. */
struct Message
{
    void Send(GDBusConnection *connection, GVariant *arguments = nullptr) const
    {
        g_dbus_connection_call(connection, mPeer.c_str(), mPath.c_str(), mInterface, mMethod,
                               arguments, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, kCallTimeoutMs,
                               nullptr, nullptr, nullptr);
    }

    std::string mPeer;
    std::string mPath;
    const char *mInterface;
    const char *mMethod;
};

struct PendingCall : Registration<BusScope::ReplyHandler>
{
    using Registration::Registration;
    std::optional<Message> mUndo;
};

struct Subscription : Registration<BusScope::SignalHandler>
{
    using Registration::Registration;
    const GVariantType *mType = nullptr;
};

void OnReply(GObject *connection, GAsyncResult *result, gpointer user_data) noexcept
{
    const std::unique_ptr<PendingCall> call(static_cast<PendingCall *>(user_data));
    GDBusConnection *bus = G_DBUS_CONNECTION(connection);
    GError *failure = nullptr;
    const VariantPtr reply(g_dbus_connection_call_finish(bus, result, &failure));
    const ErrorPtr error(failure);
    const bool isBusLost = g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CLOSED) != FALSE;
    if (!call->HasEnded() && !isBusLost) {
        RunBusHandler([&] { call->mHandler(reply.get(), error.get()); });
    } else if (call->HasEnded() && reply && call->mUndo) {
        call->mUndo->Send(bus);
    }
}

void OnSignal(GDBusConnection * /*connection*/, const gchar * /*sender*/, const gchar *path,
              const gchar * /*interface*/, const gchar * /*signal*/, GVariant *arguments,
              gpointer user_data) noexcept
{
    const auto *subscription = static_cast<Subscription *>(user_data);
    if (!subscription->HasEnded() &&
        g_variant_is_of_type(arguments, subscription->mType) != FALSE) {
        RunBusHandler([&] { subscription->mHandler(path, arguments); });
    }
}

void OnOwnerAppeared(GDBusConnection * /*connection*/, const gchar * /*name*/, const gchar *owner,
                     gpointer user_data) noexcept
{
    const auto *watch = static_cast<OwnerWatch *>(user_data);
    if (!watch->HasEnded()) {
        RunBusHandler([&] { watch->mHandler(owner); });
    }
}

void OnOwnerVanished(GDBusConnection *connection, const gchar * /*name*/,
                     gpointer user_data) noexcept
{
    const auto *watch = static_cast<OwnerWatch *>(user_data);
    // Without a connection it is the bus that is gone.
    if (connection != nullptr && !watch->HasEnded()) {
        RunBusHandler([&] { watch->mHandler(std::string()); });
    }
}

template <typename T>
void Delete(gpointer registration) noexcept
{
    delete static_cast<T *>(registration);
}

} // namespace

void RunBusHandler(const std::function<void()> &handler) noexcept
{
    RunHandler("system bus", handler);
}

std::string BusReason(const GError *error)
{
    const ErrorPtr copy(g_error_copy(error));
    g_dbus_error_strip_remote_error(copy.get());
    return copy->message;
}

bool IsBusError(const GError *error, const char *name)
{
    const GlibText remote(g_dbus_error_get_remote_error(error));
    return g_strcmp0(remote.get(), name) == 0;
}

void FlushBus(GDBusConnection *connection, int longestWaitMs)
{
    // GIO's own flush has no limit. The bus answers a call only when it has got all that came before.
    const VariantPtr answer(g_dbus_connection_call_sync(
        connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetId", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, longestWaitMs, nullptr, nullptr));
}

BusScope::BusScope(GDBusConnection *connection, std::string peer)
    : mConnection(G_DBUS_CONNECTION(g_object_ref(connection))),
      mPeer(std::move(peer)),
      mEnd(g_cancellable_new())
{}

BusScope::~BusScope()
{
    g_cancellable_cancel(mEnd.get());
    for (const guint subscription : mSubscriptions) {
        g_dbus_connection_signal_unsubscribe(mConnection.get(), subscription);
    }
    if (mOwnerWatch != 0) {
        g_bus_unwatch_name(mOwnerWatch);
    }
}

void BusScope::Call(const std::string &path, const char *interface, const char *method,
                    GVariant *arguments, const char *replyType, ReplyHandler handler,
                    const char *undo)
{
    auto call = std::make_unique<PendingCall>(mEnd.get(), std::move(handler));
    // A call that may have to be undone is waited for to its end.
    GCancellable *cancellable = undo == nullptr ? mEnd.get() : nullptr;
    if (undo != nullptr) {
        call->mUndo = Message{mPeer, path, interface, undo};
    }
    // OnReply takes it back, also when the call is cancelled.
    g_dbus_connection_call(mConnection.get(), mPeer.c_str(), path.c_str(), interface, method,
                           arguments, G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                           kCallTimeoutMs, cancellable, OnReply, call.release());
}

void BusScope::Send(const std::string &path, const char *interface, const char *method,
                    GVariant *arguments) const
{
    Message{mPeer, path, interface, method}.Send(mConnection.get(), arguments);
}

void BusScope::Subscribe(const Signals &signals, SignalHandler handler)
{
    auto subscription = std::make_unique<Subscription>(mEnd.get(), std::move(handler));
    subscription->mType = G_VARIANT_TYPE(signals.mType);
    mSubscriptions.push_back(g_dbus_connection_signal_subscribe(
        mConnection.get(), mPeer.c_str(), signals.mInterface, signals.mName, signals.mPath,
        signals.mFirstArgument, G_DBUS_SIGNAL_FLAGS_NONE, OnSignal, subscription.release(),
        Delete<Subscription>));
}

void BusScope::WatchOwner(AutoStart autoStart, OwnerHandler handler)
{
    auto watch = std::make_unique<OwnerWatch>(mEnd.get(), std::move(handler));
    mOwnerWatch = g_bus_watch_name_on_connection(
        mConnection.get(), mPeer.c_str(),
        autoStart == AutoStart::Yes ? G_BUS_NAME_WATCHER_FLAGS_AUTO_START
                                    : G_BUS_NAME_WATCHER_FLAGS_NONE,
        OnOwnerAppeared, OnOwnerVanished, watch.release(), Delete<OwnerWatch>);
}

} // namespace Parvane
