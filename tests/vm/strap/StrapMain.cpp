/**
 * A heart-rate strap for the virtual watch: a GATT server and an advertisement on one of BlueZ's adapters.
 *
 * Usage: parvane-vm-strap ADAPTER NAME FILE FLAG
 *
 * FLAG is how the measurement can be had: notify, or encrypt-notify. Whoever wants to pair may: the strap is
 * BlueZ's agent as well, one without buttons and screen. Notifies each second what FILE says then: a number of
 * beats, or "off" for a lost contact; with "gone" it is not advertised any more. Registers itself anew with each
 * BlueZ and adapter that appears, and tells standard output what happens.
 */
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <utility>

#include <gio/gio.h>

namespace {

constexpr char kBluez[] = "org.bluez";
constexpr char kService[] = "org.bluez.GattService1";
constexpr char kCharacteristic[] = "org.bluez.GattCharacteristic1";
constexpr char kAdvertisement[] = "org.bluez.LEAdvertisement1";
constexpr char kAdvertiser[] = "org.bluez.LEAdvertisingManager1";
constexpr char kAgent[] = "org.bluez.Agent1";
constexpr char kBluezPath[] = "/org/bluez";
constexpr char kRoot[] = "/strap";
constexpr char kAgentPath[] = "/strap/agent";
constexpr char kServicePath[] = "/strap/service";
constexpr char kMeasurementPath[] = "/strap/service/measurement";
constexpr char kAdvertisementPath[] = "/strap/advertisement";
constexpr char kHeartRateService[] = "0000180d-0000-1000-8000-00805f9b34fb";
constexpr char kHeartRateMeasurement[] = "00002a37-0000-1000-8000-00805f9b34fb";

constexpr std::uint8_t kContactIsTold = 0x04;
constexpr std::uint8_t kHasContact = 0x02;

constexpr char kInterfaces[] = R"(<node>
  <interface name="org.freedesktop.DBus.ObjectManager">
    <method name="GetManagedObjects"><arg direction="out" type="a{oa{sa{sv}}}"/></method>
  </interface>
  <interface name="org.bluez.GattService1">
    <property name="UUID" type="s" access="read"/>
    <property name="Primary" type="b" access="read"/>
  </interface>
  <interface name="org.bluez.GattCharacteristic1">
    <method name="StartNotify"/>
    <method name="StopNotify"/>
    <property name="UUID" type="s" access="read"/>
    <property name="Service" type="o" access="read"/>
    <property name="Flags" type="as" access="read"/>
  </interface>
  <interface name="org.bluez.LEAdvertisement1">
    <method name="Release"/>
    <property name="Type" type="s" access="read"/>
    <property name="ServiceUUIDs" type="as" access="read"/>
    <property name="LocalName" type="s" access="read"/>
  </interface>
  <interface name="org.bluez.Agent1">
    <method name="Release"/>
    <method name="Cancel"/>
    <method name="RequestAuthorization"><arg direction="in" type="o"/></method>
    <method name="RequestConfirmation">
      <arg direction="in" type="o"/><arg direction="in" type="u"/>
    </method>
    <method name="AuthorizeService">
      <arg direction="in" type="o"/><arg direction="in" type="s"/>
    </method>
  </interface>
</node>)";

struct Strap
{
    std::string mAdapter;
    std::string mName;
    std::string mFile;
    std::string mFlag;
    GDBusConnection *mBus = nullptr; // not owned
    bool mIsNotifying = false;
    bool mIsGone = false;
};

