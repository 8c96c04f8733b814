#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "ConnectionEventListener.h"
#include "HeaderData.h"
#include "HostEventListener.h"
#include "ReceivedDataParser.h"

namespace Parvane {

/**
 * Joins the accessory link to the rest of the service.
 *
 * Packets from the link become request records for the listener; records for the host become
 * packets for the link. Owned by the ParvaneController by value; the ConnectionManager borrows it
 * from Connect on, so that one that has connected lives as long as the process. Main-loop thread
 * only.
 */
class HostController : public ConnectionEventListener
{
public:
    HostController() = default;
    HostController(const HostController &) = delete;
    HostController &operator=(const HostController &) = delete;
    ~HostController() override = default;

    /** Who receives requests and link events; null for nobody, and they are dropped. */
    void SetListener(std::shared_ptr<HostEventListener> listener);

    /** Starts the link, then takes over its data and events. */
    void Connect();

    /** Passes a request on; a packet that is none is dropped silently. */
    void OnDataReceived(const uint8_t *data, std::size_t size) override;
    void OnServiceTerminated() override;
    void OnConnectionReleased() override;

    /**
     * Sends the packets of `record`, each on its own; a failed one does not hold up the next.
     *
     * A record whose command cannot be sent is logged and dropped.
     */
    void SendResponse(std::shared_ptr<HeaderData> record);

private:
    ReceivedDataParser mParser;
    std::shared_ptr<HostEventListener> mListener;
};

} // namespace Parvane
