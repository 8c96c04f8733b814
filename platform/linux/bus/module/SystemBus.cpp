#include "SystemBus.h"

#include "base/RuntimeLog.h"

namespace ParvanePlatform {

namespace {

GObjectPtr<GDBusConnection> Connect(GErrorPtr &failure)
{
    GError *error = nullptr;
    char *address = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    GDBusConnection *connection = nullptr;
    if (address != nullptr) {
        connection = g_dbus_connection_new_for_address_sync(
            address,
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &error);
        g_free(address);
    }
    failure.reset(error);
    return GObjectPtr<GDBusConnection>(connection);
}

} // namespace

SystemBus::~SystemBus()
{
    if (mConnection) {
        g_dbus_connection_flush_sync(mConnection.get(), nullptr, nullptr);
    }
}

GDBusConnection *SystemBus::Connection()
{
    if (mConnection && g_dbus_connection_is_closed(mConnection.get()) == FALSE) {
        return mConnection.get();
    }
    if (mConnection) {
        LogWarning("system bus: the connection is lost");
        mIsMissing = true;
    }
    GErrorPtr failure;
    mConnection = Connect(failure);
    if (!mConnection && !mIsMissing) {
        LogWarning("system bus: %s", failure ? failure->message : "no connection");
    } else if (mConnection && mIsMissing) {
        LogInfo("system bus: connected again");
    }
    mIsMissing = !mConnection;
    return mConnection.get();
}

} // namespace ParvanePlatform
