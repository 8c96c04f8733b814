#pragma once

#include <functional>
#include <string>

namespace Parvane {

/** Looks a variable up, like getenv(3); null when it is not set. */
using Environment = std::function<const char *(const char *)>;

/** Environment's text of a variable; empty when it is not set. */
std::string ValueOf(const Environment &environment, const char *name);

/**
 * Where a service called `name` has its sockets: $RUNTIME_DIRECTORY (the first of several that colons
 * separate), else $XDG_RUNTIME_DIR/name, else /run/name. Empty variables count as not set.
 */
std::string RuntimeDirectory(const Environment &environment, const std::string &name);

} // namespace Parvane
