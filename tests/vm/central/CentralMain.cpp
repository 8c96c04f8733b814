/**
 * A phone over Bluetooth, through BlueZ: finds the watch by its service, pairs, connects, and is then for programs on this
 * side what the watch's own socket is there, so that parvane-host works over the air:
 *
 *     parvane-vm-central hci1 /tmp/air.sock &
 *     parvane-host --socket /tmp/air.sock list
 *
 * Usage: parvane-vm-central [--no-pairing] [--commands] ADAPTER SOCKET
 *   --no-pairing  does not pair, and lets the watch refuse it
 *   --commands    writes without response, through a descriptor; else each packet is confirmed
 *
 * Comes back when the connection ends, as docs/transports.md says. Standard output tells what happens, a line each.
 */
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include <gio/gio.h>
#include <gio/gunixfdlist.h>

namespace {

constexpr char kService[] = "6a1c0001-5b0e-4f0c-9d5a-7f1d2c8e43b7";
constexpr char kToWatch[] = "6a1c0002-5b0e-4f0c-9d5a-7f1d2c8e43b7";
constexpr char kFromWatch[] = "6a1c0003-5b0e-4f0c-9d5a-7f1d2c8e43b7";
constexpr char kAdapter[] = "org.bluez.Adapter1";
constexpr char kDevice[] = "org.bluez.Device1";
constexpr char kCharacteristic[] = "org.bluez.GattCharacteristic1";
constexpr int kCallTimeoutMs = 40'000;
constexpr int kTries = 400;
constexpr useconds_t kPauseUs = 100'000;

struct VariantRelease
{
    void operator()(GVariant *value) const { g_variant_unref(value); }
};
using Variant = std::unique_ptr<GVariant, VariantRelease>;

struct Options
{
    bool mIsPairing = true;
    bool mUsesCommands = false;
    std::string mAdapter;
    std::string mSocket;
};

void Say(const std::string &text)
{
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
}

/** Calls a method of BlueZ. @throws std::runtime_error with what the error says */
Variant Call(GDBusConnection *bus, const std::string &path, const char *interface,
             const char *method, GVariant *arguments, GUnixFDList **fds = nullptr)
{
    GError *error = nullptr;
    Variant reply(g_dbus_connection_call_with_unix_fd_list_sync(
        bus, "org.bluez", path.c_str(), interface, method, arguments, nullptr,
        G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, fds, nullptr, &error));
    if (!reply) {
        const std::string what = std::string(method) + ": " + error->message;
        g_error_free(error);
        throw std::runtime_error(what);
    }
    return reply;
}

/** A property of BlueZ's; null when there is none. */
Variant Get(GDBusConnection *bus, const std::string &path, const char *interface, const char *name)
{
    try {
        const Variant reply = Call(bus, path, "org.freedesktop.DBus.Properties", "Get",
                                   g_variant_new("(ss)", interface, name));
        GVariant *value = nullptr;
        g_variant_get(reply.get(), "(v)", &value);
        return Variant(value);
    } catch (const std::runtime_error &) {
        return nullptr;
    }
}

bool IsTrue(GDBusConnection *bus, const std::string &path, const char *name)
{
    const Variant value = Get(bus, path, kDevice, name);
    return value && g_variant_get_boolean(value.get()) != FALSE;
}

/** Asks again and again. @throws std::runtime_error when it stays false */
template <typename Condition>
void WaitFor(const char *what, Condition condition)
{
    for (int i = 0; i < kTries; ++i) {
        if (condition()) {
            return;
        }
        usleep(kPauseUs);
    }
    throw std::runtime_error(std::string("no ") + what);
}

/**
 * The path of the object below `prefix` whose interface has this UUID: a characteristic's own, or one of those
 * that a device has told. Empty for none.
 */
std::string Find(GDBusConnection *bus, const std::string &prefix, const char *interface,
                 const char *uuid)
{
    const Variant reply =
        Call(bus, "/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects", nullptr);
    GVariantIter *objects = nullptr;
    g_variant_get(reply.get(), "(a{oa{sa{sv}}})", &objects);
    const char *path = nullptr;
    GVariant *interfaces = nullptr;
    std::string found;
    while (g_variant_iter_next(objects, "{&o@a{sa{sv}}}", &path, &interfaces) != FALSE) {
        const Variant owned(interfaces);
        const Variant properties(
            g_variant_lookup_value(interfaces, interface, G_VARIANT_TYPE_VARDICT));
        if (!properties || std::string(path).rfind(prefix + '/', 0) != 0) {
            continue;
        }
        const char *own = nullptr;
        const char **all = nullptr;
        if (g_variant_lookup(properties.get(), "UUID", "&s", &own) != FALSE &&
            std::string(own) == uuid) {
            found = path;
        } else if (g_variant_lookup(properties.get(), "UUIDs", "^a&s", &all) != FALSE) {
            found = g_strv_contains(all, uuid) != FALSE ? path : found;
            g_free(all);
        }
    }
    g_variant_iter_free(objects);
    return found;
}

/** A watch that is advertised, or that is known from before: to connect to one waits until it is advertised. */
std::string FindWatch(GDBusConnection *bus, const std::string &adapter)
{
    Call(bus, adapter, kAdapter, "SetDiscoveryFilter",
         g_variant_new_parsed("({'Transport': <'le'>},)"));
    Call(bus, adapter, kAdapter, "StartDiscovery", nullptr);
    std::string watch;
    for (int i = 0; i < kTries && watch.empty(); ++i) {
        usleep(kPauseUs);
        watch = Find(bus, adapter, kDevice, kService);
    }
    Call(bus, adapter, kAdapter, "StopDiscovery", nullptr);
    if (watch.empty()) {
        throw std::runtime_error("no watch");
    }
    return watch;
}

int Acquire(GDBusConnection *bus, const std::string &characteristic, const char *method)
{
    GUnixFDList *fds = nullptr;
    const Variant reply =
        Call(bus, characteristic, kCharacteristic, method, g_variant_new("(a{sv})", nullptr), &fds);
    const int fd = g_unix_fd_list_get(fds, 0, nullptr);
    g_object_unref(fds);
    return fd;
}

/** The connection to the watch, once it is there. */
struct Air
{
    std::string mWatch;
    std::string mToWatch;
    int mNotified = -1;
    int mCommands = -1; // none: each packet is written with response
};

void Write(GDBusConnection *bus, const Air &air, const std::uint8_t *packet, std::size_t size)
{
    if (air.mCommands >= 0) {
        if (send(air.mCommands, packet, size, MSG_NOSIGNAL) < 0) {
            throw std::runtime_error("the watch takes no commands");
        }
        return;
    }
    GVariantBuilder options;
    g_variant_builder_init(&options, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&options, "{sv}", "type", g_variant_new_string("request"));
    Call(bus, air.mToWatch, kCharacteristic, "WriteValue",
         g_variant_new("(@aya{sv})",
                       g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, packet, size, 1), &options));
}

