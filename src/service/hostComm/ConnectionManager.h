#pragma once

#include <cstdint>
#include <string>

#include <glib.h>

#include <platform/tal_client.h>
#include <platform/vconf.h>

#include "ConnectionEventListener.h"
#include "PlatformPtr.h"

namespace Parvane {

/**
 * The program's only contact with the accessory link.
 *
 * Registers the service agent, retries a failed registration with a growing delay, accepts the
 * host's connection, receives and sends packets. Follows the device's link-status key: 1 registers,
 * 0 tears everything down. One instance for the process, never destroyed. Main-loop thread only.
 */
class ConnectionManager
{
public:
    /** Messages of this many bytes and more are too long for the link. */
    static constexpr int32_t kMaxMessageSize = 65532;

    virtual ~ConnectionManager() = default;
    ConnectionManager(const ConnectionManager &) = delete;
    ConnectionManager &operator=(const ConnectionManager &) = delete;

    /** The instance; the first call makes it and starts to watch the link-status key. */
    static ConnectionManager *GetInstance();

    /** Who receives data and link events: borrowed for good; null for nobody. */
    void SetListener(ConnectionEventListener *listener) { mListener = listener; }

    /** The same as InitializeTALConnection. */
    void Initialize();

    /**
     * Registers notifications and the service agent with the link.
     *
     * A failure is logged and tried again after 5 ms, then 10, 15 and so on until it succeeds.
     */
    void InitializeTALConnection();

    /** Looks for the host's agent; at most 11 times for each registration, or success. */
    void FindAgentPeer();

    /**
     * Sends one message to the host.
     *
     * A null pointer, a missing connection and a message of kMaxMessageSize or more are logged; the
     * send is attempted all the same. Its failure is logged and not reported.
     */
    void SendToHost(const uint8_t *data, int32_t size);

    /** Ends the connection and the registration and tells the listener. */
    void TerminateTALConnection();

    /** Adds positions in decimal and bytes in hexadecimal, two digits and a blank each. */
    static void AppendTrace(std::string &trace, const uint8_t *data, int32_t size);

private:
    /** What the link is given for one registration. */
    struct Records
    {
        PlatformPtr<tal_notifications> mNotifications;
        PlatformPtr<tal_channel_descriptor> mChannel;
        PlatformPtr<tal_service_descriptor> mService;
    };

    ConnectionManager();

    static PlatformPtr<tal_notifications> CreateTALNotification();
    static PlatformPtr<tal_service_descriptor> CreateService(tal_channel_descriptor *channel);
    static PlatformPtr<tal_channel_descriptor> CreateChannel();

    static void TALNotiOnRegisterServiceAgentConfirm(int result, int agentId) noexcept;
    static void TALNotiOnDataReceived(int connectionId, int channelId, int size,
                                      const void *data) noexcept;
    static void TALNotiOnServiceConnectionIndication(int agentId, int connectionId, void *peer,
                                                     void *detail) noexcept;
    static void TALNotiOnServiceTerminated(int connectionId) noexcept;
    static void TALNotiOnServiceCreateConfirm(int agentId, int connectionId, void *peer,
                                              int result) noexcept;
    static void TALNotiOnPeerAgent(int agentId, void *peer, int status) noexcept;
    static void OnConnStatusChanged(vconf_node *node, void *user_data) noexcept;
    static gboolean OnRetryTimer(gpointer data) noexcept;

    static ConnectionManager *sInstance;

    int32_t mLocalAgentId = -1;
    int32_t mConnectionId = -1;
    bool mIsServiceConnected = false;
    bool mIsInitialized = false;
    ConnectionEventListener *mListener = nullptr;
    uint32_t mRetryDelay = 0;
    int32_t mFindPeerCount = 0;

    /** The message that was sent last. Never logged; it is there for a debugger and a core dump. */
    std::string mTrace;

    /** The records of the registration in force; the link may read them until its agent ends. */
    Records mRecords;

    /**
     * The records of the registration before. They are kept because a link that leads to a second
     * registration from within the first may go on reading those of the second, which ends first.
     */
    Records mReplacedRecords;
};

} // namespace Parvane
