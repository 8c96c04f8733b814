#pragma once

#include "FrameReader.h"

namespace ParvaneGateway {

/** What a WebSocket of the gateway is for: a phone, or somebody who looks into the watch. */
class WebClient
{
public:
    virtual ~WebClient() = default;

    /** Begins; may end at once. */
    virtual void Open() = 0;

    /** Ends it for that reason, after what was sent. */
    virtual void End(Parvane::CloseCode code, const char *reason) = 0;
};

} // namespace ParvaneGateway
