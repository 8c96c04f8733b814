#pragma once

#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "ControlRequest.h"
#include "StatusReport.h"

namespace ParvanePlatform {

class ReplaySource;

/** The request "replay" of docs/control.md: how recordings are played, and which. */
class ReplayCommand
{
public:
    /** @param parts  borrowed  @param peerPid  who asks, for the log */
    ReplayCommand(ControlledParts &parts, int peerPid) : mParts(parts), mPid(peerPid) {}

    /**
     * Changes what is asked for.
     *
     * @return how recordings are played then, or without an action which there are too: members of the reply
     * @throws Refusal
     */
    nlohmann::json Run(const ControlRequest &request);

private:
    void Open(ReplaySource &source, const ControlRequest &request);
    /** The recordings of the settings, those that lie beside them, and the installed ones. */
    [[nodiscard]] std::set<std::string> KnownRecordings() const;
    /** Those of them that a reply has room for. */
    [[nodiscard]] nlohmann::json ShownRecordings() const;

    ControlledParts &mParts;
    int mPid;
};

} // namespace ParvanePlatform
