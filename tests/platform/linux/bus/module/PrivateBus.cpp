#include "PrivateBus.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

#include <gtest/gtest.h>

#include "UniqueFd.h"

namespace ParvanePlatform {

namespace {

constexpr char kVariable[] = "DBUS_SYSTEM_BUS_ADDRESS";
constexpr char kDaemon[] = "/usr/bin/dbus-daemon";
constexpr char kMockModule[] = "/usr/lib/python3/dist-packages/dbusmock";

const std::map<std::string, std::string> kNames = {
    {"logind", "org.freedesktop.login1"},
    {"upower", "org.freedesktop.UPower"},
    {"low_memory_monitor", "org.freedesktop.LowMemoryMonitor"},
    {"bluez5", "org.bluez"}};

constexpr int kDeadlineMs = 30'000;
constexpr gulong kPauseUs = 5'000;

[[noreturn]] void Throw(const std::string &what, GError *error)
{
    const Parvane::ErrorPtr owned(error);
    throw std::runtime_error(what + ": " + (error != nullptr ? error->message : "failed"));
}

Parvane::ObjectPtr<GDBusConnection> TryConnect(const std::string &address)
{
    return Parvane::ObjectPtr<GDBusConnection>(g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr));
}

} // namespace

void Companion::Start(const std::vector<std::string> &command, const std::string &outputFile)
{
    const Parvane::UniqueFd output(
        open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    Parvane::ChildProcess::Start start;
    start.mCommand = command;
    start.mEnvironment = Parvane::ChildProcess::OwnEnvironment();
    start.mOutput = output.Get();
    start.mErrors = output.Get();
    Kill();
    mProcess.emplace(start);
}

void Companion::Kill()
{
    mProcess.reset();
}

void Companion::Pause() const
{
    mProcess->Signal(SIGSTOP);
}

void Companion::Resume() const
{
    mProcess->Signal(SIGCONT);
}

MockedService::MockedService(const PrivateBus &bus, const std::string &busTemplate,
                             const std::string &parameters)
    : mBus(bus), mName(kNames.at(busTemplate))
{
    mProcess.Start({PrivateBus::kPython, "-m", "dbusmock", "--template", busTemplate,
                    "--parameters", parameters},
                   bus.Folder() + '/' + busTemplate + ".out");
    PrivateBus::WaitFor(mName, [this] { return mBus.HasOwner(mName); });
}

MockedService::~MockedService()
{
    mProcess.Kill();
    if (mBus.IsRunning()) {
        try {
            PrivateBus::WaitFor("end of " + mName, [this] { return !mBus.HasOwner(mName); });
        } catch (const std::runtime_error &failure) {
            ADD_FAILURE() << failure.what();
        }
    }
}

std::string PrivateBus::WhyNot()
{
    if (access(kDaemon, X_OK) != 0) {
        return "there is no dbus-daemon (package dbus)";
    }
    if (access(kPython, X_OK) != 0 || access(kMockModule, R_OK) != 0) {
        return "there is no python-dbusmock (package python3-dbusmock)";
    }
    return {};
}

PrivateBus::PrivateBus()
{
    std::string name = std::filesystem::temp_directory_path() / "parvane-bus-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), name);
    }
    mFolder = name;
    mAddress = "unix:path=" + mFolder + "/bus";
    std::ofstream(mFolder + "/bus.conf")
        << "<!DOCTYPE busconfig PUBLIC '-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN'\n"
        << " 'http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd'>\n"
        << "<busconfig><type>session</type><listen>" << mAddress << "</listen>"
        << "<auth>EXTERNAL</auth><servicedir>" << mFolder << "/services</servicedir>"
        << "<policy context='default'><allow send_destination='*'/><allow receive_sender='*'/>"
        << "<allow own='*'/></policy></busconfig>\n";
    std::filesystem::create_directory(mFolder + "/services");
    Start();
    if (const char *old = std::getenv(kVariable); old != nullptr) {
        mOldAddress = old;
    }
    setenv(kVariable, mAddress.c_str(), 1);
}

PrivateBus::~PrivateBus()
{
    if (mOldAddress) {
        setenv(kVariable, mOldAddress->c_str(), 1);
    } else {
        unsetenv(kVariable);
    }
    Stop();
    std::error_code ignored;
    std::filesystem::remove_all(mFolder, ignored);
}

void PrivateBus::Start()
{
    mDaemon.Start({kDaemon, "--nofork", "--nopidfile", "--config-file=" + mFolder + "/bus.conf"},
                  mFolder + "/daemon.out");
    WaitFor("bus", [this] {
        mConnection = TryConnect(mAddress);
        return mConnection != nullptr;
    });
}

void PrivateBus::Stop()
{
    mConnection.reset();
    mDaemon.Kill();
    std::filesystem::remove(mFolder + "/bus");
}

void PrivateBus::AddStartable(const std::string &name) const
{
    std::ofstream(mFolder + "/services/" + name + ".service")
        << "[D-BUS Service]\nName=" << name << "\nExec=/bin/false\n";
}

std::unique_ptr<MockedService> PrivateBus::Run(const std::string &busTemplate,
                                               const std::string &parameters) const
{
    return std::make_unique<MockedService>(*this, busTemplate, parameters);
}

Parvane::VariantPtr PrivateBus::Call(const std::string &name, const std::string &path,
                                     const char *interface, const char *method,
                                     GVariant *arguments) const
{
    GError *error = nullptr;
    Parvane::VariantPtr reply(g_dbus_connection_call_sync(
        mConnection.get(), name.c_str(), path.c_str(), interface, method, arguments, nullptr,
        G_DBUS_CALL_FLAGS_NO_AUTO_START, kDeadlineMs, nullptr, &error));
    if (!reply) {
        Throw(std::string(method) + " of " + path, error);
    }
    return reply;
}

std::string PrivateBus::Call(const std::string &name, const std::string &path,
                             const char *interface, const char *method,
                             const std::string &arguments) const
{
    GError *error = nullptr;
    const Parvane::VariantPtr tuple(
        g_variant_parse(nullptr, arguments.c_str(), nullptr, nullptr, &error));
    if (!tuple) {
        Throw(arguments, error);
    }
    const Parvane::VariantPtr reply = Call(name, path, interface, method, tuple.get());
    char *text = g_variant_print(reply.get(), FALSE);
    std::string result = text;
    g_free(text);
    return result;
}

void PrivateBus::SetProperty(const std::string &name, const std::string &path,
                             const std::string &interface, const std::string &property,
                             const std::string &value) const
{
    Call(name, path, "org.freedesktop.DBus.Properties", "Set",
         "('" + interface + "', '" + property + "', <" + value + ">)");
}

bool PrivateBus::HasOwner(const std::string &name) const
{
    const Parvane::VariantPtr reply =
        Call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
             "NameHasOwner", g_variant_new("(s)", name.c_str()));
    gboolean hasOwner = FALSE;
    g_variant_get(reply.get(), "(b)", &hasOwner);
    return hasOwner != FALSE;
}

void PrivateBus::WaitFor(const std::string &what, const std::function<bool()> &condition)
{
    const gint64 deadline = g_get_monotonic_time() + gint64{kDeadlineMs} * 1000;
    while (!condition()) {
        if (g_get_monotonic_time() > deadline) {
            throw std::runtime_error("no " + what);
        }
        g_usleep(kPauseUs);
    }
}

SilentBus::SilentBus(const std::string &path)
    : mSocket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (bind(mSocket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(mSocket, 8) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
}

SilentBus::~SilentBus()
{
    close(mSocket);
}

} // namespace ParvanePlatform