/** With an agent for that time only: BlueZ asks it about everybody who would pair with any adapter. */
void Pair(GDBusConnection *bus, const std::string &watch)
{
    constexpr char kManager[] = "org.bluez.AgentManager1";
    Call(bus, "/org/bluez", kManager, "RegisterAgent",
         g_variant_new("(os)", "/phone/agent", "DisplayYesNo"));
    std::string failure;
    try {
        Call(bus, watch, kDevice, "Pair", nullptr);
    } catch (const std::runtime_error &error) {
        failure = error.what();
    }
    Call(bus, "/org/bluez", kManager, "UnregisterAgent", g_variant_new("(o)", "/phone/agent"));
    if (!failure.empty()) {
        throw std::runtime_error(failure);
    }
    Say("paired");
}

Air Join(GDBusConnection *bus, const Options &options)
{
    const std::string adapter = "/org/bluez/" + options.mAdapter;
    Air air;
    air.mWatch = FindWatch(bus, adapter);
    Say("found " + air.mWatch);
    if (!IsTrue(bus, air.mWatch, "Connected")) {
        Call(bus, air.mWatch, kDevice, "Connect", nullptr);
    }
    WaitFor("services", [&] { return IsTrue(bus, air.mWatch, "ServicesResolved"); });
    if (options.mIsPairing && !IsTrue(bus, air.mWatch, "Paired")) {
        Pair(bus, air.mWatch);
    }
    air.mToWatch = Find(bus, air.mWatch, kCharacteristic, kToWatch);
    const std::string fromWatch = Find(bus, air.mWatch, kCharacteristic, kFromWatch);
    if (air.mToWatch.empty() || fromWatch.empty()) {
        throw std::runtime_error("the watch has no link");
    }
    if (!options.mIsPairing) {
        constexpr std::uint8_t kStop[] = {0x14, 0x00, 0x00, 0x01};
        Write(bus, air, kStop, sizeof kStop); // is to fail
    }
    air.mNotified = Acquire(bus, fromWatch, "AcquireNotify");
    if (options.mUsesCommands) {
        air.mCommands = Acquire(bus, air.mToWatch, "AcquireWrite");
    }
    const Variant mtu = Get(bus, air.mToWatch, kCharacteristic, "MTU");
    Say("connected, MTU " + std::to_string(mtu ? g_variant_get_uint16(mtu.get()) : 0));
    return air;
}

