#pragma once

#include <optional>
#include <parvane/host.h>
#include <string>
#include <utility>
#include <vector>

#include "LinkedSession.h"
#include "Session.h"

/** What the opaque handle is: a session of its own, or that of a watch. */
struct parvane_session
{
    parvane_session(const ParvaneHost::SessionOptions &options, ParvaneHost::StepLedger ledger)
        : mOwn(std::in_place, options, std::move(ledger)), mSession(&*mOwn)
    {}

    /** @param session  borrowed, of the watch that has this handle */
    explicit parvane_session(ParvaneHost::Session &session) : mSession(&session) {}

    parvane_session(const parvane_session &) = delete;
    parvane_session &operator=(const parvane_session &) = delete;

    [[nodiscard]] bool IsOfAWatch() const { return !mOwn; }

    std::optional<ParvaneHost::Session> mOwn;
    ParvaneHost::Session *mSession;
    bool mIsAsked =
        false; // for something, since it was last looked whether there is a packet to send
    // What the event that was taken last points to.
    std::string mText;
    std::vector<parvane_packet> mPackets;
};

/** The other one: a session on the socket of its watch, and the handle of that session. */
struct parvane_watch
{
    parvane_watch(std::string path, const ParvaneHost::SessionOptions &options,
                  ParvaneHost::StepLedger ledger)
        : mLinked(std::move(path), options, std::move(ledger)), mHandle(mLinked.Get())
    {}

    ParvaneHost::LinkedSession mLinked;
    parvane_session mHandle;
};
