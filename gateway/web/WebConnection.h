#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <gio/gio.h>

#include "HttpHead.h"
#include "LoopSource.h"
#include "ObjectPtr.h"
#include "Token.h"
#include "UniqueFd.h"
#include "WebClient.h"
#include "WebContext.h"
#include "WebStream.h"

namespace ParvaneGateway {

/**
 * One connection of the network, from its first byte: TLS or not, one request, and its answer or a
 * WebSocket. Main-loop thread only.
 */
class WebConnection : public std::enable_shared_from_this<WebConnection>
{
public:
    static constexpr std::size_t kMostHeadBytes = 16384;

    /**
     * @param fd       connected, not blocking
     * @param address  of the client, printable
     * @param context  borrowed for the life of the connection
     * @param onGone   called once, when it is not needed any more; not inside Start()
     */
    WebConnection(Parvane::UniqueFd fd, std::string address, WebContext &context,
                  std::function<void()> onGone);
    ~WebConnection();

    WebConnection(const WebConnection &) = delete;
    WebConnection &operator=(const WebConnection &) = delete;

    void Start();

    [[nodiscard]] const std::string &Address() const { return mAddress; }

    /** Whether its request has come: it has its answer, or a WebSocket. */
    [[nodiscard]] bool IsServed() const { return mIsServed; }

    /** Ends a WebSocket whose token is not there any more. */
    void CheckToken();

    /** Ends it: a WebSocket with GoingAway, all else at once. */
    void Shut();

private:
    void OnFirstByte();
    void StartTls();
    static void OnHandshake(GObject *stream, GAsyncResult *result, gpointer data) noexcept;
    void OpenStream(Parvane::ObjectPtr<GIOStream> stream);
    void OnHead();
    void Serve(const HttpRequest &request, std::string rest);
    void ServeSession(const HttpRequest &request);
    void ServeScope(const HttpRequest &request);
    void ServePage(const HttpRequest &request);
    void ServeSocket(const HttpRequest &request, std::string rest);
    void OpenClient(const HttpRequest &request, const Token &token, std::string rest);
    void WatchTokenEnd();
    /** The bearer; empty when it was refused, and the answer is on its way. */
    std::optional<Token> Authorize(const HttpRequest &request, bool mayUseCookie);
    /** With which a browser lets a page of a configured origin see the answer; none for others. */
    HeaderList SharingHeaders(const HttpRequest &request) const;
    bool IsOriginAllowed(const HttpRequest &request) const;
    void Respond(int status, const HeaderList &headers = {}, std::string_view body = {});
    void Refuse(int status, const char *reason, const HeaderList &headers = {});
    void Discard();
    void Gone();

    Parvane::UniqueFd mFd; // until it belongs to a stream
    int mRawFd = -1;
    std::string mAddress;
    WebContext &mContext;
    std::function<void()> mOnGone;
    bool mIsTls = false;
    bool mIsServed = false;
    bool mIsGone = false;
    Parvane::ObjectPtr<GCancellable> mCancellable{g_cancellable_new()};
    Parvane::LoopSource mFirst;
    Parvane::LoopSource mDeadline;
    Parvane::LoopSource mTokenEnd;
    std::string mHead;
    std::optional<Token> mToken;
    std::unique_ptr<Parvane::WebStream> mStream; // until it belongs to a client
    std::unique_ptr<WebClient> mClient;
};

} // namespace ParvaneGateway
