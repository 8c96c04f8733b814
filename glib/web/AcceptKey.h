#pragma once

#include <string>

namespace Parvane {

/** What a server answers to a client's Sec-WebSocket-Key, in Sec-WebSocket-Accept. */
std::string AcceptOf(const std::string &key);

} // namespace Parvane
