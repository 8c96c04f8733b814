#include "SocketPath.h"

namespace ParvaneWatch {

std::string DefaultSocketPath(const Environment &environment)
{
    const auto value = [&environment](const char *name) {
        const char *text = environment(name);
        return std::string(text == nullptr ? "" : text);
    };
    const std::string directories = value("RUNTIME_DIRECTORY");
    if (const std::string first = directories.substr(0, directories.find(':')); !first.empty()) {
        return first + "/control.sock";
    }
    if (const std::string runtime = value("XDG_RUNTIME_DIR"); !runtime.empty()) {
        return runtime + "/parvane/control.sock";
    }
    return "/run/parvane/control.sock";
}

} // namespace ParvaneWatch
