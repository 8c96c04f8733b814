#include "LinkedSession.h"

#include <poll.h>
#include <utility>
#include <variant>

namespace ParvaneHost {

namespace {

using std::chrono::milliseconds;

} // namespace

Moment Now()
{
    return {std::chrono::steady_clock::now(),
            std::chrono::floor<milliseconds>(std::chrono::system_clock::now())};
}

LinkedSession::LinkedSession(std::unique_ptr<Road> road, SessionOptions options, StepLedger ledger)
    : mRoad(std::move(road)), mSession(options, std::move(ledger))
{}

LinkedSession::LinkedSession(std::string path, SessionOptions options, StepLedger ledger)
    : LinkedSession(std::make_unique<SocketRoad>(std::move(path)), options, std::move(ledger))
{}

void LinkedSession::Use(Link link)
{
    mLink.emplace(std::move(link));
    if (mOnLink) {
        mOnLink(*mLink);
    }
    mUnsent.reset();
    mSession.Connected(Now(), mLink->PeerRun());
}

void LinkedSession::Process()
{
    // What was asked for since the link was read empty goes first. What has come since then waits for the
    // next call, which reads in any case.
    if (std::exchange(mIsRead, false) && SendAll()) {
        return;
    }
    // With packets left there is more to read before any wait.
    const Moment now = Now();
    mIsRead = !mLink || ReadAll(now);
    if (mIsRead) {
        mSession.Advance(now);
    }
    if (!mSession.WantsLink()) {
        mLink.reset();
        mRoad->Leave();
    } else if (!mLink) {
        auto link = mRoad->Connect(Deadline::After(milliseconds{0}), {});
        if (link) {
            Use(std::move(link).Value());
        } else if (const auto *error = std::get_if<LinkError>(&link.GetError())) {
            LoseLink(*error);
        } // else it is still being made
    }
    SendAll();
}

short LinkedSession::Awaits() const
{
    return mUnsent ? POLLIN | POLLOUT : POLLIN;
}

Result<Told::Event, Error> LinkedSession::Next(const Deadline &deadline, const WaitOptions &options)
{
    for (;;) {
        // What WhyLost() says belongs to the events that are not taken yet.
        if (auto event = mSession.NextEvent()) {
            return *std::move(event);
        }
        Process();
        if (auto event = mSession.NextEvent()) {
            return *std::move(event);
        }
        Deadline until = deadline;
        if (const auto due = mSession.Deadline()) {
            const auto left = *due - std::chrono::steady_clock::now();
            until = until.Earlier(Deadline::After(std::chrono::ceil<milliseconds>(left)));
        }
        const auto waited = Parvane::WaitFor(Fd(), Awaits(), until, options);
        if (waited == Parvane::WaitResult::Interrupted) {
            return Error{Interrupted{}};
        }
        if (waited != Parvane::WaitResult::Ready && deadline.HasPassed()) {
            return Error{NoAnswer("the next reading", deadline.Length())};
        }
    }
}

/** @return whether anything was sent */
bool LinkedSession::SendAll()
{
    bool hasSent = false;
    while (mLink) {
        if (!mUnsent) {
            mUnsent = mSession.NextPacket();
        }
        if (!mUnsent) {
            break;
        }
        const auto sent = mLink->TrySend(*mUnsent);
        if (!sent) {
            LoseLink(sent.GetError());
        } else if (!sent.Value()) {
            break;
        } else {
            hasSent = true;
            mUnsent.reset();
        }
    }
    return hasSent;
}

/** @return whether that was all */
bool LinkedSession::ReadAll(const Moment &now)
{
    constexpr int kEnough = 1000; // for whoever waits for the events
    for (int read = 0; mLink && read < kEnough; ++read) {
        const auto packet = mLink->TryReceive();
        if (!packet) {
            return true;
        }
        if (packet->Ok()) {
            mSession.Take(packet->Value(), now);
        } else if (const auto *lost = std::get_if<LinkError>(&packet->GetError())) {
            LoseLink(*lost);
        } else {
            mSession.Take(Bytes(WireFormat::kMaxMessageBytes + 1),
                          now); // too long, and told as such
        }
    }
    return !mLink;
}

void LinkedSession::LoseLink(const LinkError &error)
{
    mLink.reset();
    mUnsent.reset();
    mWhyLost = error;
    mSession.Lost(Describe(error), Now());
}

} // namespace ParvaneHost
