#include "BusScope.h"

#include <exception>
#include <utility>

#include "base/RuntimeLog.h"

namespace ParvanePlatform {

namespace {

/** Longer than BlueZ takes to give a connection up. */
constexpr int kCallTimeoutMs = 60'000;

template <typename Function>
void Guarded(const Function &function) noexcept
{
    try {
        function();
    } catch (const std::exception &failure) {
        LogError("system bus: %s", failure.what());
    } catch (...) {
        LogError("system bus: unknown exception");
    }
}

/** What travels with a callback; `mScopeEnd` is cancelled when the scope has ended. */
template <typename Handler>
struct Registration
{
    Registration(GCancellable *scopeEnd, Handler handler)
        : mScopeEnd(G_CANCELLABLE(g_object_ref(scopeEnd))), mHandler(std::move(handler))
    {}

    bool HasEnded() const { return g_cancellable_is_cancelled(mScopeEnd.get()) != FALSE; }

    GObjectPtr<GCancellable> mScopeEnd;
    Handler mHandler;
};

using PendingCall = Registration<BusScope::ReplyHandler>;
using OwnerWatch = Registration<BusScope::OwnerHandler>;
using EndWatch = Registration<std::function<void()>>;

struct Subscription : Registration<BusScope::SignalHandler>
{
    using Registration::Registration;
    const GVariantType *mType = nullptr;
};

void OnReply(GObject *connection, GAsyncResult *result, gpointer user_data) noexcept
{
    const std::unique_ptr<PendingCall> call(static_cast<PendingCall *>(user_data));
    GError *failure = nullptr;
    const GVariantPtr reply(
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &failure));
    const GErrorPtr error(failure);
    const bool isBusLost = g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_CLOSED) != FALSE;
    if (!call->HasEnded() && !isBusLost) {
        Guarded([&] { call->mHandler(reply.get(), error.get()); });
    }
}

void OnSignal(GDBusConnection * /*connection*/, const gchar * /*sender*/, const gchar *path,
              const gchar * /*interface*/, const gchar * /*signal*/, GVariant *arguments,
              gpointer user_data) noexcept
{
    const auto *subscription = static_cast<Subscription *>(user_data);
    if (!subscription->HasEnded() &&
        g_variant_is_of_type(arguments, subscription->mType) != FALSE) {
        Guarded([&] { subscription->mHandler(path, arguments); });
    }
}

void OnOwnerAppeared(GDBusConnection * /*connection*/, const gchar * /*name*/, const gchar *owner,
                     gpointer user_data) noexcept
{
    const auto *watch = static_cast<OwnerWatch *>(user_data);
    if (!watch->HasEnded()) {
        Guarded([&] { watch->mHandler(owner); });
    }
}

void OnOwnerVanished(GDBusConnection *connection, const gchar * /*name*/,
                     gpointer user_data) noexcept
{
    const auto *watch = static_cast<OwnerWatch *>(user_data);
    // Without a connection it is the bus that is gone.
    if (connection != nullptr && !watch->HasEnded()) {
        Guarded([&] { watch->mHandler(std::string()); });
    }
}

void OnClosed(GDBusConnection * /*connection*/, gboolean /*remotePeerVanished*/, GError * /*error*/,
              gpointer user_data) noexcept
{
    const auto *watch = static_cast<EndWatch *>(user_data);
    if (!watch->HasEnded()) {
        Guarded(watch->mHandler);
    }
}

template <typename T>
void Delete(gpointer registration) noexcept
{
    delete static_cast<T *>(registration);
}

void DeleteEndWatch(gpointer registration, GClosure * /*closure*/) noexcept
{
    delete static_cast<EndWatch *>(registration);
}

} // namespace

BusScope::BusScope(GDBusConnection *connection, std::string peer)
    : mConnection(G_DBUS_CONNECTION(g_object_ref(connection))),
      mPeer(std::move(peer)),
      mCancellable(g_cancellable_new())
{}

BusScope::~BusScope()
{
    g_cancellable_cancel(mCancellable.get());
    for (const guint subscription : mSubscriptions) {
        g_dbus_connection_signal_unsubscribe(mConnection.get(), subscription);
    }
    if (mOwnerWatch != 0) {
        g_bus_unwatch_name(mOwnerWatch);
    }
    if (mEndWatch != 0) {
        g_signal_handler_disconnect(mConnection.get(), mEndWatch);
    }
}

void BusScope::Call(const std::string &path, const char *interface, const char *method,
                    GVariant *arguments, const char *replyType, ReplyHandler handler)
{
    auto call = std::make_unique<PendingCall>(mCancellable.get(), std::move(handler));
    // OnReply takes it back, also when the call is cancelled.
    g_dbus_connection_call(mConnection.get(), mPeer.c_str(), path.c_str(), interface, method,
                           arguments, G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                           kCallTimeoutMs, mCancellable.get(), OnReply, call.release());
}

void BusScope::Send(const std::string &path, const char *interface, const char *method) const
{
    g_dbus_connection_call(mConnection.get(), mPeer.c_str(), path.c_str(), interface, method,
                           nullptr, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, kCallTimeoutMs,
                           nullptr, nullptr, nullptr);
}

void BusScope::Subscribe(const char *interface, const char *signal, const char *firstArgument,
                         const char *type, SignalHandler handler)
{
    auto subscription = std::make_unique<Subscription>(mCancellable.get(), std::move(handler));
    subscription->mType = G_VARIANT_TYPE(type);
    mSubscriptions.push_back(g_dbus_connection_signal_subscribe(
        mConnection.get(), mPeer.c_str(), interface, signal, nullptr, firstArgument,
        G_DBUS_SIGNAL_FLAGS_NONE, OnSignal, subscription.release(), Delete<Subscription>));
}

void BusScope::WatchOwner(OwnerHandler handler)
{
    auto watch = std::make_unique<OwnerWatch>(mCancellable.get(), std::move(handler));
    mOwnerWatch = g_bus_watch_name_on_connection(
        mConnection.get(), mPeer.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE, OnOwnerAppeared,
        OnOwnerVanished, watch.release(), Delete<OwnerWatch>);
}

void BusScope::WatchEnd(std::function<void()> handler)
{
    auto watch = std::make_unique<EndWatch>(mCancellable.get(), std::move(handler));
    mEndWatch = g_signal_connect_data(mConnection.get(), "closed", G_CALLBACK(OnClosed),
                                      watch.release(), DeleteEndWatch, GConnectFlags{});
}

} // namespace ParvanePlatform
