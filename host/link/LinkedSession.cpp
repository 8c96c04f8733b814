#include "LinkedSession.h"

#include <poll.h>
#include <utility>
#include <variant>

namespace ParvaneHost {

namespace {

using std::chrono::milliseconds;

Deadline AtOnce()
{
    return Deadline::After(milliseconds{0});
}

} // namespace

Moment Now()
{
    return {std::chrono::steady_clock::now(),
            std::chrono::floor<milliseconds>(std::chrono::system_clock::now())};
}

LinkedSession::LinkedSession(std::string path, SessionOptions options, StepLedger ledger)
    : mPath(std::move(path)), mSession(options, std::move(ledger))
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
    // With packets left there is more to read before any wait.
    if (!mLink || ReadAll()) {
        mSession.Advance(Now());
    }
    if (!mSession.WantsLink()) {
        mLink.reset();
    } else if (!mLink) {
        auto link = Link::Connect(mPath, AtOnce(), {});
        if (link) {
            Use(std::move(link).Value());
        } else {
            LoseLink(std::get<LinkError>(link.GetError()));
        }
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

void LinkedSession::SendAll()
{
    while (mLink) {
        if (!mUnsent) {
            mUnsent = mSession.NextPacket();
        }
        if (!mUnsent) {
            return;
        }
        const auto error = mLink->Send(*mUnsent, AtOnce(), {});
        if (!error) {
            mUnsent.reset();
        } else if (const auto *lost = std::get_if<LinkError>(&*error)) {
            LoseLink(*lost);
        } else {
            return;
        }
    }
}

/** @return whether that was all */
bool LinkedSession::ReadAll()
{
    constexpr int kEnough = 1000; // for whoever waits for the events
    for (int read = 0; mLink && read < kEnough; ++read) {
        auto packet = mLink->Receive(AtOnce(), {});
        if (packet) {
            mSession.Take(packet.Value(), Now());
        } else if (const auto *lost = std::get_if<LinkError>(&packet.GetError())) {
            LoseLink(*lost);
        } else if (IsTimeout(packet.GetError())) {
            return true;
        } else {
            mSession.Take(Bytes(WireFormat::kMaxMessageBytes + 1),
                          Now()); // too long, and told as such
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
