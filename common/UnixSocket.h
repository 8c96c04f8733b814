#pragma once

#include <cstddef>
#include <string>
#include <sys/un.h>

#include "Deadline.h"
#include "UniqueFd.h"
#include "Wait.h"

namespace Parvane {

/** The longest path that a socket's address holds, in bytes. */
std::size_t LongestSocketPath();

/** Fills `address` in. @return 0; EINVAL for an empty path, ENAMETOOLONG for one that is too long */
int MakeSocketAddress(const std::string &path, sockaddr_un &address);

/**
 * Connects to the packet socket (SOCK_SEQPACKET) that listens at `path`. While it takes nobody more,
 * this waits.
 *
 * @param socket  not blocking, for whatever comes next; set when 0 is returned
 * @return 0, or an errno value: as from MakeSocketAddress(), ENOTSOCK for anything else in its
 *         place, EAGAIN when the deadline has passed,
 *         EINTR when the wait was interrupted
 */
int ConnectToSocket(const std::string &path, const Deadline &deadline, const WaitOptions &options,
                    UniqueFd &socket);

/**
 * What to look at when the socket of a service cannot be connected to, as in " (is the hub running?)"; empty where
 * there is no saying.
 */
std::string ConnectHint(int error, const std::string &service);

} // namespace Parvane
