#include "SocketPath.h"

namespace ParvaneHost {

std::string DefaultSocketPath(const Environment &environment)
{
    const auto value = [&environment](const char *name) {
        const char *text = environment(name);
        return std::string(text == nullptr ? "" : text);
    };
    if (std::string link = value("PARVANE_LINK"); !link.empty()) {
        return link;
    }
    const std::string directories = value("RUNTIME_DIRECTORY");
    if (const std::string first = directories.substr(0, directories.find(':')); !first.empty()) {
        return first + "/link.sock";
    }
    if (const std::string runtime = value("XDG_RUNTIME_DIR"); !runtime.empty()) {
        return runtime + "/parvane/link.sock";
    }
    return "/run/parvane/link.sock";
}

} // namespace ParvaneHost
