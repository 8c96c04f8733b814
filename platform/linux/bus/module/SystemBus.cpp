#include "SystemBus.h"

#include "BusCalls.h"
#include "BusScope.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

SystemBus::~SystemBus()
{
    if (mConnection) {
        Parvane::FlushBus(mConnection.get(), kLongestWaitMs);
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
    Parvane::ErrorPtr failure;
    mConnection = ConnectToSystemBus(failure);
    if (!mConnection && !mIsMissing) {
        LogWarning("system bus: %s", failure ? failure->message : "no connection");
    } else if (mConnection && mIsMissing) {
        LogInfo("system bus: connected again");
    }
    mIsMissing = !mConnection;
    return mConnection.get();
}

Parvane::ObjectPtr<GDBusConnection> SystemBus::Share()
{
    GDBusConnection *connection = Connection();
    return Parvane::ObjectPtr<GDBusConnection>(
        connection != nullptr ? static_cast<GDBusConnection *>(g_object_ref(connection)) : nullptr);
}

} // namespace ParvanePlatform
