#include "MockedBluez.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace ParvanePlatform {

namespace {

constexpr char kBluez[] = "org.bluez";
constexpr char kMock[] = "org.freedesktop.DBus.Mock";
constexpr char kBluezMock[] = "org.bluez.Mock";
constexpr char kProperties[] = "org.freedesktop.DBus.Properties";

/** What the mock is asked by the code under test; the rest of its log is the test's own doing. */
constexpr std::array<std::string_view, 8> kMethods = {
    "GetManagedObjects", "SetDiscoveryFilter", "StartDiscovery", "StopDiscovery",
    "Connect",           "Disconnect",         "StartNotify",    "StopNotify"};

std::string Quoted(const std::string &text)
{
    return '\'' + text + '\'';
}

std::string MeasurementOf(const std::string &strap)
{
    return strap + "/service000e/char000f";
}

/** Python: adds the GATT objects of the strap `path`, and says so. */
constexpr char kAddGatt[] = R"py(
service, measurement = path + '/service000e', path + '/service000e/char000f'
GATT = 'org.bluez.GattCharacteristic1'
root = objects['/']
root.AddObject(service, 'org.bluez.GattService1', {
    'UUID': dbus.String('0000180d-0000-1000-8000-00805f9b34fb', variant_level=1),
    'Primary': dbus.Boolean(True, variant_level=1),
    'Device': dbus.ObjectPath(path, variant_level=1)}, [])
root.AddObject(measurement, GATT, {
    'UUID': dbus.String('00002a37-0000-1000-8000-00805f9b34fb', variant_level=1),
    'Service': dbus.ObjectPath(service, variant_level=1),
    'Flags': dbus.Array(['notify'], signature='s', variant_level=1),
    'Value': dbus.Array([], signature='y', variant_level=1),
    'Notifying': dbus.Boolean(False, variant_level=1)}, [
    ('StartNotify', '', '', "self.UpdateProperties('', {'Notifying': dbus.Boolean(True)})"),
    ('StopNotify', '', '', "self.UpdateProperties('', {'Notifying': dbus.Boolean(False)})")])
root.object_manager_emit_added(service)
root.object_manager_emit_added(measurement)
)py";

/** Python: removes them, if they are there. */
constexpr char kRemoveGatt[] = R"py(
for gone, interface in ((path + '/service000e/char000f', 'org.bluez.GattCharacteristic1'),
                        (path + '/service000e', 'org.bluez.GattService1')):
    if gone in objects:
        objects['/'].RemoveObject(gone)
        objects['/'].EmitSignal(OBJECT_MANAGER_IFACE, 'InterfacesRemoved', 'oas',
                                [dbus.ObjectPath(gone), [interface]])
)py";

/** Python: the services of the strap `path` are found. */
std::string ResolveCode()
{
    return "if path + '/service000e' not in objects:\n    exec(ADD_GATT)\n"
           "objects[path].UpdateProperties('org.bluez.Device1',"
           " {'ServicesResolved': dbus.Boolean(True)})\n";
}

/** Python: what connecting the strap `path` does. */
std::string ConnectCode()
{
    return "objects[path].UpdateProperties('org.bluez.Device1', {'Connected': dbus.Boolean(True)})\n" +
           ResolveCode();
}

/** Python: what the end of its connection does. */
std::string DisconnectCode()
{
    return "exec(REMOVE_GATT)\n"
           "objects[path].UpdateProperties('org.bluez.Device1', {"
           "'Connected': dbus.Boolean(False), 'ServicesResolved': dbus.Boolean(False)})\n";
}

/** Python: a few lines with the names that they use. */
std::string WithNames(const std::string &path, const std::string &code)
{
    return "path = " + Quoted(path) + "\nADD_GATT = '''" + kAddGatt + "'''\nREMOVE_GATT = '''" +
           kRemoveGatt + "'''\n" + code;
}

std::string RaiseCode(const char *error, const char *message)
{
    return std::string("raise dbus.exceptions.DBusException('") + message + "', name='" + error +
           "')\n";
}

} // namespace

MockedBluez::MockedBluez(const PrivateBus &bus) : mBus(bus)
{
    Start();
}

void MockedBluez::Start()
{
    mProcess.Kill();
    mLogFile = mBus.Folder() + "/bluez" + std::to_string(++mStarts) + ".log";
    mProcess.Start(
        {PrivateBus::kPython, "-m", "dbusmock", "--logfile", mLogFile, "--template", "bluez5"},
        mBus.Folder() + "/bluez.out");
    PrivateBus::WaitFor(kBluez, [this] { return mBus.HasOwner(kBluez); });
    // The name is there before the template: its methods come with it.
    PrivateBus::WaitFor("template of BlueZ", [this] {
        try {
            Mock("/org/bluez", "ClearCalls", nullptr);
            return true;
        } catch (const std::runtime_error &) {
            return false;
        }
    });
    SetMethod("/", kMock, "Run", "exec(args[0])");
}

void MockedBluez::AddAdapter(const std::string &adapter)
{
    mBus.Call(kBluez, "/", kBluezMock, "AddAdapter",
              g_variant_new("(ss)", adapter.c_str(), "test"));
}

void MockedBluez::RemoveAdapter(const std::string &adapter)
{
    mBus.Call(kBluez, "/", kBluezMock, "RemoveAdapter", g_variant_new("(s)", adapter.c_str()));
}

void MockedBluez::SetPowered(const std::string &adapter, bool isPowered)
{
    Run("objects['/org/bluez/" + adapter +
        "'].UpdateProperties('org.bluez.Adapter1', {'Powered': " +
        (isPowered ? "dbus.Boolean(True)" : "dbus.Boolean(False)") + "})");
}

