#include "PrivateSystemBus.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "TestLoop.h"
#include "UnixSocket.h"

namespace ParvaneGateway {

namespace {

constexpr char kVariable[] = "DBUS_SYSTEM_BUS_ADDRESS";
constexpr char kDaemon[] = "/usr/bin/dbus-daemon";

bool IsListening(const std::string &path)
{
    sockaddr_un address = {};
    Parvane::MakeSocketAddress(path, address);
    const Parvane::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return connect(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

} // namespace

std::string PrivateSystemBus::WhyNot()
{
    return access(kDaemon, X_OK) == 0 ? "" : "there is no dbus-daemon (package dbus)";
}

PrivateSystemBus::PrivateSystemBus() : mAddress("unix:path=" + mFolder.Path("bus"))
{
    std::ofstream(mFolder.Path("bus.conf"))
        << "<!DOCTYPE busconfig PUBLIC '-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN'\n"
        << " 'http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd'>\n"
        << "<busconfig><type>session</type><listen>" << mAddress << "</listen>"
        << "<auth>EXTERNAL</auth><policy context='default'><allow send_destination='*'/>"
        << "<allow receive_sender='*'/><allow own='*'/></policy></busconfig>\n";
    setenv(kVariable, mAddress.c_str(), 1);
    Start();
}

PrivateSystemBus::~PrivateSystemBus()
{
    unsetenv(kVariable);
}

void PrivateSystemBus::Start()
{
    Parvane::ChildProcess::Start start;
    start.mCommand = {kDaemon, "--nofork", "--nopidfile",
                      "--config-file=" + mFolder.Path("bus.conf")};
    start.mEnvironment = Parvane::ChildProcess::OwnEnvironment();
    start.mPrepare = [] {
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    }; // whoever is killed leaves none behind
    mDaemon.emplace(start);
    if (!RunUntil([this] { return IsListening(mFolder.Path("bus")); })) {
        throw std::runtime_error("the bus does not start");
    }
}

void PrivateSystemBus::Stop()
{
    mDaemon.reset();
    unlink(mFolder.Path("bus").c_str());
}

} // namespace ParvaneGateway
