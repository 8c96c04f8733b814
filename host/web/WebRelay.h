#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <gio/gio.h>

#include "Error.h"
#include "LoopSource.h"
#include "ObjectPtr.h"
#include "UniqueFd.h"
#include "WebSocket.h"
#include "WebStream.h"
#include "WebTarget.h"

namespace ParvaneHost {

/**
 * A watch behind a gateway, as a connected packet socket: connects to the gateway, and carries every
 * packet between the WebSocket and one end of a pair of SOCK_SEQPACKET sockets. The other end is for a
 * Link, or whatever reads and writes packets, in any thread.
 *
 * Order and bounds of the packets are kept; one of more than 65,531 bytes is dropped. At most 64 KiB wait for the network here; while one side is
 * full, the other one is not read. The end of either side is passed on, behind all packets that came before it.
 *
 * Lives on the main context that is the thread's default when it is made, and only in that thread. Makes
 * no thread itself, and blocks nobody.
 */
class WebRelay : private Parvane::WebSocketEvents
{
public:
    /** Both are called from the main context, never within a call of the relay. */
    struct Handlers
    {
        /** The watch has taken the phone. Packets that are sent before wait for it. */
        std::function<void()> mOnOpen;
        /**
         * It is over, told once: what the user is to be told, and by mIsFinal whether another attempt can help. The
         * socket that was taken ends after this call. The handler may destroy the relay.
         */
        std::function<void(const LinkError &)> mOnEnd;
    };

    /** Begins to connect, which takes 10 s at most. */
    WebRelay(WebTarget target, Handlers handlers);

    /** Cuts off whatever is under way; nothing is called any more. */
    ~WebRelay() override;

    WebRelay(const WebRelay &) = delete;
    WebRelay &operator=(const WebRelay &) = delete;

    /** The user's end, not blocking; once. To leave it is closed, and mOnEnd follows when all has been sent. */
    [[nodiscard]] Parvane::UniqueFd TakeSocket() { return std::move(mUserEnd); }

    /** As if the user's end were closed. */
    void Leave();

private:
    using Self = std::shared_ptr<WebRelay *>;

    void Connect();
    static void OnConnected(GObject *client, GAsyncResult *result, gpointer data) noexcept;
    static void OnHandshake(GObject *stream, GAsyncResult *result, gpointer data) noexcept;
    void StartTls(Parvane::ObjectPtr<GIOStream> connection);
    [[nodiscard]] std::optional<LinkError> JudgeHandshake(GTlsConnection *connection,
                                                          GError *failure) const;
    void AskForLink(Parvane::ObjectPtr<GIOStream> stream);
    void OnHead();
    void Fail(const std::string &why, bool isFinal, int code = 0);
    void End(LinkError error);
    void Tell();
    void Opened();
    bool Deliver(std::span<const std::uint8_t> packet);
    void WatchUser();
    void OnUserReadable();
    void OnUserGone();
    void CloseWeb();

    void OnMessage(std::span<const std::uint8_t> message) override;
    void OnRoom() override;
    void OnEnd() override;
    void OnClosed() override;
    void OnPong() override { Opened(); }

    WebTarget mTarget;
    Handlers mHandlers;
    Self mSelf; // what callbacks of GIO have, which may come after the end
    Parvane::ObjectPtr<GCancellable> mCancellable{g_cancellable_new()};
    Parvane::LoopSource
        mDeadline; // of the connection; later for the last packets of a user who has gone
    Parvane::LoopSource mTeller;

    std::unique_ptr<Parvane::WebStream> mStream; // until it is a WebSocket
    std::string mKey;
    std::string mHead;
    std::unique_ptr<Parvane::WebSocket> mWeb;
    bool mIsOpen = false;
    bool mIsUserGone = false;
    std::optional<LinkError> mEnd;

    Parvane::UniqueFd mUserEnd;
    Parvane::UniqueFd mEndHere;
    Parvane::LoopSource mFromUser;
    Parvane::LoopSource mToUser;
    std::vector<std::uint8_t> mBuffer;
    std::optional<std::vector<std::uint8_t>> mForWeb;  // a packet for which there is no room yet
    std::optional<std::vector<std::uint8_t>> mForUser; // the same, in the other direction
};

} // namespace ParvaneHost
