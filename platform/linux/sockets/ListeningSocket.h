#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>

#include "Clock.h"
#include "LoopSource.h"
#include "PacketSocket.h"
#include "Timer.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

/**
 * A socket on which others connect: a Unix-domain SOCK_SEQPACKET socket of mode 0600, or 0666 where another
 * user is let in, too; it is Admits() that tells them apart. The one of an earlier run is replaced, nothing
 * else is; it goes with the object. Main-loop thread only.
 */
class ListeningSocket
{
public:
    /** How long no connection is taken when the system has run out of descriptors or memory. */
    static constexpr std::int64_t kAcceptPauseMs = 1000;

    /** After a log line about refused connections there is none for that long. */
    static constexpr std::int64_t kQuietMs = 60000;

    /**
     * @param owner    whose socket it is, for the log; not copied
     * @param clock    borrowed for the life of the socket
     * @param onReady  called, while the socket is watched, for each connection that waits
     * @param allowed  a user who may connect besides this process's own and root
     * @throws StartupError that names the path and the reason
     */
    ListeningSocket(std::string path, const char *owner, const Clock &clock,
                    std::function<void()> onReady, std::optional<uid_t> allowed = std::nullopt);
    ~ListeningSocket();

    ListeningSocket(const ListeningSocket &) = delete;
    ListeningSocket &operator=(const ListeningSocket &) = delete;

    /** Begins to watch for connections; does nothing when that has begun. */
    void Watch();

    /** Leaves connections in the queue until Watch(). */
    void Unwatch();

    /** Whether whoever is at the other end may be served. */
    bool Admits(const PacketSocket::Peer &peer) const
    {
        return peer.IsTrusted() || (mAllowed && peer.mUid == *mAllowed);
    }

    /** Takes the next connection, without waiting; empty when there is none that can be used. */
    PacketSocket Accept();

    /**
     * Logs that a connection was refused, and why; those of the next minute are only counted. A timer
     * tells their number, and there is none without them.
     */
    void LogRefusal(const std::string &what);

private:
    void LogRefusalCount();
    void OnAcceptFailed(int error);

    const char *mOwner;
    const Clock &mClock;
    std::function<void()> mOnReady;
    std::optional<uid_t> mAllowed;
    std::string mPath;
    Parvane::UniqueFd mFd;
    Parvane::LoopSource mSource;
    LoopTimer mPause;
    /** Refused connections that no log line has told of. */
    std::uint64_t mRefused = 0;
    std::int64_t mQuietUntilUs = 0;
    LoopTimer mRefusedTimer;
};

} // namespace ParvanePlatform
