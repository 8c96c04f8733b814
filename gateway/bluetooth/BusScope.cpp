#include "BusScope.h"

#include <exception>
#include <memory>
#include <utility>

#include "Log.h"

namespace ParvaneGateway {

namespace {

constexpr int kCallTimeoutMs = 30'000;

/** What travels with a callback; `mEnd` is cancelled when the scope has ended. */
template <typename Handler>
struct Registration
{
    Registration(GCancellable *end, Handler handler)
        : mEnd(G_CANCELLABLE(g_object_ref(end))), mHandler(std::move(handler))
    {}

    [[nodiscard]] bool HasEnded() const { return g_cancellable_is_cancelled(mEnd.get()) != FALSE; }

    Parvane::ObjectPtr<GCancellable> mEnd;
    Handler mHandler;
};

using PendingCall = Registration<BusScope::ReplyHandler>;
using OwnerWatch = Registration<BusScope::OwnerHandler>;

struct Subscription : Registration<BusScope::SignalHandler>
{
    using Registration::Registration;
    const GVariantType *mType = nullptr;
};

void OnReply(GObject *connection, GAsyncResult *result, gpointer user_data) noexcept
{
    const std::unique_ptr<PendingCall> call(static_cast<PendingCall *>(user_data));
    GError *failure = nullptr;
    const VariantPtr reply(
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &failure));
    const Parvane::ErrorPtr error(failure);
    if (!call->HasEnded()) {
        RunBusHandler([&] { call->mHandler(reply.get(), error.get()); });
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
    try {
        handler();
    } catch (const std::exception &failure) {
        LogError(std::string("system bus: ") + failure.what());
    }
}

std::string BusReason(const GError *error)
{
    const Parvane::ErrorPtr copy(g_error_copy(error));
    g_dbus_error_strip_remote_error(copy.get());
    return copy->message;
}

bool IsBusError(const GError *error, const char *name)
{
    char *remote = g_dbus_error_get_remote_error(error);
    const bool isSame = g_strcmp0(remote, name) == 0;
    g_free(remote);
    return isSame;
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
                    GVariant *arguments, const char *replyType, ReplyHandler handler)
{
    auto call = std::make_unique<PendingCall>(mEnd.get(), std::move(handler));
    // OnReply takes it back, also when the call is cancelled.
    g_dbus_connection_call(mConnection.get(), mPeer.c_str(), path.c_str(), interface, method,
                           arguments, G_VARIANT_TYPE(replyType), G_DBUS_CALL_FLAGS_NO_AUTO_START,
                           kCallTimeoutMs, mEnd.get(), OnReply, call.release());
}

void BusScope::Send(const std::string &path, const char *interface, const char *method,
                    GVariant *arguments) const
{
    g_dbus_connection_call(mConnection.get(), mPeer.c_str(), path.c_str(), interface, method,
                           arguments, nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, kCallTimeoutMs,
                           nullptr, nullptr, nullptr);
}

void BusScope::Subscribe(const char *interface, const char *name, const char *type,
                         const char *firstArgument, SignalHandler handler)
{
    auto subscription = std::make_unique<Subscription>(mEnd.get(), std::move(handler));
    subscription->mType = G_VARIANT_TYPE(type);
    mSubscriptions.push_back(g_dbus_connection_signal_subscribe(
        mConnection.get(), mPeer.c_str(), interface, name, nullptr, firstArgument,
        G_DBUS_SIGNAL_FLAGS_NONE, OnSignal, subscription.release(), Delete<Subscription>));
}

void BusScope::WatchOwner(OwnerHandler handler)
{
    auto watch = std::make_unique<OwnerWatch>(mEnd.get(), std::move(handler));
    mOwnerWatch = g_bus_watch_name_on_connection(
        mConnection.get(), mPeer.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE, OnOwnerAppeared,
        OnOwnerVanished, watch.release(), Delete<OwnerWatch>);
}

} // namespace ParvaneGateway
