#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include "Service.h"

namespace ParvaneBench {

/** A message bus for the life of the object. */
class MessageBus
{
public:
    explicit MessageBus(const Setting &setting)
        : mFolder(std::filesystem::temp_directory_path()), mChild(MakeStart(setting))
    {
        WaitForListener(Socket());
    }

    std::string Address() const { return "unix:path=" + Socket().string(); }

private:
    static constexpr char kConfiguration[] =
        "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
        " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
        "<busconfig><listen>unix:path=SOCKET</listen><auth>EXTERNAL</auth><policy context=\"default\">"
        "<allow own=\"*\"/><allow send_destination=\"*\"/><allow receive_sender=\"*\"/>"
        "</policy></busconfig>\n";

    std::filesystem::path Socket() const { return mFolder.Path() / "bus.sock"; }

    Child::Start MakeStart(const Setting &setting) const
    {
        std::string text = kConfiguration;
        text.replace(text.find("SOCKET"), 6, Socket().string());
        const auto file = mFolder.Path() / "bus.conf";
        std::ofstream(file) << text;
        Child::Start start;
        start.mArguments = {"dbus-daemon", "--nofork", "--nopidfile",
                            "--config-file=" + file.string()};
        start.mLog = mFolder.Path() / "log";
        start.mCpu = setting.mServerCpu;
        return start;
    }

    TemporaryFolder mFolder;
    Child mChild;
};

} // namespace ParvaneBench
