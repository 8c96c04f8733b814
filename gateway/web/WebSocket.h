#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "FrameReader.h"
#include "LoopSource.h"
#include "WebStream.h"

namespace ParvaneGateway {

/** How long a WebSocket waits for what. */
struct WebSocketTimes
{
    /** Without a byte of the client, before it is asked whether it is there. */
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
};

/** The server's end of one WebSocket, after the handshake. Never blocks. Main-loop thread only. */
class WebSocket
{
public:
    /**
     * @param stream     the connection
     * @param first      bytes of the client that have been read already
     * @param kind       Text or Binary: of the messages in both directions
     * @param mostBytes  of a message of the client
     * @param mostWaiting  bytes that wait for a client that does not read, frames and all
     * @param events     borrowed for the life of the socket; told from Start() on
     */
    WebSocket(std::unique_ptr<WebStream> stream, std::string first, FrameKind kind,
              std::size_t mostBytes, std::size_t mostWaiting, const WebSocketTimes &times,
              WebSocketEvents &events);

    /** Begins to read; the first message may be told in the call. */
    void Start();

    /** Sends one message. @return false when there is no room: nothing was taken, OnRoom() follows */
    bool Send(std::span<const std::uint8_t> message);

    /** Reads no more messages until Resume(). */
    void Rest();
    void Resume();

    /** Closes it, after what was sent. Does nothing when it is closed already. */
    void Close(CloseCode code, std::string_view reason);

private:
    void OnReadable();
    void OnSent();
    /** Tells of what has been read, as long as it may. */
    void Work();
    void Handle(const FrameReader::Event &event);
    void OnClientClosed(CloseCode code);
    void End();
    void Finish();
    void WatchSilence(std::chrono::milliseconds delay);
    void OnSilence();

    std::unique_ptr<WebStream> mStream;
    FrameReader mReader;
    FrameKind mKind;
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
    std::chrono::steady_clock::time_point mHeard;
    LoopSource mSilence;
    LoopSource mCloseTimer;
};

} // namespace ParvaneGateway
