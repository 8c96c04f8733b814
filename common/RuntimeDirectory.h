#pragma once

#include <functional>
#include <string>

namespace Parvane {

/** Looks a variable up, like getenv(3); null when it is not set. */
using Environment = std::function<const char *(const char *)>;

/** Environment's text of a variable; empty when it is not set. */
std::string ValueOf(const Environment &environment, const char *name);

bool IsAbsolute(const std::string &path);

/**
 * The path that a service manager has set, the first of several that colons separate; empty when the
 * variable is not set or empty.
 *
 * @throws std::runtime_error "VARIABLE is 'VALUE': it must be an absolute path"
 */
std::string ManagedDirectory(const Environment &environment, const std::string &variable);

/**
 * Where a service called `name` has its sockets: ManagedDirectory() of RUNTIME_DIRECTORY, else
 * $XDG_RUNTIME_DIR/name unless that is relative, else what is configured, else /run/name. The rule of
 * the service itself and of those who look for it.
 *
 * @param configured  empty when nothing is
 * @throws std::runtime_error as ManagedDirectory() does
 */
std::string RuntimeDirectory(const Environment &environment, const std::string &name,
                             const std::string &configured = {});

/** Makes a directory that is not there, for this user alone. @throws std::runtime_error that names it */
void MakePrivateDirectory(const std::string &path);

} // namespace Parvane
