#pragma once

#include <memory>

#include "HeaderData.h"

namespace Parvane {

/** What the host side tells the top-level controller. Called on the main-loop thread. */
class HostEventListener
{
public:
    virtual ~HostEventListener() = default;

    /** A request of the host: a SensorListData for command 1, a SensorData for 2 to 4. */
    virtual void OnRequestEvent(std::shared_ptr<HeaderData> request) = 0;

    /** The host's service has ended; the link may still be there. */
    virtual void OnHostServiceTerminated() = 0;

    /** The link to the host has been torn down. */
    virtual void OnHostDisconnected() = 0;
};

} // namespace Parvane
