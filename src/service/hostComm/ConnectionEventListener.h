#pragma once

#include <cstddef>
#include <cstdint>

namespace Parvane {

/** What the link tells the host side. Called on the main-loop thread. */
class ConnectionEventListener
{
public:
    virtual ~ConnectionEventListener() = default;

    /** One packet; `data` holds `size` bytes and a 0 after them, for the length of the call. */
    virtual void OnDataReceived(const uint8_t *data, std::size_t size) = 0;

    /** The host's service has ended. */
    virtual void OnServiceTerminated() = 0;

    /** The link has been torn down. */
    virtual void OnConnectionReleased() = 0;
};

} // namespace Parvane
