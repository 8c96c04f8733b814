#include "RuntimeDirectory.h"

#include <cerrno>
#include <stdexcept>
#include <sys/stat.h>

#include "ErrnoText.h"
#include "Printable.h"

namespace Parvane {

std::string ValueOf(const Environment &environment, const char *name)
{
    const char *text = environment(name);
    return text == nullptr ? "" : text;
}

bool IsAbsolute(const std::string &path)
{
    return path.starts_with('/');
}

std::string ManagedDirectory(const Environment &environment, const std::string &variable)
{
    constexpr std::size_t kMaxQuotedBytes = 200;
    const std::string value = ValueOf(environment, variable.c_str());
    std::string path = value.substr(0, value.find(':'));
    if (!value.empty() && !IsAbsolute(path)) {
        throw std::runtime_error(variable + " is '" + Printable(value, kMaxQuotedBytes) +
                                 "': it must be an absolute path");
    }
    return path;
}

std::string RuntimeDirectory(const Environment &environment, const std::string &name,
                             const std::string &configured)
{
    if (std::string path = ManagedDirectory(environment, "RUNTIME_DIRECTORY"); !path.empty()) {
        return path;
    }
    if (const std::string ofUser = ValueOf(environment, "XDG_RUNTIME_DIR"); IsAbsolute(ofUser)) {
        return ofUser + "/" + name;
    }
    return configured.empty() ? "/run/" + name : configured;
}

void MakePrivateDirectory(const std::string &path)
{
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        throw std::runtime_error("cannot make the directory " + path + ": " + ErrnoText(errno));
    }
}

} // namespace Parvane