void Say(const std::string &text)
{
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

GVariant *Texts(const char *text)
{
    return g_variant_new_strv(&text, 1);
}

/** The value of a property of the three interfaces that have some; floating. */
GVariant *Property(const Strap &strap, const std::string &interface, const std::string &name)
{
    if (interface == kService) {
        return name == "UUID" ? g_variant_new_string(kHeartRateService)
                              : g_variant_new_boolean(TRUE);
    }
    if (interface == kAdvertisement) {
        if (name == "ServiceUUIDs") {
            return Texts(kHeartRateService);
        }
        return g_variant_new_string(name == "Type" ? "peripheral" : strap.mName.c_str());
    }
    if (name == "UUID") {
        return g_variant_new_string(kHeartRateMeasurement);
    }
    return name == "Service" ? g_variant_new_object_path(kServicePath) : Texts(strap.mFlag.c_str());
}

GVariant *GetProperty(GDBusConnection * /*bus*/, const char * /*sender*/, const char * /*path*/,
                      const char *interface, const char *name, GError ** /*error*/, void *strap)
{
    return Property(*static_cast<Strap *>(strap), interface, name);
}

void AddObject(GVariantBuilder &objects, const Strap &strap, const char *path,
               const char *interface, std::initializer_list<const char *> names)
{
    g_variant_builder_open(&objects, G_VARIANT_TYPE("{oa{sa{sv}}}"));
    g_variant_builder_add(&objects, "o", path);
    g_variant_builder_open(&objects, G_VARIANT_TYPE("a{sa{sv}}"));
    g_variant_builder_open(&objects, G_VARIANT_TYPE("{sa{sv}}"));
    g_variant_builder_add(&objects, "s", interface);
    g_variant_builder_open(&objects, G_VARIANT_TYPE("a{sv}"));
    for (const char *name : names) {
        g_variant_builder_add(&objects, "{sv}", name, Property(strap, interface, name));
    }
    for (int level = 0; level < 4; ++level) {
        g_variant_builder_close(&objects);
    }
}

void OnCall(GDBusConnection * /*bus*/, const char * /*sender*/, const char * /*path*/,
            const char * /*interface*/, const char *method, GVariant * /*arguments*/,
            GDBusMethodInvocation *call, void *data)
{
    Strap &strap = *static_cast<Strap *>(data);
    const std::string name = method;
    if (name == "GetManagedObjects") {
        GVariantBuilder objects;
        g_variant_builder_init(&objects, G_VARIANT_TYPE("a{oa{sa{sv}}}"));
        AddObject(objects, strap, kServicePath, kService, {"UUID", "Primary"});
        AddObject(objects, strap, kMeasurementPath, kCharacteristic, {"UUID", "Service", "Flags"});
        g_dbus_method_invocation_return_value(call, g_variant_new("(a{oa{sa{sv}}})", &objects));
        return;
    }
    if (name.ends_with("Notify")) {
        strap.mIsNotifying = name == "StartNotify";
    }
    Say(name);
    g_dbus_method_invocation_return_value(call, nullptr);
}

constexpr GDBusInterfaceVTable kFunctions = {OnCall, GetProperty, nullptr, {}};

/** Says how a call has ended that is told to standard output by its method's name. */
void OnReply(GObject *bus, GAsyncResult *result, void *method)
{
    GError *error = nullptr;
    GVariant *reply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, &error);
    if (reply != nullptr) {
        g_variant_unref(reply);
        Say(std::string(static_cast<const char *>(method)) + " done");
    } else {
        Say(std::string(static_cast<const char *>(method)) + ": " + error->message);
        g_error_free(error);
    }
}

/** Calls a method of `interface`, at one of BlueZ's paths; takes floating arguments. */
void Ask(const Strap &strap, const char *path, const char *interface, const char *method,
         GVariant *arguments)
{
    g_dbus_connection_call(strap.mBus, kBluez, path, interface, method, arguments, nullptr,
                           G_DBUS_CALL_FLAGS_NO_AUTO_START, -1, nullptr, OnReply,
                           const_cast<char *>(method));
}

std::string AdapterPath(const Strap &strap)
{
    return "/org/bluez/" + strap.mAdapter;
}

void Register(const Strap &strap, const char *manager, const char *method, const char *path)
{
    Ask(strap, AdapterPath(strap).c_str(), manager, method,
        g_variant_new("(oa{sv})", path, nullptr));
}

/** Lets those be found that are there. */
void Advertise(const Strap &strap)
{
    if (strap.mIsGone) {
        Ask(strap, AdapterPath(strap).c_str(), kAdvertiser, "UnregisterAdvertisement",
            g_variant_new("(o)", kAdvertisementPath));
    } else {
        Register(strap, kAdvertiser, "RegisterAdvertisement", kAdvertisementPath);
    }
}

