#pragma once

#include <memory>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "GattCall.h"
#include "ObjectPtr.h"
#include "Phone.h"

namespace ParvaneGateway {

// The attributes of the accessory link, docs/transports.md.
constexpr char kLinkService[] = "6a1c0001-5b0e-4f0c-9d5a-7f1d2c8e43b7";
constexpr char kToWatchCharacteristic[] = "6a1c0002-5b0e-4f0c-9d5a-7f1d2c8e43b7";
constexpr char kFromWatchCharacteristic[] = "6a1c0003-5b0e-4f0c-9d5a-7f1d2c8e43b7";

/** Hears what BlueZ asks of the characteristics. */
class GattEvents
{
public:
    virtual ~GattEvents() = default;

    virtual void OnGattCall(GattCall call) = 0;

    /** BlueZ has ended the advertisement by itself. */
    virtual void OnAdvertisementReleased() = 0;
};

/**
 * The objects that BlueZ reads and calls: an application with one service and its two characteristics,
 * and an advertisement. They are on the connection for the life of this object; BlueZ has yet to be told.
 */
class GattObjects
{
public:
    static constexpr char kApplication[] = "/parvane";
    static constexpr char kAdvertisementPath[] = "/parvane/advertisement";

    /** @param events  borrowed for the life of the objects */
    GattObjects(GDBusConnection *connection, bool isAuthenticated, GattEvents &events);
    ~GattObjects();

    GattObjects(const GattObjects &) = delete;
    GattObjects &operator=(const GattObjects &) = delete;

    /** The name in the advertisement, from its next registration on. */
    void SetName(const std::string &name) { mName = name; }

    /** Lets BlueZ notify a value of "from the watch", to whoever has asked it for notifications. */
    void Notify(PacketBytes value) const;

private:
    static void OnCall(GDBusConnection *connection, const char *sender, const char *path,
                       const char *interface, const char *method, GVariant *arguments,
                       GDBusMethodInvocation *invocation, gpointer user_data) noexcept;
    static GVariant *OnGet(GDBusConnection *connection, const char *sender, const char *path,
                           const char *interface, const char *name, GError **error,
                           gpointer user_data) noexcept;

    void Call(const std::string &interface, const std::string &method,
              GDBusMethodInvocation *invocation);
    [[nodiscard]] GVariant *Property(const std::string &path, const std::string &name) const;
    [[nodiscard]] GVariant *AdvertisementProperty(const std::string &name) const;
    [[nodiscard]] GVariant *ManagedObjects() const;

    Parvane::ObjectPtr<GDBusConnection> mConnection;
    bool mIsAuthenticated;
    GattEvents &mEvents;
    std::string mName;
    std::vector<guint> mRegistrations;
};

} // namespace ParvaneGateway
