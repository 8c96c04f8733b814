#pragma once

#include <iosfwd>
#include <string>

namespace ParvaneWatch {

/**
 * Checks a configuration file, and the recordings that it lets be played, as the service does at its
 * start. By itself: the variables of the environment, which would override it, do not count.
 *
 * @param named  the file; empty: the system's, which need not be there
 *
 * Prints its problems to `err`, one a line; and to `out`, when the service would start with it, the
 * source of each item and "PATH: ok". As JSON it prints one object to `out` and nothing else:
 * {"file", "ok", "problems": [{"severity", "line", "section", "key", "message"}]}, where null stands
 * for a line, section or key that is not meant.
 *
 * @return 0 when the service would start with it, perhaps with warnings; 1 when it would not; 2 when
 *         the file cannot be read
 */
int CheckConfig(const std::string &named, bool json, std::ostream &out, std::ostream &err);

} // namespace ParvaneWatch
