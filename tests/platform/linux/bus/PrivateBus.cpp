#include "PrivateBus.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace ParvanePlatform {

namespace {

constexpr char kVariable[] = "DBUS_SYSTEM_BUS_ADDRESS";
constexpr char kDaemon[] = "/usr/bin/dbus-daemon";
constexpr char kMockModule[] = "/usr/lib/python3/dist-packages/dbusmock";

constexpr int kDeadlineMs = 30'000;
constexpr gulong kPauseUs = 5'000;

[[noreturn]] void Throw(const std::string &what, GError *error)
{
    const GErrorPtr owned(error);
    throw std::runtime_error(what + ": " + (error != nullptr ? error->message : "failed"));
}

GObjectPtr<GDBusConnection> TryConnect(const std::string &address)
{
    return GObjectPtr<GDBusConnection>(g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr));
}

} // namespace

void Companion::Start(const std::vector<std::string> &command, const std::string &outputFile)
{
    Kill();
    std::vector<std::string> texts = command;
    std::vector<char *> arguments;
    arguments.reserve(texts.size() + 1);
    for (std::string &text : texts) {
        arguments.push_back(text.data());
    }
    arguments.push_back(nullptr);
    mPid = fork();
    if (mPid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (mPid > 0) {
        return;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int output = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    execv(arguments.front(), arguments.data());
    _exit(127);
}

void Companion::Kill()
{
    if (mPid > 0) {
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
        mPid = -1;
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
        << "<busconfig><listen>" << mAddress << "</listen><auth>EXTERNAL</auth>"
        << "<policy context='default'><allow send_destination='*'/><allow receive_sender='*'/>"
        << "<allow own='*'/></policy></busconfig>\n";
    Start();
    setenv(kVariable, mAddress.c_str(), 1);
}

PrivateBus::~PrivateBus()
{
    unsetenv(kVariable);
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

GVariantPtr PrivateBus::Call(const std::string &name, const std::string &path,
                             const char *interface, const char *method, GVariant *arguments) const
{
    GError *error = nullptr;
    GVariantPtr reply(g_dbus_connection_call_sync(
        mConnection.get(), name.c_str(), path.c_str(), interface, method, arguments, nullptr,
        G_DBUS_CALL_FLAGS_NO_AUTO_START, kDeadlineMs, nullptr, &error));
    if (!reply) {
        Throw(std::string(method) + " of " + path, error);
    }
    return reply;
}

bool PrivateBus::HasOwner(const std::string &name) const
{
    const GVariantPtr reply =
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

} // namespace ParvanePlatform
