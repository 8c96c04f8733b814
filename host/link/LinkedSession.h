#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Deadline.h"
#include "Error.h"
#include "Link.h"
#include "Result.h"
#include "Road.h"
#include "Session.h"
#include "Wait.h"

namespace ParvaneHost {

/** The present, by the clocks of this machine. */
Moment Now();

/**
 * A Session with its links. Not thread-safe; many of them may share a thread.
 *
 * In a loop of one's own: Process(), look at every Get().NextEvent(), then wait as Fd(), Awaits() and
 * Get().Deadline() say. Or call Next(), which does all of that.
 */
class LinkedSession
{
public:
    /** @param road  for its links; it is not used yet */
    LinkedSession(std::unique_ptr<Road> road, SessionOptions options, StepLedger ledger);
    /** @param path  of a socket of this machine */
    LinkedSession(std::string path, SessionOptions options, StepLedger ledger);

    using OnLink = std::function<void(Link &)>;

    /** Called with each link that is there from now on, before any packet of it. */
    void SetOnLink(OnLink onLink) { mOnLink = std::move(onLink); }

    [[nodiscard]] Session &Get() { return mSession; }
    [[nodiscard]] const Session &Get() const { return mSession; }

    /** Gives it a link that was made elsewhere. */
    void Use(Link link);

    /**
     * Makes or closes the link as the session wants, sends, and reads what is there, without a wait.
     * Of two calls in a row one may leave out the reading, when it has sent what was asked for.
     */
    void Process();

    /** For links that are made by the caller, for Use(). */
    [[nodiscard]] Road &GetRoad() { return *mRoad; }

    /** Whether there is a link now. */
    [[nodiscard]] bool HasLink() const { return mLink.has_value(); }

    /** Of the link, or the attempt to make one; -1 without. It may be another one after each Process(). */
    [[nodiscard]] int Fd() const { return mLink ? mLink->Fd() : mRoad->Fd(); }

    /** The poll(2) events of Fd() to wait for. */
    [[nodiscard]] short Awaits() const;

    /**
     * The next event. Waits for it, with Interrupted as the options say, and Failure NoAnswer, of the
     * next reading, when `deadline` passes.
     */
    Result<Told::Event, Error> Next(const Deadline &deadline, const WaitOptions &options);

    /** What was the matter with the link that was lost last, or could not be made; nothing before. */
    [[nodiscard]] const std::optional<LinkError> &WhyLost() const { return mWhyLost; }

private:
    bool SendAll();
    bool ReadAll(const Moment &now);
    void LoseLink(const LinkError &error);

    std::unique_ptr<Road> mRoad;
    Session mSession;
    OnLink mOnLink;
    std::optional<Link> mLink;
    std::optional<Bytes> mUnsent; // for which there was no room
    bool mIsRead = false;         // empty, by the last Process()
    std::optional<LinkError> mWhyLost;
};

} // namespace ParvaneHost
