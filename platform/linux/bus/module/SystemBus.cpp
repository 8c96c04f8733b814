#include "SystemBus.h"

#include "BusCalls.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

SystemBus::~SystemBus()
{
    if (mConnection) {
        Flush(mConnection.get());
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
    mConnection = ConnectToSystemBus(failure);
    if (!mConnection && !mIsMissing) {
        LogWarning("system bus: %s", failure ? failure->message : "no connection");
    } else if (mConnection && mIsMissing) {
        LogInfo("system bus: connected again");
    }
    mIsMissing = !mConnection;
    return mConnection.get();
}

GObjectPtr<GDBusConnection> SystemBus::Share()
{
    GDBusConnection *connection = Connection();
    return GObjectPtr<GDBusConnection>(
        connection != nullptr ? static_cast<GDBusConnection *>(g_object_ref(connection)) : nullptr);
}

} // namespace ParvanePlatform