void RegisterAll(Strap &strap)
{
    strap.mIsNotifying = false;
    Register(strap, "org.bluez.GattManager1", "RegisterApplication", kRoot);
    Advertise(strap);
}

/** An adapter that appears is a new one to register with. */
void OnAdapterAdded(GDBusConnection * /*bus*/, const char * /*sender*/, const char * /*path*/,
                    const char * /*interface*/, const char * /*signal*/, GVariant *arguments,
                    void *data)
{
    Strap &strap = *static_cast<Strap *>(data);
    const char *path = nullptr;
    g_variant_get_child(arguments, 0, "&o", &path);
    if (path == AdapterPath(strap)) {
        RegisterAll(strap);
    }
}

void OnBluez(GDBusConnection * /*bus*/, const char * /*name*/, const char * /*owner*/, void *data)
{
    Strap &strap = *static_cast<Strap *>(data);
    constexpr char kAgents[] = "org.bluez.AgentManager1";
    Ask(strap, kBluezPath, kAgents, "RegisterAgent",
        g_variant_new("(os)", kAgentPath, "NoInputNoOutput"));
    Ask(strap, kBluezPath, kAgents, "RequestDefaultAgent", g_variant_new("(o)", kAgentPath));
    RegisterAll(strap);
}

gboolean Beat(void *data)
{
    Strap &strap = *static_cast<Strap *>(data);
    std::string rate;
    std::ifstream(strap.mFile) >> rate;
    if ((rate == "gone") != strap.mIsGone) {
        strap.mIsGone = !strap.mIsGone;
        Advertise(strap);
    }
    const bool isOff = rate == "off";
    const auto beats = static_cast<std::uint8_t>(std::strtoul(rate.c_str(), nullptr, 10));
    if (!strap.mIsNotifying || (beats == 0 && !isOff)) {
        return G_SOURCE_CONTINUE;
    }
    const auto flags = static_cast<std::uint8_t>(kContactIsTold | (isOff ? 0 : kHasContact));
    const std::uint8_t value[] = {flags, beats};
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&changed, "{sv}", "Value",
                          g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, value, sizeof value, 1));
    g_dbus_connection_emit_signal(strap.mBus, nullptr, kMeasurementPath,
                                  "org.freedesktop.DBus.Properties", "PropertiesChanged",
                                  g_variant_new("(sa{sv}as)", kCharacteristic, &changed, nullptr),
                                  nullptr);
    return G_SOURCE_CONTINUE;
}

bool Export(Strap &strap)
{
    GDBusNodeInfo *node = g_dbus_node_info_new_for_xml(kInterfaces, nullptr);
    bool isDone = node != nullptr;
    for (const auto &[path, interface] : {std::pair{kRoot, "org.freedesktop.DBus.ObjectManager"},
                                          {kServicePath, kService},
                                          {kMeasurementPath, kCharacteristic},
                                          {kAdvertisementPath, kAdvertisement},
                                          {kAgentPath, kAgent}}) {
        isDone = isDone && g_dbus_connection_register_object(
                               strap.mBus, path, g_dbus_node_info_lookup_interface(node, interface),
                               &kFunctions, &strap, nullptr, nullptr) != 0;
    }
    g_dbus_node_info_unref(node);
    return isDone;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 5) {
        std::fprintf(stderr, "usage: parvane-vm-strap ADAPTER NAME FILE FLAG\n");
        return 2;
    }
    Strap strap{argv[1], argv[2], argv[3], argv[4]};
    GError *error = nullptr;
    strap.mBus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    if (strap.mBus == nullptr || !Export(strap)) {
        std::fprintf(stderr, "parvane-vm-strap: %s\n",
                     error != nullptr ? error->message : "no objects");
        return 1;
    }
    g_dbus_connection_signal_subscribe(strap.mBus, kBluez, "org.freedesktop.DBus.ObjectManager",
                                       "InterfacesAdded", "/", nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                       OnAdapterAdded, &strap, nullptr);
    g_bus_watch_name_on_connection(strap.mBus, kBluez, G_BUS_NAME_WATCHER_FLAGS_NONE, OnBluez,
                                   nullptr, &strap, nullptr);
    g_timeout_add_seconds(1, Beat, &strap);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
