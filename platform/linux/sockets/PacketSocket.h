#pragma once

#include <cstddef>
#include <span>
#include <utility>

#include "UniqueFd.h"

namespace ParvanePlatform {

/** One connection, of a host or of a client of the control socket; never blocks. */
class PacketSocket
{
public:
    /** The most bytes that one message from a host may have. */
    static constexpr std::size_t kMaxReceiveBytes = 65536;

    /** What is asked of the kernel for messages that wait for the other end; it doubles the value. */
    static constexpr int kSendBufferBytes = 131072;

    PacketSocket() = default;
    explicit PacketSocket(Parvane::UniqueFd fd) : mFd(std::move(fd)) {}

    int Fd() const { return mFd.Get(); }
    explicit operator bool() const { return static_cast<bool>(mFd); }
    void Close() { mFd.Reset(); }

    /** Sets the buffer size. @return 0 or errno */
    int Prepare() const;

    /** A process at the other end, as it was when it connected. */
    struct Peer
    {
        int mPid = 0;
        unsigned mUid = static_cast<unsigned>(-1);

        /** True when it has the user id of this process, or is root. */
        bool IsTrusted() const;
    };

    /** Who is at the other end; user -1, who is not trusted, when the system does not say. */
    Peer GetPeer() const;

    /** True when the other end has been closed, whether or not messages of it are left. */
    bool HasHungUp() const;

    enum class Received {
        /** One message, of at least one byte. */
        Message,
        /** A message without a byte. */
        Empty,
        /** A message longer than the buffer; it is gone. */
        TooLong,
        /** Nothing is there. */
        Nothing,
        /** The other end has gone without reading everything; messages of it may follow. */
        Error,
        /**
         * The other end is closed, and everything has been read: everything but messages without
         * a byte, which look the same when nothing follows them.
         */
        End
    };

    /**
     * Takes the next message.
     *
     * @param buffer  where it goes
     * @param size    the bytes that it has, set for Message
     */
    Received Receive(std::span<unsigned char> buffer, std::size_t &size) const;

    /** Sends one message. @return 0 or errno; EAGAIN when the buffer is full */
    int Send(const void *data, std::size_t size) const;

private:
    /** True when the other end has been closed and no byte of it is left. */
    bool HasEnded() const;

    Parvane::UniqueFd mFd;
};

} // namespace ParvanePlatform
