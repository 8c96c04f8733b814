#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "Clock.h"
#include "ListeningSocket.h"
#include "LoopSource.h"
#include "PacketSocket.h"

namespace ParvanePlatform {

/** Hears what happens on the way to a host. May call anything of the transport's. */
class LinkEvents
{
public:
    virtual ~LinkEvents() = default;

    /** A host has connected; it is not watched yet. */
    virtual void OnConnected() = 0;

    /** One message of the host. @return whether the next one is wanted in this turn of the loop */
    virtual bool OnMessage(std::span<unsigned char> message) = 0;

    /** The host has gone, and everything that it has sent has been told. */
    virtual void OnEnded() = 0;

    /** The host has gone while nothing but that was watched for; messages of it may be left. */
    virtual void OnHungUp() = 0;
};

/**
 * How the bytes of the accessory link travel: over the socket "link.sock" of the run-time directory,
 * one host at a time, one packet of the socket per message. Main-loop thread only.
 */
class LinkTransport
{
public:
    static constexpr char kSocketName[] = "link.sock";

    /** Messages that are read in one turn of the main loop, so that all else has its turn too. */
    static constexpr int kMessagesPerTurn = 32;

    /** After that many turns with one message each, a second one is looked for as rarely. */
    static constexpr unsigned kLoneMessages = 8;

    /**
     * Opens the socket; hosts wait in its queue until Listen().
     *
     * @param events  it and `clock` are borrowed for the life of the transport
     * @param allowed a user who may connect besides the service's own and root
     * @throws StartupError when there can be no socket
     */
    LinkTransport(const std::string &runtimeDirectory, const Clock &clock, LinkEvents &events,
                  std::optional<uid_t> allowed = std::nullopt);

    /** Takes the next host, and refuses others while there is one. */
    void Listen() { mListener.Watch(); }

    /** Leaves further hosts in the socket's queue until Listen(). */
    void StopListening() { mListener.Unwatch(); }

    bool HasHost() const { return static_cast<bool>(mHost); }
    const PacketSocket::Peer &Peer() const { return mPeer; }

    /** Connections that were closed at once: of another user, or of a second host. */
    std::uint64_t RefusedHosts() const { return mRefusedHosts; }

    /** Tells of the host's messages and of its end, in place of what was watched for. */
    void WatchMessages();

    /** Tells of the host's end alone, in place of what was watched for. */
    void WatchEnd();

    /** Tells of nothing. */
    void Unwatch() { mHostSource.Remove(); }

    /** Sends the host one message; never blocks. @return 0 or errno */
    int Send(const void *data, std::size_t size) const { return mHost.Send(data, size); }

    /** Closes the host's connection, and tells of nothing. */
    void Close();

private:
    void OnListenerReady();
    void OnHostReady();
    /** @return false when there is nothing left to take in this turn */
    bool OnReceived(PacketSocket::Received received, std::size_t size);

    LinkEvents &mEvents;
    ListeningSocket mListener;
    PacketSocket mHost;
    PacketSocket::Peer mPeer;
    std::uint64_t mRefusedHosts = 0;
    /** Not cleared: a message touches as much of it as it has bytes. */
    std::unique_ptr<unsigned char[]> mReceiveBuffer;
    /** Turns since the last one that has found more than one message. */
    unsigned mLoneMessages = 0;
    Parvane::LoopSource mHostSource;
};

} // namespace ParvanePlatform