int Listen(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path.c_str());
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(fd, 1) != 0) {
        throw std::runtime_error("no socket " + path);
    }
    return fd;
}

/** Carries packets between the air and one program after the other, until the air's end. */
void Carry(GDBusConnection *bus, const Air &air, int listener)
{
    std::vector<std::uint8_t> packet(65536);
    int host = -1;
    for (;;) {
        // There is one program at a time; the next one waits in the queue.
        pollfd fds[] = {{air.mNotified, POLLIN, 0}, {host >= 0 ? host : listener, POLLIN, 0}};
        poll(fds, 2, -1);
        if (fds[0].revents != 0) {
            const ssize_t size = read(air.mNotified, packet.data(), packet.size());
            if (size <= 0) {
                close(host);
                return;
            }
            send(host, packet.data(), static_cast<std::size_t>(size), MSG_NOSIGNAL);
        }
        if (fds[1].revents != 0 && host < 0) {
            host = accept(listener, nullptr, nullptr);
        } else if (fds[1].revents != 0) {
            const ssize_t size = read(host, packet.data(), packet.size());
            if (size > 0) {
                Write(bus, air, packet.data(), static_cast<std::size_t>(size));
            } else {
                close(host);
                host = -1;
            }
        }
    }
}

/** Says yes to whatever the pairing that this program has begun asks. */
void OnAgentCall(GDBusConnection * /*bus*/, const char * /*sender*/, const char * /*path*/,
                 const char * /*interface*/, const char *method, GVariant *arguments,
                 GDBusMethodInvocation *call, void * /*data*/)
{
    if (std::string(method) == "RequestConfirmation") {
        guint32 number = 0;
        g_variant_get_child(arguments, 1, "u", &number);
        const std::string digits = std::to_string(number);
        Say("shows " + std::string(6 - digits.size(), '0') + digits);
    } else {
        Say(method);
    }
    g_dbus_method_invocation_return_value(call, nullptr);
}

/** BlueZ asks while this program waits for Pair(), so the agent has a thread of its own. */
void *RunAgent(void *data)
{
    static constexpr char kInterface[] = R"(<node><interface name="org.bluez.Agent1">
      <method name="Release"/><method name="Cancel"/>
      <method name="RequestConfirmation"><arg type="o"/><arg type="u"/></method>
      <method name="RequestAuthorization"><arg type="o"/></method>
    </interface></node>)";
    static constexpr GDBusInterfaceVTable kFunctions = {OnAgentCall, nullptr, nullptr, {}};
    GMainContext *context = g_main_context_new();
    g_main_context_push_thread_default(context);
    GDBusNodeInfo *node = g_dbus_node_info_new_for_xml(kInterface, nullptr);
    g_dbus_connection_register_object(static_cast<GDBusConnection *>(data), "/phone/agent",
                                      node->interfaces[0], &kFunctions, nullptr, nullptr, nullptr);
    g_main_loop_run(g_main_loop_new(context, FALSE));
    return nullptr;
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    std::vector<std::string> names;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--no-pairing") {
            options.mIsPairing = false;
        } else if (argument == "--commands") {
            options.mUsesCommands = true;
        } else {
            names.push_back(argument);
        }
    }
    if (names.size() != 2) {
        std::fprintf(stderr,
                     "usage: parvane-vm-central [--no-pairing] [--commands] ADAPTER SOCKET\n");
        return 2;
    }
    options.mAdapter = names[0];
    options.mSocket = names[1];
    GDBusConnection *bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);
    if (bus == nullptr) {
        std::fprintf(stderr, "parvane-vm-central: no system bus\n");
        return 1;
    }
    g_thread_new("agent", RunAgent, bus);
    const int listener = Listen(options.mSocket);
    useconds_t pause = kPauseUs;
    for (;;) {
        try {
            const Air air = Join(bus, options);
            pause = kPauseUs;
            Carry(bus, air, listener);
            close(air.mNotified);
            close(air.mCommands);
            Say("lost");
        } catch (const std::runtime_error &failure) {
            Say(failure.what());
        }
        usleep(pause);
        pause = std::min(2 * pause, 50 * kPauseUs);
    }
}
