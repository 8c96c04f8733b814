#pragma once

#include <functional>
#include <string>

namespace ParvaneWatch {

/** Looks a variable up, like getenv(3); null when it is not set. */
using Environment = std::function<const char *(const char *)>;

/**
 * Where the control socket is when the command line does not say: control.sock in $RUNTIME_DIRECTORY
 * (the first of several that colons separate), else in $XDG_RUNTIME_DIR/parvane, else in /run/parvane.
 * Empty variables count as not set.
 */
std::string DefaultSocketPath(const Environment &environment);

} // namespace ParvaneWatch
