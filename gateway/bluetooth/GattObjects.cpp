#include "GattObjects.h"

#include <array>
#include <map>
#include <stdexcept>
#include <utility>

#include "BluezNames.h"
#include "BusScope.h"

namespace ParvaneGateway {

namespace {

constexpr char kServicePath[] = "/parvane/service";
constexpr char kToWatchPath[] = "/parvane/service/to_watch";
constexpr char kFromWatchPath[] = "/parvane/service/from_watch";

// That a characteristic has the property WriteAcquired or NotifyAcquired tells BlueZ that it gives descriptors.
constexpr char kInterfaces[] = R"(<node>
  <interface name="org.freedesktop.DBus.ObjectManager">
    <method name="GetManagedObjects"><arg direction="out" type="a{oa{sa{sv}}}"/></method>
  </interface>
  <interface name="org.bluez.GattService1">
    <property name="UUID" type="s" access="read"/>
    <property name="Primary" type="b" access="read"/>
  </interface>
  <interface name="org.bluez.GattCharacteristic1">
    <method name="WriteValue"><arg type="ay"/><arg type="a{sv}"/></method>
    <method name="AcquireWrite"><arg type="a{sv}"/><arg direction="out" type="h"/><arg direction="out" type="q"/></method>
    <property name="UUID" type="s" access="read"/>
    <property name="Service" type="o" access="read"/>
    <property name="Flags" type="as" access="read"/>
    <property name="WriteAcquired" type="b" access="read"/>
  </interface>
  <interface name="org.bluez.LEAdvertisement1">
    <method name="Release"/>
    <property name="Type" type="s" access="read"/>
    <property name="ServiceUUIDs" type="as" access="read"/>
    <property name="LocalName" type="s" access="read"/>
    <property name="Discoverable" type="b" access="read"/>
  </interface>
</node>)";
constexpr char kNotifyingInterface[] = R"(<node>
  <interface name="org.bluez.GattCharacteristic1">
    <method name="AcquireNotify"><arg type="a{sv}"/><arg direction="out" type="h"/><arg direction="out" type="q"/></method>
    <method name="StartNotify"/>
    <method name="StopNotify"/>
    <property name="UUID" type="s" access="read"/>
    <property name="Service" type="o" access="read"/>
    <property name="Flags" type="as" access="read"/>
    <property name="NotifyAcquired" type="b" access="read"/>
  </interface>
</node>)";

struct Object
{
    const char *mPath;
    const char *mInterface;
    const char *mDescription;
    std::vector<const char *> mProperties;
};

const std::array<Object, 5> &Objects()
{
    static const std::array<Object, 5> objects = {{
        {GattObjects::kApplication, Bluez::kObjectManager, kInterfaces, {}},
        {kServicePath, Bluez::kService, kInterfaces, {"UUID", "Primary"}},
        {kToWatchPath,
         Bluez::kCharacteristic,
         kInterfaces,
         {"UUID", "Service", "Flags", "WriteAcquired"}},
        {kFromWatchPath,
         Bluez::kCharacteristic,
         kNotifyingInterface,
         {"UUID", "Service", "Flags", "NotifyAcquired"}},
        {GattObjects::kAdvertisementPath, Bluez::kAdvertisement, kInterfaces, {}},
    }};
    return objects;
}

GVariant *Texts(std::vector<const char *> texts)
{
    return g_variant_new_strv(texts.data(), static_cast<gssize>(texts.size()));
}

} // namespace

GattObjects::GattObjects(GDBusConnection *connection, bool isAuthenticated, GattEvents &events)
    : mConnection(G_DBUS_CONNECTION(g_object_ref(connection))),
      mIsAuthenticated(isAuthenticated),
      mEvents(events)
{
    static constexpr GDBusInterfaceVTable kFunctions = {OnCall, OnGet, nullptr, {}};
    for (const Object &object : Objects()) {
        GDBusNodeInfo *node = g_dbus_node_info_new_for_xml(object.mDescription, nullptr);
        mRegistrations.push_back(g_dbus_connection_register_object(
            connection, object.mPath, g_dbus_node_info_lookup_interface(node, object.mInterface),
            &kFunctions, this, nullptr, nullptr));
        g_dbus_node_info_unref(node);
    }
}

GattObjects::~GattObjects()
{
    for (const guint registration : mRegistrations) {
        g_dbus_connection_unregister_object(mConnection.get(), registration);
    }
}

