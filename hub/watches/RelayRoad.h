#pragma once

#include <memory>
#include <optional>

#include "Road.h"
#include "UniqueFd.h"
#include "WebRelay.h"
#include "WebTarget.h"

namespace ParvaneHub {

/** The gateway of a watch on the network, for links in the main loop's own thread, which never waits. */
class RelayRoad : public ParvaneHost::Road
{
public:
    explicit RelayRoad(ParvaneHost::WebTarget target);

    /** Waits for nothing, whatever the deadline is. */
    ParvaneHost::Result<ParvaneHost::Link, ParvaneHost::Error>
    Connect(const Parvane::Deadline &deadline, const Parvane::WaitOptions &options) override;
    [[nodiscard]] int Fd() const override { return mIsTrying ? mNews.Get() : -1; }
    void Leave() override;

private:
    /** What has become of a relay; its link has it as well. */
    struct Fate
    {
        bool mIsOpen = false;
        std::optional<ParvaneHost::LinkError> mEnd;
    };

    void Begin();

    ParvaneHost::WebTarget mTarget;
    Parvane::UniqueFd mNews; // readable when an attempt is over
    std::shared_ptr<Fate> mFate;
    std::unique_ptr<ParvaneHost::WebRelay>
        mRelay; // of the attempt, or of the link that it has led to
    bool mIsTrying = false;
};

} // namespace ParvaneHub
