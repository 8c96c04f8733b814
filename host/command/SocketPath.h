#pragma once

#include <functional>
#include <string>

namespace ParvaneHost {

/** Looks a variable up, like getenv(3); null when it is not set. */
using Environment = std::function<const char *(const char *)>;

/**
 * Where the accessory link is when the command line does not say.
 *
 * $PARVANE_LINK, else link.sock in $RUNTIME_DIRECTORY (the first of several that colons separate), else
 * parvane/link.sock in $XDG_RUNTIME_DIR, else /run/parvane/link.sock. Empty variables count as not set.
 */
std::string DefaultSocketPath(const Environment &environment);

} // namespace ParvaneHost
