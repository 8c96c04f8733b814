#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Session.h"
#include "parvane/host.h"

/** What the opaque handle is. */
struct parvane_session
{
    parvane_session(const ParvaneHost::SessionOptions &options, ParvaneHost::StepLedger ledger)
        : mSession(options, std::move(ledger))
    {}

    ParvaneHost::Session mSession;
    bool mIsOfAWatch = false;
    bool mIsAsked =
        false; // for something, since it was last looked whether there is a packet to send
    // What the event that was taken last points to.
    std::string mText;
    std::vector<parvane_packet> mPackets;
};
