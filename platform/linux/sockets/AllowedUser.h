#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

namespace ParvanePlatform {

/**
 * The number of the user who may connect to a socket besides the service's own and root.
 *
 * @param name   a user's name or number; empty for nobody
 * @param owner  whose socket it is, for the log
 * @return empty for nobody, and, which is logged, for a user that the system does not know, or for "nobody",
 *         whose number stands for every user of another name space
 */
std::optional<uid_t> AllowedUser(const std::string &name, const char *owner);

} // namespace ParvanePlatform
