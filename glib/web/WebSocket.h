#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "FrameReader.h"
#include "LoopSource.h"
#include "WebStream.h"

namespace Parvane {

/** How long a WebSocket waits for what. */
struct WebSocketTimes
{
    /** Without a byte of the other end, before it is asked whether it is there. */
    std::chrono::milliseconds mPing{20000};
    /** Until it has answered. */
    std::chrono::milliseconds mPong{10000};
    /** Until it has closed its end, too. */
    std::chrono::milliseconds mClose{2000};
};

/** Hears what comes over a WebSocket. May call anything of it, but not destroy it in its call. */
class WebSocketEvents
{
public:
    virtual ~WebSocketEvents() = default;

    virtual void OnMessage(std::span<const std::uint8_t> message) = 0;

    /** Send() has refused a message, and now there is room. */
    virtual void OnRoom() = 0;

    /** No message comes any more, and none is sent. Told once, in whatever way it has ended. */
    virtual void OnEnd() = 0;

    /** The connection is not needed any more; after OnEnd(). */
    virtual void OnClosed() = 0;

    /** The other end has answered Ping(). */
    virtual void OnPong() {}
};

/** One end of a WebSocket, after the handshake. Never blocks. In the thread of its main context only. */
class WebSocket
{
public:
    /**
     * @param stream     the connection
     * @param first      bytes of the other end that have been read already
     * @param kind       Text or Binary: of the messages in both directions
     * @param mostBytes  of a message of the other end
     * @param mostWaiting  bytes that wait for one that does not read, frames and all
     * @param events     borrowed for the life of the socket; told from Start() on
     * @param role       of this end
     */
    WebSocket(std::unique_ptr<WebStream> stream, std::string first, FrameKind kind,
              std::size_t mostBytes, std::size_t mostWaiting, const WebSocketTimes &times,
              WebSocketEvents &events, WebSocketRole role = WebSocketRole::Server);

    /** Begins to read; the first message may be told in the call. */
    void Start();

    /** Sends one message. @return false when there is no room: nothing was taken, OnRoom() follows */
    bool Send(std::span<const std::uint8_t> message);

    /** Reads no more messages until Resume(). */
    void Rest();
    void Resume();

    /** Asks the other end for an answer, which comes after all that it has sent before: OnPong(). */
    void Ping();

    /** Closes it, after what was sent. Does nothing when it is closed already. */
    void Close(CloseCode code, std::string_view reason);

    /** With what the other end has closed, or this one for it when it broke the rules; else empty. */
    [[nodiscard]] std::optional<CloseCode> EndCode() const { return mEndCode; }

private:
    void OnReadable();
    void OnSent();
    /** Tells of what has been read, as long as it may. */
    void Work();
    void Handle(const FrameReader::Event &event);
    void OnPeerClosed(CloseCode code);
    void End();
    void Finish();
    void Write(FrameKind kind, std::string_view payload);
    void WatchSilence(std::chrono::milliseconds delay);
    void OnSilence();

    std::unique_ptr<WebStream> mStream;
    FrameReader mReader;
    FrameKind mKind;
    WebSocketRole mRole;
    std::size_t mMostWaiting;
    WebSocketTimes mTimes;
    WebSocketEvents &mEvents;
    std::string mFirst;
    bool mRests = false;
    bool mWorks = false;
    bool mWantsRoom = false;
    bool mIsClosing = false; // our close frame is sent
    bool mHasEnded = false;  // OnEnd() has been told
    bool mIsFinished = false;
    bool mIsAsked = false; // a ping is on its way
    std::optional<CloseCode> mEndCode;
    std::chrono::steady_clock::time_point mHeard;
    LoopSource mSilence;
    LoopSource mCloseTimer;
};

} // namespace Parvane