void MockedBluez::RefuseSearch(const std::string &adapter, bool isRefused)
{
    SetMethod("/org/bluez/" + adapter, "org.bluez.Adapter1", "StartDiscovery",
              isRefused ? RaiseCode("org.bluez.Error.Failed", "No search today") : "");
}

std::string MockedBluez::AddStrap(const std::string &adapter, const std::string &address)
{
    const Parvane::VariantPtr reply =
        mBus.Call(kBluez, "/", kBluezMock, "AddDevice",
                  g_variant_new("(sss)", adapter.c_str(), address.c_str(), "Strap"));
    const char *path = nullptr;
    g_variant_get(reply.get(), "(&s)", &path);
    std::string strap = path;
    SetReachable(strap, true);
    SetMethod(strap, "org.bluez.Device1", "Disconnect", WithNames(strap, DisconnectCode()));
    Run("objects[" + Quoted(strap) +
        "].UpdateProperties('org.bluez.Device1', {'UUIDs': dbus.Array("
        "['0000180d-0000-1000-8000-00805f9b34fb'], signature='s', variant_level=1)})");
    return strap;
}

void MockedBluez::RemoveStrap(const std::string &strap)
{
    Run(WithNames(strap, kRemoveGatt) + "\nobjects['/'].RemoveObject(path)\n" +
        "objects['/'].EmitSignal(OBJECT_MANAGER_IFACE, 'InterfacesRemoved', 'oas',"
        " [dbus.ObjectPath(path), ['org.bluez.Device1']])\n");
}

void MockedBluez::SetReachable(const std::string &strap, bool isReachable)
{
    SetMethod(strap, "org.bluez.Device1", "Connect",
              isReachable ? WithNames(strap, ConnectCode())
                          : RaiseCode("org.bluez.Error.Failed", "Page Timeout"));
}

void MockedBluez::LetConnectingHang(const std::string &strap)
{
    SetMethod(strap, "org.bluez.Device1", "Connect", "time.sleep(3600)");
}

void MockedBluez::LetConnectingBeSilent(const std::string &strap)
{
    const std::string silence =
        "objects[path].props['org.bluez.Device1']['Connected'] = dbus.Boolean(True)\n";
    SetMethod(strap, "org.bluez.Device1", "Connect", WithNames(strap, silence + ResolveCode()));
}

void MockedBluez::Connect(const std::string &strap)
{
    Run(WithNames(strap, ConnectCode()));
}

void MockedBluez::Disconnect(const std::string &strap)
{
    Run(WithNames(strap, DisconnectCode()));
}

void MockedBluez::AddMeasurement(const std::string &strap)
{
    Run(WithNames(strap, kAddGatt));
}

void MockedBluez::RemoveMeasurement(const std::string &strap)
{
    Run(WithNames(strap, kRemoveGatt));
}

void MockedBluez::RefuseNotifications(const std::string &strap, bool areRefused)
{
    SetMethod(MeasurementOf(strap), "org.bluez.GattCharacteristic1", "StartNotify",
              areRefused ? RaiseCode("org.bluez.Error.NotPermitted", "Not now") : "");
}

void MockedBluez::EndNotifications(const std::string &strap)
{
    Run("objects[" + Quoted(MeasurementOf(strap)) +
        "].UpdateProperties('', {'Notifying': dbus.Boolean(False)})");
}

void MockedBluez::Notify(const std::string &strap, const std::vector<unsigned char> &value)
{
    GVariant *bytes = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, value.data(), value.size(), 1);
    GVariantBuilder changed;
    g_variant_builder_init(&changed, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&changed, "{sv}", "Value", bytes);
    Mock(MeasurementOf(strap), "UpdateProperties", g_variant_new("(sa{sv})", "", &changed));
}

void MockedBluez::NotifyText(const std::string &strap)
{
    Run("objects[" + Quoted(MeasurementOf(strap)) + "].EmitSignal('" + kProperties +
        "', 'PropertiesChanged', 'sa{sv}as', ['org.bluez.GattCharacteristic1',"
        " {'Value': dbus.String('72', variant_level=1)}, []])");
}

std::vector<std::string> MockedBluez::Calls() const
{
    std::vector<std::string> calls;
    std::ifstream log(mLogFile);
    for (std::string line; std::getline(log, line);) {
        std::istringstream words(line);
        std::string time;
        std::string method;
        words >> time >> method;
        if (std::find(kMethods.begin(), kMethods.end(), method) != kMethods.end() &&
            line.find(" raised: ") == std::string::npos) {
            calls.push_back(method);
        }
    }
    return calls;
}

int MockedBluez::Count(const std::string &method) const
{
    const std::vector<std::string> calls = Calls();
    return static_cast<int>(std::count(calls.begin(), calls.end(), method));
}

void MockedBluez::Mock(const std::string &path, const char *method, GVariant *arguments) const
{
    mBus.Call(kBluez, path, kMock, method, arguments);
}

void MockedBluez::Run(const std::string &code) const
{
    mBus.Call(kBluez, "/", kMock, "Run", g_variant_new("(s)", code.c_str()));
}

void MockedBluez::SetMethod(const std::string &path, const char *interface, const char *method,
                            const std::string &code) const
{
    const char *arguments = std::string_view(method) == "Run" ? "s" : "";
    Mock(path, "AddMethod",
         g_variant_new("(sssss)", interface, method, arguments, "", code.c_str()));
}

} // namespace ParvanePlatform
