#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "UniqueFd.h"

namespace ParvanePlatform {

/**
 * The socket on which hosts connect: a Unix-domain SOCK_SEQPACKET socket of mode 0600. The file of
 * an earlier run is replaced; the file goes with the object.
 */
class ListeningSocket
{
public:
    /** @throws StartupError that names the path and the reason */
    explicit ListeningSocket(std::string path);
    ~ListeningSocket();

    ListeningSocket(const ListeningSocket &) = delete;
    ListeningSocket &operator=(const ListeningSocket &) = delete;

    int Fd() const { return mFd.Get(); }

    /** Takes the next connection, without waiting. @return 0 and the connection, or errno */
    int Accept(Parvane::UniqueFd &connection) const;

private:
    std::string mPath;
    Parvane::UniqueFd mFd;
};

/** The connection of one host; never blocks. */
class HostSocket
{
public:
    /** The most bytes that one message from a host may have. */
    static constexpr std::size_t kMaxReceiveBytes = 65536;

    /** What is asked of the kernel for messages that wait for the host; it doubles the value. */
    static constexpr int kSendBufferBytes = 131072;

    HostSocket() = default;
    explicit HostSocket(Parvane::UniqueFd fd) : mFd(std::move(fd)) {}

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

    /** True when the host has closed its end, whether or not messages of it are left. */
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
        /** The host has gone without reading everything; messages of it may follow. */
        Error,
        /**
         * The host has closed its end, and everything has been read: everything but messages without
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
    /** True when the host has closed its end and no byte of it is left. */
    bool HasEnded() const;

    Parvane::UniqueFd mFd;
};

} // namespace ParvanePlatform
