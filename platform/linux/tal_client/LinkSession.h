#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include <platform/tal_client.h>

#include "Clock.h"
#include "KeyValueStore.h"
#include "LinkTransport.h"
#include "LoopSource.h"
#include "PacketSocket.h"
#include "Timer.h"

namespace ParvanePlatform {

/**
 * The accessory link: the agent that the service registers, and the connection of one host at a time,
 * which travels as LinkTransport.h says; that one refuses a second host.
 *
 * The key kStatusKey is 1 when the link starts. It is set to 1 when a host connects and to 0 when it
 * has gone; the next host waits in the socket's queue until the watchers of the key have heard of
 * the 0. A host is indicated to the service once that has registered an agent, and nothing is read
 * from it before the service has accepted it. When it goes, everything that it has sent is delivered
 * first, then serviceTerminated, then the key.
 *
 * Notifications come from the main loop only, never from inside a call of the service, which may
 * call anything from inside any notification. Main-loop thread only.
 *
 * The link can be taken down from outside: then the key stays 0, and hosts wait in the socket's
 * queue until it is brought up again.
 */
class LinkSession : private LinkEvents
{
public:
    static constexpr char kStatusKey[] = "memory/private/tal/conn_status";

    /** The most bytes that a message to a host may have. */
    static constexpr int kMaxSendBytes = 65531;

    /** How long a host that has gone before the service was ready is kept for its messages. */
    static constexpr std::int64_t kReadyWaitMs = 10000;

    // What the operations return; 0 on success.
    static constexpr int kInvalidArgument = 1;
    static constexpr int kInvalidConnection = 2;
    static constexpr int kNetworkFailure = 3;
    static constexpr int kBufferFull = 4;

    /** The status of peerAgent() when no host is connected. */
    static constexpr int kNoPeer = 3;

    /**
     * Opens the socket and sets the key.
     *
     * @param runtimeDirectory  exists, and is used by this process alone
     * @param keys              borrowed for the life of the link
     * @param clock             borrowed for the life of the link
     * @param allowed           a user who may be the host besides the service's own and root
     * @throws StartupError when there can be no socket
     */
    LinkSession(const std::string &runtimeDirectory, KeyValueStore &keys, const Clock &clock,
                std::optional<uid_t> allowed = std::nullopt);

    /** Closes the host's connection, removes the socket and sets the key to 0. */
    ~LinkSession() override;

    LinkSession(const LinkSession &) = delete;
    LinkSession &operator=(const LinkSession &) = delete;

    /** Takes a copy; replaces what was registered before. Null functions are not called. */
    void RegisterNotifications(const tal_notifications &notifications);

    /** No notification comes any more; a host that is connected is not read from. */
    void DeregisterNotifications();

    /**
     * Registers the agent, in place of the one before; the confirmation comes from the main loop.
     *
     * The profile, the service name and the channels must not be null, and there must be a channel.
     * Nothing of `service` is used after the call.
     *
     * @return 0 or kInvalidArgument
     */
    int RegisterAgent(const tal_service_descriptor *service);

    /** Ends the agent, and the connection of its host. @return 0 or kInvalidArgument */
    int DeregisterAgent(int agentId);

    /** Asks for peerAgent(): status 0 with a host, else kNoPeer. @return 0 or kInvalidArgument */
    int FindPeer(int agentId);

    /**
     * Takes the host that is being indicated; must be called from inside that notification.
     *
     * @return 0; kInvalidArgument for another agent; kInvalidConnection for another connection
     */
    int Accept(int agentId, int connectionId);

    /**
     * Closes a host's connection; serviceTerminated does not follow.
     *
     * @return 0, also when the host has gone by itself a moment ago; kInvalidConnection
     */
    int Terminate(int connectionId);

    /**
     * Sends one message; never blocks. The socket's send buffer is the queue.
     *
     * @return 0; kInvalidArgument for null data, a size outside 1 to kMaxSendBytes or another
     *         channel; kInvalidConnection; kBufferFull when the host does not read fast enough;
     *         kNetworkFailure when it has gone
     */
    int Send(int connectionId, int channelId, int size, const void *data);

    /**
     * Takes the link down: a host's connection ends as if it had gone, except that what it has sent
     * and nobody has read is lost. Does nothing when the link is down. Not from a notification.
     */
    void TakeDown();

    /** Ends TakeDown(): the key is 1 again, and the next host is taken. Not from a notification. */
    void BringUp();

    enum class HostState {
        /** There is none. */
        None,
        /** Connected; the service does not know yet. */
        Waiting,
        /** The service is being told. */
        Indicated,
        /** The service has accepted it. */
        Open,
        /** Closed; the key's change to 0 is on its way. */
        Gone
    };

    /** What has crossed the link since the start of the service, and what has not. */
    struct Statistics
    {
        std::uint64_t mPacketsIn = 0;
        std::uint64_t mBytesIn = 0;
        std::uint64_t mPacketsOut = 0;
        std::uint64_t mBytesOut = 0;
        /** Connections that were closed at once: of another user, or of a second host. */
        std::uint64_t mRefusedHosts = 0;
        /** Messages that Send() has not taken because the host does not read fast enough. */
        std::uint64_t mQueueFull = 0;
    };

    struct LinkStatus
    {
        bool mIsDown = false;
        HostState mHostState = HostState::None;
        /** Who is connected, and since when; for no host unset. */
        PacketSocket::Peer mPeer;
        Instant mConnected;
        Statistics mStatistics;
    };

    LinkStatus Status() const;

    /** A packet that crosses the link. */
    struct Packet
    {
        /** Of the connection that it crosses; another one for each host. */
        int mConnectionId = 0;
        bool mIsFromHost = false;
        std::span<const unsigned char> mBytes;
    };

    using Tap = std::function<void(const Packet &)>;

    /**
     * Has a function told of each packet, before the service is told of a host's and after one to a host
     * is sent. It may call nothing of the link. Null ends it, and costs nothing.
     */
    void SetTap(Tap tap) { mTap = std::move(tap); }

private:
    struct Agent
    {
        int mId = 0;
        std::vector<std::uint16_t> mChannels;
        bool mConfirmed = false;
    };

    void OnConnected() override;
    bool OnMessage(std::span<unsigned char> message) override;
    void OnEnded() override;
    void OnHungUp() override;
    /** Watches the host for what its state asks for, and for nothing else. */
    void WatchHost();
    void CloseHost();
    void EndConnection();
    void AnnounceEnd();
    void OnEndAnnounced();
    void ScheduleWork();
    void DoWork();
    void ConfirmAgent();
    void AnswerPeerSearches();
    void IndicateHost();

    KeyValueStore &mKeys;
    const Clock &mClock;
    LinkTransport mTransport;
    std::optional<tal_notifications> mNotifications;
    std::optional<Agent> mAgent;
    std::vector<int> mPeerSearches;
    HostState mHostState = HostState::None;
    Instant mConnected;
    Statistics mStatistics;
    bool mIsDown = false;
    /** The link was taken down, and the key has not been set to 1 since. */
    bool mKeyIsDown = false;
    Tap mTap;
    int mConnectionId = 0;
    int mLastAgentId = 0;
    Parvane::LoopSource mWork;
    LoopTimer mReadyTimer;
    /** Lets what the key store still has to call find out that the link is gone. */
    std::shared_ptr<int> mLife = std::make_shared<int>(0);
};

} // namespace ParvanePlatform
