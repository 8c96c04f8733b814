#pragma once

#include <string_view>

namespace Parvane {

// Datagrams to Unix sockets of the system. Neither needs memory or throws.

/**
 * Opens a socket to send from, which is closed on exec.
 *
 * @param maxWaitMs  how long a datagram waits for room in its reader's queue
 * @return the socket, which the caller closes, or a negated errno value
 */
int OpenDatagramSocket(int maxWaitMs) noexcept;

/**
 * Sends one datagram.
 *
 * @param address   a path, or '@' and an abstract name
 * @param flags     MSG_DONTWAIT, or 0 to wait as long as the socket was opened for
 * @param attached  a descriptor whose copy goes along; -1: none
 * @return 0 or a negated errno value: EAGAIN when the reader's queue is full, EMSGSIZE when the
 *         datagram is too long, EINVAL when the address is none
 */
int SendDatagram(int socket, std::string_view address, std::string_view bytes, int flags,
                 int attached = -1) noexcept;

} // namespace Parvane
