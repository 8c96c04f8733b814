#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Parvane {

/** The codes with which a WebSocket is closed. */
enum class CloseCode : std::uint16_t {
    Normal = 1000,
    GoingAway = 1001,
    ProtocolError = 1002,
    WrongType = 1003,
    NoCode = 1005, // never on the wire
    NotUtf8 = 1007,
    TooBig = 1009,
    TokenEnded = 4401,
    AnotherPhone = 4409,
    TooMuch = 4429,
    WatchAway = 4503
};

/** The kinds of frames that are no fragments. */
enum class FrameKind : std::uint8_t { Text = 1, Binary = 2, Close = 8, Ping = 9, Pong = 10 };

/** Which end of a connection this is: the frames of a client are masked, those of a server are not. */
enum class WebSocketRole { Server, Client };

/** One frame, whole. */
std::string MakeFrame(FrameKind kind, std::string_view payload,
                      WebSocketRole role = WebSocketRole::Server);

/** The payload of a frame that closes: the code and a reason of at most 123 bytes. */
std::string ClosePayload(CloseCode code, std::string_view reason);

/**
 * Makes messages out of the bytes of the other end (RFC 6455), however these are cut. No extensions. What
 * breaks the rules ends it, and nothing follows. Keeps one message at most, and what was fed.
 */
class FrameReader
{
public:
    /**
     * @param wanted    Text or Binary: a message of the other kind ends the connection
     * @param mostBytes of one message, whether it is fragmented or not
     * @param role      of this end
     */
    FrameReader(FrameKind wanted, std::size_t mostBytes, WebSocketRole role = WebSocketRole::Server)
        : mWanted(wanted), mMostBytes(mostBytes), mIsMasked(role == WebSocketRole::Server)
    {}

    void Feed(std::span<const std::uint8_t> bytes);

    struct Event
    {
        /** A whole message, or a control frame; Close also for what breaks the rules. */
        FrameKind mKind;
        /** Of a message; of a ping what the pong must have. */
        std::vector<std::uint8_t> mPayload;
        /** For Close: what to answer; NoCode when the other end gave none. */
        CloseCode mCode = CloseCode::Normal;
    };

    /** The next of what the bytes hold; empty when more of them are needed. */
    std::optional<Event> Next();

private:
    struct Header
    {
        bool mIsLast = false;
        std::uint8_t mOpcode = 0;
        std::uint64_t mLength = 0;
        std::size_t mBytes = 0;
        std::array<std::uint8_t, 4> mMask{};
    };

    /** Empty when more bytes are needed, or when mCode says that the rules are broken. */
    std::optional<Header> ReadHeader();
    bool IsAllowed(const Header &header);
    std::optional<Event> Take(const Header &header);
    std::optional<Event> TakeControl(FrameKind kind, std::vector<std::uint8_t> payload);
    Event Break(CloseCode code);
    std::size_t Left() const { return mBytes.size() - mBegin; }

    FrameKind mWanted;
    std::size_t mMostBytes;
    bool mIsMasked; // what comes
    std::vector<std::uint8_t> mBytes;
    std::size_t mBegin = 0; // of what has not been read
    std::vector<std::uint8_t> mMessage;
    bool mIsFragmented = false;
    bool mHasEnded = false;
    CloseCode mCode = CloseCode::Normal;
};

} // namespace Parvane
