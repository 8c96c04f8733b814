#include "Subscription.h"

#include <exception>
#include <memory>
#include <utility>

#include "base/RuntimeLog.h"

namespace ParvanePlatform {

void RunBusHandler(const std::function<void()> &handler) noexcept
{
    try {
        handler();
    } catch (const std::exception &failure) {
        LogError("system bus: %s", failure.what());
    } catch (...) {
        LogError("system bus: unknown exception");
    }
}

SignalSubscription::SignalSubscription(GDBusConnection *connection, const Match &match,
                                       Handler handler)
    : mConnection(static_cast<GDBusConnection *>(g_object_ref(connection)))
{
    auto owned = std::make_unique<Handler>(std::move(handler));
    mId = g_dbus_connection_signal_subscribe(
        connection, match.mSender, match.mInterface, match.mMember, match.mPath, match.mArgument,
        G_DBUS_SIGNAL_FLAGS_NONE, OnSignal, owned.release(), OnFree);
}

SignalSubscription::~SignalSubscription()
{
    // GLib calls OnFree when no signal is on its way to the handler any more.
    g_dbus_connection_signal_unsubscribe(mConnection.get(), mId);
}

void SignalSubscription::OnSignal(GDBusConnection * /*connection*/, const char * /*sender*/,
                                  const char * /*path*/, const char * /*interface*/,
                                  const char * /*member*/, GVariant *parameters,
                                  gpointer user_data) noexcept
{
    const auto &handler = *static_cast<Handler *>(user_data);
    RunBusHandler([&handler, parameters] { handler(parameters); });
}

void SignalSubscription::OnFree(gpointer user_data) noexcept
{
    delete static_cast<Handler *>(user_data);
}

NameWatch::NameWatch(GDBusConnection *connection, const char *name, Handler appeared,
                     Handler vanished)
{
    auto handlers = std::make_unique<Handlers>(Handlers{std::move(appeared), std::move(vanished)});
    mId = g_bus_watch_name_on_connection(connection, name, G_BUS_NAME_WATCHER_FLAGS_AUTO_START,
                                         OnAppeared, OnVanished, handlers.release(), OnFree);
}

NameWatch::~NameWatch()
{
    // GLib calls OnFree when neither handler is being called any more.
    g_bus_unwatch_name(mId);
}

void NameWatch::OnAppeared(GDBusConnection * /*connection*/, const char * /*name*/,
                           const char * /*owner*/, gpointer user_data) noexcept
{
    RunBusHandler(static_cast<Handlers *>(user_data)->mAppeared);
}

void NameWatch::OnVanished(GDBusConnection * /*connection*/, const char * /*name*/,
                           gpointer user_data) noexcept
{
    RunBusHandler(static_cast<Handlers *>(user_data)->mVanished);
}

void NameWatch::OnFree(gpointer user_data) noexcept
{
    delete static_cast<Handlers *>(user_data);
}

PendingCall::PendingCall(GDBusConnection *connection, const Method &method, GVariant *parameters,
                         Handler handler)
    : mCancellable(g_cancellable_new())
{
    auto owned = std::make_unique<Handler>(std::move(handler));
    constexpr int kDefaultTimeout = -1;
    g_dbus_connection_call(connection, method.mName, method.mPath, method.mInterface,
                           method.mMember, parameters, nullptr, G_DBUS_CALL_FLAGS_NONE,
                           kDefaultTimeout, mCancellable.get(), OnAnswer, owned.release());
}

PendingCall::~PendingCall()
{
    g_cancellable_cancel(mCancellable.get());
}

void PendingCall::OnAnswer(GObject *connection, GAsyncResult *result, gpointer user_data) noexcept
{
    const std::unique_ptr<Handler> handler(static_cast<Handler *>(user_data));
    GError *error = nullptr;
    const GVariantPtr answer(
        g_dbus_connection_call_finish(G_DBUS_CONNECTION(connection), result, &error));
    const GErrorPtr failure(error);
    // Whoever made the call may be gone: the handler must not be called then.
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED) == FALSE) {
        RunBusHandler([&] { (*handler)(answer.get(), failure.get()); });
    }
}

} // namespace ParvanePlatform
