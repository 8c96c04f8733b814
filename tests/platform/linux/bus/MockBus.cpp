#include "MockBus.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gio/gio.h>
#include <gtest/gtest.h>

namespace ParvanePlatform {

namespace {

constexpr char kDaemon[] = "/usr/bin/dbus-daemon";
// Not the first one of the path: Debian's has the module.
constexpr char kPython[] = "/usr/bin/python3";
constexpr char kTemplates[] = "/usr/lib/python3/dist-packages/dbusmock/templates";
constexpr char kVariable[] = "DBUS_SYSTEM_BUS_ADDRESS";
constexpr std::chrono::seconds kLimit(30);
constexpr int kCallLimitMs = 30000;

const std::map<std::string, std::string> kNames = {
    {"logind", "org.freedesktop.login1"},
    {"upower", "org.freedesktop.UPower"},
    {"low_memory_monitor", "org.freedesktop.LowMemoryMonitor"},
    {"bluez5", "org.bluez"}};

template <typename Condition>
bool WaitUntil(Condition condition)
{
    const auto deadline = std::chrono::steady_clock::now() + kLimit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

std::string Configuration(const std::string &directory, const std::string &address)
{
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>session</type><listen>" +
           address + "</listen><auth>EXTERNAL</auth><servicedir>" + directory +
           "/services</servicedir><policy context=\"default\"><allow send_destination=\"*\"/>"
           "<allow receive_sender=\"*\"/><allow own=\"*\"/></policy></busconfig>\n";
}

} // namespace

MockProcess::MockProcess(const std::vector<std::string> &command,
                         const std::vector<std::string> &environment, int output)
{
    std::vector<char *> arguments;
    std::vector<char *> variables;
    arguments.reserve(command.size() + 1);
    variables.reserve(environment.size() + 1);
    for (const std::string &text : command) {
        arguments.push_back(const_cast<char *>(text.c_str()));
    }
    for (const std::string &text : environment) {
        variables.push_back(const_cast<char *>(text.c_str()));
    }
    arguments.push_back(nullptr);
    variables.push_back(nullptr);
    mPid = fork();
    if (mPid < 0) {
        throw std::runtime_error("fork");
    }
    if (mPid == 0) {
        const int nothing = open("/dev/null", O_RDWR);
        dup2(nothing, STDIN_FILENO);
        dup2(output >= 0 ? output : nothing, STDOUT_FILENO);
        dup2(nothing, STDERR_FILENO);
        execve(arguments[0], arguments.data(), variables.data());
        _exit(127);
    }
}

MockProcess::~MockProcess()
{
    kill(mPid, SIGKILL);
    waitpid(mPid, nullptr, 0);
}

void MockProcess::Pause() const
{
    kill(mPid, SIGSTOP);
}

void MockProcess::Resume() const
{
    kill(mPid, SIGCONT);
}

struct MockBus::Client
{
    explicit Client(GDBusConnection *connection) : mConnection(connection) {}
    ~Client() { g_object_unref(mConnection); }

    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    GDBusConnection *mConnection;
};

std::optional<std::string> MockBus::Missing()
{
    for (const std::string path : {kDaemon, kPython, kTemplates}) {
        if (access(path.c_str(), R_OK) != 0) {
            return path + " is not on this machine";
        }
    }
    return std::nullopt;
}

MockBus::MockBus()
{
    std::string name = std::filesystem::temp_directory_path() / "parvane-bus-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("mkdtemp " + name);
    }
    mDirectory = name;
    mAddress = "unix:path=" + mDirectory + "/bus";
    std::filesystem::create_directory(mDirectory + "/services");
    std::ofstream(mDirectory + "/bus.conf") << Configuration(mDirectory, mAddress);
    if (const char *old = std::getenv(kVariable); old != nullptr) {
        mOldAddress = old;
    }
    setenv(kVariable, mAddress.c_str(), 1);
    Start();
}

MockBus::~MockBus()
{
    Stop();
    if (mOldAddress) {
        setenv(kVariable, mOldAddress->c_str(), 1);
    } else {
        unsetenv(kVariable);
    }
    std::error_code ignored;
    std::filesystem::remove_all(mDirectory, ignored);
}

void MockBus::Start()
{
    int ready[2] = {-1, -1};
    if (pipe2(ready, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2");
    }
    mDaemon = std::make_unique<MockProcess>(
        std::vector<std::string>{kDaemon, "--nofork", "--nopidfile", "--nosyslog",
                                 "--print-address=1", "--config-file=" + mDirectory + "/bus.conf"},
        std::vector<std::string>{std::string(kVariable) + '=' + mAddress}, ready[1]);
    close(ready[1]);
    // It says its address when it listens.
    char text[256];
    const ssize_t length = read(ready[0], text, sizeof text);
    close(ready[0]);
    GError *error = nullptr;
    GDBusConnection *connection =
        length <= 0
            ? nullptr
            : g_dbus_connection_new_for_address_sync(
                  mAddress.c_str(),
                  static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                    G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
                  nullptr, nullptr, &error);
    if (connection == nullptr) {
        throw std::runtime_error(error != nullptr ? error->message : "the bus does not start");
    }
    mClient = std::make_unique<Client>(connection);
}

void MockBus::Stop()
{
    mClient.reset();
    mDaemon.reset();
    std::filesystem::remove(mDirectory + "/bus");
}

void MockBus::AddStartable(const std::string &name) const
{
    std::ofstream(mDirectory + "/services/" + name + ".service")
        << "[D-BUS Service]\nName=" << name << "\nExec=/bin/false\n";
}

std::unique_ptr<MockBus::Service> MockBus::Run(const std::string &busTemplate,
                                               const std::string &parameters)
{
    return std::make_unique<Service>(*this, busTemplate, parameters);
}

std::string MockBus::Call(const std::string &name, const std::string &path,
                          const std::string &interface, const std::string &method,
                          const std::string &parameters) const
{
    GError *error = nullptr;
    GVariant *arguments = g_variant_parse(nullptr, parameters.c_str(), nullptr, nullptr, &error);
    GVariant *answer = nullptr;
    if (arguments != nullptr) {
        answer = g_dbus_connection_call_sync(mClient->mConnection, name.c_str(), path.c_str(),
                                             interface.c_str(), method.c_str(), arguments, nullptr,
                                             G_DBUS_CALL_FLAGS_NONE, kCallLimitMs, nullptr, &error);
        g_variant_unref(arguments);
    }
    if (answer == nullptr) {
        ADD_FAILURE() << name << ' ' << method << parameters << ": " << error->message;
        g_error_free(error);
        return "";
    }
    char *text = g_variant_print(answer, FALSE);
    g_variant_unref(answer);
    std::string result = text;
    g_free(text);
    return result;
}

void MockBus::SetProperty(const std::string &name, const std::string &path,
                          const std::string &interface, const std::string &property,
                          const std::string &value) const
{
    Call(name, path, "org.freedesktop.DBus.Properties", "Set",
         "('" + interface + "', '" + property + "', <" + value + ">)");
}

bool MockBus::HasOwner(const std::string &name) const
{
    return Call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                "NameHasOwner", "('" + name + "',)") == "(true,)";
}

MockBus::Service::Service(MockBus &bus, const std::string &busTemplate,
                          const std::string &parameters)
    : mBus(bus),
      mName(kNames.at(busTemplate)),
      mProcess(std::make_unique<MockProcess>(
          std::vector<std::string>{kPython, "-m", "dbusmock", "--template", busTemplate,
                                   "--parameters", parameters},
          std::vector<std::string>{std::string(kVariable) + '=' + bus.Address()}, -1))
{
    if (!WaitUntil([this] { return mBus.HasOwner(mName); })) {
        throw std::runtime_error(mName + " does not come");
    }
}

MockBus::Service::~Service()
{
    mProcess.reset();
    if (mBus.mClient) {
        EXPECT_TRUE(WaitUntil([this] { return !mBus.HasOwner(mName); })) << mName;
    }
}

} // namespace ParvanePlatform
