#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ControlHandler.h"
#include "StatusReport.h"

namespace ParvanePlatform {

/**
 * The requests of docs/control.md, carried out on the parts of the runtime. What changes something is
 * logged, with the process that wanted it.
 */
class ControlCommands : public ControlHandler
{
public:
    /** @param parts  borrowed for the life of this object, which begins with the service's */
    explicit ControlCommands(ControlledParts parts);

    ControlAnswer Answer(std::string_view message, int peerPid) override;
    std::vector<std::string> TakeChanges() override;
    void TapLink(LinkSession::Tap tap) override { mParts.mLink.SetTap(std::move(tap)); }

private:
    ControlledParts mParts;
    Instant mStart;
    std::map<std::string, std::string> mTold;
};

} // namespace ParvanePlatform