void GattObjects::Notify(PacketBytes value) const
{
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(
        &changed, "{sv}", "Value",
        g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, value.data(), value.size(), 1));
    g_dbus_connection_emit_signal(
        mConnection.get(), nullptr, kFromWatchPath, Bluez::kProperties, "PropertiesChanged",
        g_variant_new("(sa{sv}as)", Bluez::kCharacteristic, &changed, nullptr), nullptr);
}

void GattObjects::OnCall(GDBusConnection * /*connection*/, const char * /*sender*/,
                         const char * /*path*/, const char *interface, const char *method,
                         GVariant * /*arguments*/, GDBusMethodInvocation *invocation,
                         gpointer user_data) noexcept
{
    auto *self = static_cast<GattObjects *>(user_data);
    Parvane::RunBusHandler([&] { self->Call(interface, method, invocation); });
}

void GattObjects::Call(const std::string &interface, const std::string &method,
                       GDBusMethodInvocation *invocation)
{
    static const std::map<std::string, GattCall::Kind> kinds = {
        {"AcquireWrite", GattCall::Kind::AcquireWrite},
        {"WriteValue", GattCall::Kind::WriteValue},
        {"AcquireNotify", GattCall::Kind::AcquireNotify},
        {"StartNotify", GattCall::Kind::StartNotify},
        {"StopNotify", GattCall::Kind::StopNotify}};
    if (interface == Bluez::kObjectManager) {
        g_dbus_method_invocation_return_value(invocation, ManagedObjects());
    } else if (interface == Bluez::kAdvertisement) {
        g_dbus_method_invocation_return_value(invocation, nullptr);
        mEvents.OnAdvertisementReleased();
    } else {
        mEvents.OnGattCall(GattCall(kinds.at(method), invocation));
    }
}

GVariant *GattObjects::OnGet(GDBusConnection * /*connection*/, const char * /*sender*/,
                             const char *path, const char * /*interface*/, const char *name,
                             GError ** /*error*/, gpointer user_data) noexcept
{
    return static_cast<GattObjects *>(user_data)->Property(path, name);
}

GVariant *GattObjects::Property(const std::string &path, const std::string &name) const
{
    if (path == kAdvertisementPath) {
        return AdvertisementProperty(name);
    }
    const bool isToWatch = path == kToWatchPath;
    if (name == "UUID") {
        return g_variant_new_string(path == kServicePath ? kLinkService
                                    : isToWatch          ? kToWatchCharacteristic
                                                         : kFromWatchCharacteristic);
    }
    if (name == "Service") {
        return g_variant_new_object_path(kServicePath);
    }
    if (name == "Flags") {
        return isToWatch
                   ? Texts({"write", "write-without-response",
                            mIsAuthenticated ? "encrypt-authenticated-write" : "encrypt-write"})
                   : Texts({mIsAuthenticated ? "encrypt-authenticated-notify" : "encrypt-notify"});
    }
    return g_variant_new_boolean(name == "Primary" ? TRUE : FALSE);
}

GVariant *GattObjects::AdvertisementProperty(const std::string &name) const
{
    if (name == "ServiceUUIDs") {
        return Texts({kLinkService});
    }
    return name == "Discoverable"
               ? g_variant_new_boolean(TRUE)
               : g_variant_new_string(name == "Type" ? "peripheral" : mName.c_str());
}

GVariant *GattObjects::ManagedObjects() const
{
    GVariantBuilder objects;
    g_variant_builder_init(&objects, G_VARIANT_TYPE("a{oa{sa{sv}}}"));
    for (const Object &object : Objects()) {
        if (object.mProperties.empty()) {
            continue;
        }
        GVariantBuilder properties;
        g_variant_builder_init(&properties, G_VARIANT_TYPE_VARDICT);
        for (const char *name : object.mProperties) {
            g_variant_builder_add(&properties, "{sv}", name, Property(object.mPath, name));
        }
        GVariantBuilder interfaces;
        g_variant_builder_init(&interfaces, G_VARIANT_TYPE("a{sa{sv}}"));
        g_variant_builder_add(&interfaces, "{sa{sv}}", object.mInterface, &properties);
        g_variant_builder_add(&objects, "{oa{sa{sv}}}", object.mPath, &interfaces);
    }
    return g_variant_new("(a{oa{sa{sv}}})", &objects);
}

} // namespace ParvaneGateway
