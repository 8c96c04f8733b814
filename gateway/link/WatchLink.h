#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "LoopSource.h"
#include "Phone.h"
#include "UniqueFd.h"

namespace ParvaneGateway {

/** Hears what the watch sends. May call anything of the link's. */
class WatchLinkEvents
{
public:
    virtual ~WatchLinkEvents() = default;

    /** One packet of the watch. @return whether it has been taken; else reading rests until Resume() */
    virtual bool OnWatchPacket(PacketBytes packet) = 0;

    /** What Send() has refused may be sent again. */
    virtual void OnWatchRoom() = 0;

    /** The watch has closed the link, everything that it has sent has been told, and the link is closed. */
    virtual void OnWatchEnd() = 0;
};

/**
 * The gateway's end of the accessory link: one connection to the socket "link.sock" of the watch
 * service, one packet of the socket per packet. Never blocks. Main-loop thread only.
 */
class WatchLink
{
public:
    /** Packets that are read in one turn of the main loop, so that all else has its turn too. */
    static constexpr int kPacketsPerTurn = 32;

    /** @param events  borrowed for the life of the link */
    WatchLink(std::string path, WatchLinkEvents &events);

    /** Connects, in place of a connection before. @return 0 or errno; EAGAIN: it takes nobody more now */
    int Connect();

    /** Of the socket. */
    [[nodiscard]] const std::string &Path() const { return mPath; }

    [[nodiscard]] bool IsOpen() const { return static_cast<bool>(mSocket); }

    /** Closes the connection, and tells of nothing any more. */
    void Close();

    enum class Sent {
        Yes,
        /** The watch does not read fast enough; OnWatchRoom() follows. */
        NoRoom,
        /** The watch has gone; OnWatchEnd() follows, after what is left to read. */
        Gone
    };
    Sent Send(PacketBytes packet);

    /** Reads on; the packet that was not taken is told again first. */
    void Resume();

    /** Reads no more, for good: what the watch sends is of no use to anybody. */
    void StopReading();

private:
    void WatchInput();
    void OnReadable();
    /** @return false when there is nothing more to do in this turn */
    bool ReadPacket();
    bool HasHungUp() const;
    void End();

    std::string mPath;
    WatchLinkEvents &mEvents;
    Parvane::UniqueFd mSocket;
    Parvane::LoopSource mInput;
    Parvane::LoopSource mOutput;
    std::vector<std::uint8_t> mBuffer;
    /** The packet that nobody has taken yet is the first so many bytes of the buffer. */
    std::size_t mHeldBytes = 0;
    bool mHolds = false;
    /** Counts connections: a call that has ended one must not go on with the next. */
    std::uint64_t mConnection = 0;
};

} // namespace ParvaneGateway
