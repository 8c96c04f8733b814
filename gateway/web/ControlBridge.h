#pragma once

#include <functional>
#include <memory>
#include <string>

#include "LoopSource.h"
#include "PacketQueue.h"
#include "Token.h"
#include "UniqueFd.h"
#include "WebClient.h"
#include "WebSocket.h"

namespace ParvaneGateway {

/**
 * Whether a token that may but look may ask this of the service's control socket: what changes nothing,
 * without a member that could.
 *
 * @param request  a message of docs/control.md
 * @param forward  set to what is sent to the service in its place: the same object, as it was understood
 *                 here; empty when the message is no object
 */
bool MayView(const std::string &request, std::string &forward);

/**
 * Somebody on /control: a connection to the service's control socket of its own, each message of which is one text
 * message, in both directions. What has no room at the client rests with the service, which tells of what
 * it was too slow for.
 */
class ControlBridge : public WebClient, private Parvane::WebSocketEvents
{
public:
    static constexpr char kProtocol[] = "parvane.control.v1";
    static constexpr std::size_t kMostRequestBytes = 8192;
    static constexpr std::size_t kMostReplyBytes = 65536;

    /**
     * @param path      of the control socket
     * @param scope     View, Control or Console
     * @param onClosed  called when it is not needed any more, not inside the constructor
     */
    ControlBridge(std::unique_ptr<Parvane::WebStream> stream, std::string first,
                  const Parvane::WebSocketTimes &times, std::string path, Scope scope,
                  std::function<void()> onClosed);

    void Open() override;
    void End(Parvane::CloseCode code, const char *reason) override;

private:
    void OnMessage(std::span<const std::uint8_t> message) override;
    void OnRoom() override;
    void OnEnd() override;
    void OnClosed() override;
    [[nodiscard]] int Connect();
    void WatchService();
    void OnReadable();
    void Flush();
    void Say(const std::string &text);

    Parvane::WebSocket mSocket;
    std::string mPath;
    Scope mScope;
    std::function<void()> mOnClosed;
    Parvane::UniqueFd mService;
    Parvane::LoopSource mInput;
    Parvane::LoopSource mOutput;
    PacketQueue mToService;
    bool mRests = false; // until the service has room
    /** A message of the service that has had no room. */
    std::string mHeld;
};

} // namespace ParvaneGateway
