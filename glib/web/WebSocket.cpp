#include "WebSocket.h"

#include <array>
#include <utility>

namespace Parvane {

namespace {

/** A record of TLS has at most as many: none of it is left where no descriptor tells of it. */
constexpr std::size_t kReadBytes = 16384;

std::string_view AsText(std::span<const std::uint8_t> bytes)
{
    return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

} // namespace

WebSocket::WebSocket(std::unique_ptr<WebStream> stream, std::string first, FrameKind kind,
                     std::size_t mostBytes, std::size_t mostWaiting, const WebSocketTimes &times,
                     WebSocketEvents &events, WebSocketRole role)
    : mStream(std::move(stream)),
      mReader(kind, mostBytes, role),
      mKind(kind),
      mRole(role),
      mMostWaiting(mostWaiting),
      mTimes(times),
      mEvents(events),
      mFirst(std::move(first)),
      mHeard(std::chrono::steady_clock::now())
{
    mStream->SetSentHandler([this] { OnSent(); });
}

void WebSocket::Start()
{
    if (!mIsClosing) {
        WatchSilence(mTimes.mPing);
    }
    mReader.Feed({reinterpret_cast<const std::uint8_t *>(mFirst.data()), mFirst.size()});
    mFirst.clear();
    Resume();
}

bool WebSocket::Send(std::span<const std::uint8_t> message)
{
    constexpr std::size_t kMostHeaderBytes = 14;
    if (mIsClosing) {
        return true; // it has ended: the message has nobody to go to
    }
    if (mStream->Waiting() > 0 &&
        mStream->Waiting() + message.size() + kMostHeaderBytes > mMostWaiting) {
        mWantsRoom = true;
        return false;
    }
    Write(mKind, AsText(message));
    return true;
}

void WebSocket::Rest()
{
    mRests = true;
    mStream->RestInput();
}

void WebSocket::Resume()
{
    mRests = false;
    if (mIsFinished) {
        return;
    }
    mStream->WatchInput([this] { OnReadable(); });
    Work();
}

void WebSocket::Ping()
{
    Write(FrameKind::Ping, {});
}

void WebSocket::Close(CloseCode code, std::string_view reason)
{
    if (mIsClosing) {
        return;
    }
    mIsClosing = true;
    Write(FrameKind::Close, ClosePayload(code, reason));
    mSilence.Remove();
    // Reads on, for the other end's own close.
    if (mRests) {
        Resume();
    }
    mCloseTimer = LoopSource::After(mTimes.mClose, [this] { Finish(); });
    End();
}

void WebSocket::OnReadable()
{
    std::array<std::uint8_t, kReadBytes> buffer; // NOLINT: filled by the read
    const std::ptrdiff_t count = mStream->Read(buffer);
    if (count == WebStream::kNothing) {
        return;
    }
    if (count == 0) {
        Finish();
        return;
    }
    mHeard = std::chrono::steady_clock::now();
    if (std::exchange(mIsAsked, false) && !mIsClosing) {
        WatchSilence(mTimes.mPing); // nobody wakes up to look for the answer
    }
    mReader.Feed(std::span(buffer).first(static_cast<std::size_t>(count)));
    Work();
}

void WebSocket::OnSent()
{
    if (mStream->IsBroken()) {
        Finish();
    } else if (mWantsRoom && mStream->Waiting() <= mMostWaiting / 2) {
        mWantsRoom = false;
        if (!mIsClosing) {
            mEvents.OnRoom();
        }
    }
}

void WebSocket::Work()
{
    if (std::exchange(mWorks, true)) {
        return; // further up, which goes on
    }
    while (!mRests && !mIsFinished) {
        const auto event = mReader.Next();
        if (!event) {
            break;
        }
        Handle(*event);
    }
    mWorks = false;
}

void WebSocket::Handle(const FrameReader::Event &event)
{
    switch (event.mKind) {
    case FrameKind::Text:
    case FrameKind::Binary:
        if (!mIsClosing) {
            mEvents.OnMessage(event.mPayload);
        }
        break;
    case FrameKind::Ping:
        // One who asks and does not read gets no more than there is room for.
        if (!mIsClosing && mStream->Waiting() < mMostWaiting / 2) {
            Write(FrameKind::Pong, AsText(event.mPayload));
        }
        break;
    case FrameKind::Pong:
        mEvents.OnPong();
        break;
    case FrameKind::Close:
        OnPeerClosed(event.mCode);
        break;
    }
}

void WebSocket::OnPeerClosed(CloseCode code)
{
    mEndCode = code;
    if (!std::exchange(mIsClosing, true)) {
        mStream->Write(MakeFrame(FrameKind::Close, code == CloseCode::NoCode
                                                       ? std::string()
                                                       : ClosePayload(code, std::string_view())));
    }
    mStream->RestInput();
    if (mStream->Waiting() == 0) {
        Finish();
        return;
    }
    mStream->SetSentHandler([this] {
        if (mStream->Waiting() == 0) {
            Finish();
        }
    });
    mCloseTimer = LoopSource::After(mTimes.mClose, [this] { Finish(); });
    End();
}

void WebSocket::End()
{
    mSilence.Remove();
    if (!std::exchange(mHasEnded, true)) {
        mEvents.OnEnd();
    }
}

void WebSocket::Finish()
{
    if (std::exchange(mIsFinished, true)) {
        return;
    }
    mIsClosing = true;
    mStream->RestInput();
    mCloseTimer.Remove();
    End();
    mEvents.OnClosed();
}

void WebSocket::Write(FrameKind kind, std::string_view payload)
{
    mStream->Write(MakeFrame(kind, payload, mRole));
}

void WebSocket::WatchSilence(std::chrono::milliseconds delay)
{
    mSilence = LoopSource::After(delay, [this] { OnSilence(); });
}

void WebSocket::OnSilence()
{
    const auto silent = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - mHeard);
    if (mRests) { // whatever it says is not read now; but it is to know that somebody is here
        if (mStream->Waiting() == 0) {
            Ping();
        }
        WatchSilence(mTimes.mPing);
    } else if (silent < mTimes.mPing) {
        WatchSilence(mTimes.mPing - silent);
    } else if (!mIsAsked) {
        mIsAsked = true;
        Write(FrameKind::Ping, {});
        WatchSilence(mTimes.mPong);
    } else {
        Finish();
    }
}

} // namespace Parvane
