#include "RuntimeDirectory.h"

namespace Parvane {

std::string ValueOf(const Environment &environment, const char *name)
{
    const char *text = environment(name);
    return text == nullptr ? "" : text;
}

std::string RuntimeDirectory(const Environment &environment, const std::string &name)
{
    const std::string directories = ValueOf(environment, "RUNTIME_DIRECTORY");
    if (std::string first = directories.substr(0, directories.find(':')); !first.empty()) {
        return first;
    }
    const std::string ofUser = ValueOf(environment, "XDG_RUNTIME_DIR");
    return (ofUser.empty() ? "/run" : ofUser) + "/" + name;
}

} // namespace Parvane
