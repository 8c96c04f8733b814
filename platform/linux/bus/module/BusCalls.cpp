#include "BusCalls.h"

#include <utility>

#include "Variants.h"

namespace ParvanePlatform {

namespace {

constexpr char kBus[] = "org.freedesktop.DBus";
constexpr char kBusPath[] = "/org/freedesktop/DBus";

/**
 * Waits for an asynchronous operation of GIO on a context of its own, so that nothing else is called
 * back meanwhile; cancels it after kLongestWaitMs. The operation begins and ends within its life.
 */
class BriefOperation
{
public:
    BriefOperation() : mContext(g_main_context_new()), mCancellable(g_cancellable_new())
    {
        g_main_context_push_thread_default(mContext);
    }

    ~BriefOperation()
    {
        g_main_context_pop_thread_default(mContext);
        g_main_context_unref(mContext);
    }

    BriefOperation(const BriefOperation &) = delete;
    BriefOperation &operator=(const BriefOperation &) = delete;

    GCancellable *Cancellable() const { return mCancellable.get(); }

    /** The operation's callback; its data is the object. */
    static void OnDone(GObject * /*source*/, GAsyncResult *result, gpointer user_data) noexcept
    {
        auto *self = static_cast<BriefOperation *>(user_data);
        self->mResult.reset(static_cast<GAsyncResult *>(g_object_ref(result)));
    }

    /** The result, which the object owns. */
    GAsyncResult *Wait()
    {
        GSource *limit = g_timeout_source_new(kLongestWaitMs);
        g_source_set_callback(limit, OnLimit, mCancellable.get(), nullptr);
        g_source_attach(limit, mContext);
        while (!mResult) {
            g_main_context_iteration(mContext, TRUE);
        }
        g_source_destroy(limit);
        g_source_unref(limit);
        return mResult.get();
    }

private:
    static gboolean OnLimit(gpointer cancellable) noexcept
    {
        g_cancellable_cancel(static_cast<GCancellable *>(cancellable));
        return G_SOURCE_REMOVE;
    }

    GMainContext *mContext;
    Parvane::ObjectPtr<GCancellable> mCancellable;
    Parvane::ObjectPtr<GAsyncResult> mResult;
};

/** The names that a method without arguments of the bus itself returns. */
bool IsListed(GDBusConnection *connection, const char *method, const char *name)
{
    const Parvane::VariantPtr answer(g_dbus_connection_call_sync(
        connection, kBus, kBusPath, kBus, method, nullptr, G_VARIANT_TYPE("(as)"),
        G_DBUS_CALL_FLAGS_NONE, kLongestWaitMs, nullptr, nullptr));
    if (!answer) {
        return false;
    }
    bool isListed = false;
    Parvane::ForEachText(Parvane::Child(answer.get(), 0).get(),
                         [&](const std::string &listed) { isListed |= listed == name; });
    return isListed;
}

} // namespace

Parvane::ObjectPtr<GDBusConnection> ConnectToSystemBus(Parvane::ErrorPtr &failure)
{
    GError *error = nullptr;
    char *address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    failure.reset(error);
    if (address == nullptr) {
        return nullptr;
    }
    // Made before the operation: what it tells later is told on the context of its making.
    Parvane::ObjectPtr<GDBusConnection> connection(static_cast<GDBusConnection *>(
        g_object_new(G_TYPE_DBUS_CONNECTION, "address", address, "flags",
                     static_cast<int>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                      G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                     nullptr)));
    g_free(address);
    BriefOperation operation;
    g_async_initable_init_async(G_ASYNC_INITABLE(connection.get()), G_PRIORITY_DEFAULT,
                                operation.Cancellable(), BriefOperation::OnDone, &operation);
    const gboolean isConnected =
        g_async_initable_init_finish(G_ASYNC_INITABLE(connection.get()), operation.Wait(), &error);
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED) != FALSE) {
        g_clear_error(&error);
        g_set_error_literal(&error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "it does not answer");
    }
    failure.reset(error);
    return isConnected != FALSE ? std::move(connection) : nullptr;
}

bool IsServiceThere(GDBusConnection *connection, const char *name)
{
    return IsListed(connection, "ListNames", name) ||
           IsListed(connection, "ListActivatableNames", name);
}

} // namespace ParvanePlatform
