#include "WebConnection.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <nlohmann/json.hpp>
#include <sys/socket.h>
#include <tuple>
#include <utility>

#include "ConsoleFiles.h"
#include "ControlBridge.h"
#include "LinkPhone.h"

namespace ParvaneGateway {

namespace {

constexpr char kCookie[] = "parvane_session";
constexpr char kLinkPath[] = "/link";
constexpr char kControlPath[] = "/control";
constexpr std::uint8_t kTlsHandshake = 0x16;

constexpr int kNoContent = 204;
constexpr int kNotModified = 304;
constexpr int kForbidden = 403;
constexpr int kNotFound = 404;
constexpr int kMethodNotAllowed = 405;
constexpr int kTooLarge = 413;
constexpr int kUpgradeRequired = 426;
constexpr int kTooMany = 429;
constexpr int kHeadTooLarge = 431;

using Handle = std::shared_ptr<WebConnection>;

Parvane::ObjectPtr<GSocketConnection> Adopt(Parvane::UniqueFd fd)
{
    const Parvane::ObjectPtr<GSocket> socket(g_socket_new_from_fd(fd.Get(), nullptr));
    if (!socket) {
        return nullptr;
    }
    std::ignore = fd.Release(); // the socket closes it
    g_socket_set_blocking(socket.get(), FALSE);
    return Parvane::ObjectPtr<GSocketConnection>(
        g_socket_connection_factory_create_connection(socket.get()));
}

} // namespace

WebConnection::WebConnection(Parvane::UniqueFd fd, std::string address, WebContext &context,
                             std::function<void()> onGone)
    : mFd(std::move(fd)),
      mRawFd(mFd.Get()),
      mAddress(std::move(address)),
      mContext(context),
      mOnGone(std::move(onGone))
{}

WebConnection::~WebConnection()
{
    g_cancellable_cancel(mCancellable.get());
}

void WebConnection::Start()
{
    mDeadline = Parvane::LoopSource::After(mContext.mTimes.mHandshake, [this] {
        mContext.mRefusals.Count("too slow", mAddress);
        Gone();
    });
    mFirst = Parvane::LoopSource::WatchFd(mFd.Get(), G_IO_IN, [this] { OnFirstByte(); });
}

void WebConnection::CheckToken()
{
    if (mClient && !mContext.mTokens.Find(mToken->mName, mToken->mHash)) {
        mClient->End(Parvane::CloseCode::TokenEnded, "the token has ended");
    }
}

void WebConnection::Shut()
{
    if (mClient) {
        mClient->End(Parvane::CloseCode::GoingAway, "the gateway ends");
    } else {
        Gone();
    }
}

void WebConnection::OnFirstByte()
{
    std::uint8_t byte = 0;
    const ssize_t count = ::recv(mFd.Get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    mFirst.Remove();
    const bool isTls = byte == kTlsHandshake;
    if (count > 0 && isTls && mContext.mCertificate != nullptr) {
        StartTls();
        return;
    }
    auto connection = count > 0 && !isTls ? Adopt(std::move(mFd)) : nullptr;
    if (connection) {
        OpenStream(Parvane::ObjectPtr<GIOStream>(G_IO_STREAM(connection.release())));
    } else {
        Gone();
    }
}

void WebConnection::StartTls()
{
    mIsTls = true;
    const auto connection = Adopt(std::move(mFd));
    // No client has a certificate to be judged: to load the system's authorities would take megabytes for nothing,
    // which g_tls_server_connection_new() does.
    gpointer tls =
        connection
            ? g_initable_new(g_tls_backend_get_server_connection_type(g_tls_backend_get_default()),
                             nullptr, nullptr, "base-io-stream", connection.get(), "certificate",
                             mContext.mCertificate, "database", nullptr, nullptr)
            : nullptr;
    if (tls == nullptr) {
        Gone();
        return;
    }
    const Parvane::ObjectPtr<GIOStream> owned(G_IO_STREAM(tls));
    g_tls_connection_handshake_async(G_TLS_CONNECTION(tls), G_PRIORITY_DEFAULT, mCancellable.get(),
                                     OnHandshake,
                                     new std::weak_ptr<WebConnection>(weak_from_this()));
}

void WebConnection::OnHandshake(GObject *stream, GAsyncResult *result, gpointer data) noexcept
{
    const std::unique_ptr<std::weak_ptr<WebConnection>> weak(
        static_cast<std::weak_ptr<WebConnection> *>(data));
    GError *failure = nullptr;
    const bool isDone =
        g_tls_connection_handshake_finish(G_TLS_CONNECTION(stream), result, &failure) != FALSE;
    const Parvane::ErrorPtr owned(failure);
    const Handle self = weak->lock();
    if (!self || self->mIsGone) {
        return;
    }
    if (isDone && g_tls_connection_get_protocol_version(G_TLS_CONNECTION(stream)) >=
                      G_TLS_PROTOCOL_VERSION_TLS_1_2) {
        self->OpenStream(Parvane::ObjectPtr<GIOStream>(G_IO_STREAM(g_object_ref(stream))));
    } else {
        self->mContext.mRefusals.Count("no TLS", self->mAddress);
        self->Gone();
    }
}

void WebConnection::OpenStream(Parvane::ObjectPtr<GIOStream> stream)
{
    mStream = std::make_unique<Parvane::WebStream>(std::move(stream));
    mStream->WatchInput([this] { OnHead(); });
}

void WebConnection::OnHead()
{
    constexpr std::string_view kEnd = "\r\n\r\n";
    std::array<std::uint8_t, kMostHeadBytes> buffer; // NOLINT: filled by the read
    const std::ptrdiff_t count = mStream->Read(buffer);
    if (count <= 0) {
        if (count == 0) {
            Gone();
        }
        return;
    }
    const std::size_t searched = mHead.size() - std::min(mHead.size(), kEnd.size() - 1);
    mHead.append(reinterpret_cast<const char *>(buffer.data()), static_cast<std::size_t>(count));
    const std::size_t end = mHead.find(kEnd, searched);
    if (std::min(end, mHead.size()) > kMostHeadBytes - kEnd.size()) {
        Refuse(kHeadTooLarge, "headers too large");
        return;
    }
    if (end == std::string::npos) {
        return;
    }
    std::string rest = mHead.substr(end + kEnd.size());
    mHead.resize(end + kEnd.size());
    if (const auto request = HttpRequest::Parse(mHead)) {
        Serve(*request, std::move(rest));
    } else {
        Refuse(SOUP_STATUS_BAD_REQUEST, "bad request");
    }
}

void WebConnection::Serve(const HttpRequest &request, std::string rest)
{
    if (!mIsTls && !mContext.mMayBePlain) {
        Refuse(kUpgradeRequired, "plain HTTP", {{"Upgrade", "TLS/1.2"}});
    } else if (!IsOriginAllowed(request)) {
        Refuse(kForbidden, "foreign origin");
    } else if (request.Path() == kLinkPath || request.Path() == kControlPath) {
        ServeSocket(request, std::move(rest));
    } else if (request.Path() == "/session") {
        ServeSession(request);
    } else {
        ServePage(request);
    }
}

void WebConnection::ServePage(const HttpRequest &request)
{
    const auto file = FindConsoleFile(request.Path());
    if (!file) {
        Respond(kNotFound);
        return;
    }
    if (request.Method() != "GET") {
        Respond(kMethodNotAllowed, {{"Allow", "GET"}});
        return;
    }
    HeaderList headers = {{"Content-Type", file->mType},
                          {"Cache-Control", file->mCacheControl},
                          {"Vary", "Accept-Encoding"}};
    if (!file->mTag.empty()) {
        headers.emplace_back("ETag", file->mTag);
        if (request.Header("If-None-Match") == file->mTag) {
            Respond(kNotModified, headers);
            return;
        }
    }
    if (file->mIsCompressed && request.HasWord("Accept-Encoding", "gzip")) {
        headers.emplace_back("Content-Encoding", "gzip");
        Respond(SOUP_STATUS_OK, headers, file->mBytes);
    } else {
        Respond(SOUP_STATUS_OK, headers, file->Plain());
    }
}

void WebConnection::ServeSession(const HttpRequest &request)
{
    HeaderList headers = SharingHeaders(request);
    if (request.Method() == "OPTIONS" && !headers.empty()) {
        headers.insert(headers.end(), {{"Access-Control-Allow-Methods", "POST"},
                                       {"Access-Control-Allow-Headers", "Authorization"}});
        Respond(kNoContent, headers);
        return;
    }
    if (request.Method() == "GET") {
        ServeScope(request);
        return;
    }
    if (request.Method() != "POST") {
        Respond(kMethodNotAllowed, {{"Allow", "GET, POST"}});
        return;
    }
    if (request.HasBody()) {
        Respond(kTooLarge);
        return;
    }
    if (const auto token = Authorize(request, false)) {
        const std::string cookie =
            std::string(kCookie) + '=' + mContext.mAdmission.MakeSession(*token) +
            "; Path=/; HttpOnly; SameSite=Strict; Max-Age=" +
            std::to_string(std::chrono::seconds(Admission::kSessionTime).count()) +
            (mIsTls ? "; Secure" : "");
        headers.emplace_back("Set-Cookie", cookie);
        Respond(kNoContent, headers);
    }
}

void WebConnection::ServeScope(const HttpRequest &request)
{
    // Without an origin, which a page's own GET has not; no page of another one is let see the answer.
    const auto [status, token] =
        mContext.mAdmission.Judge(mAddress, request.BearerToken(), request.Cookie(kCookie));
    if (!token) {
        Respond(status); // a browser that comes for the first time is nobody to be counted
        return;
    }
    const nlohmann::json answer = {{"name", token->mName}, {"scope", NameOf(token->mScope)}};
    Respond(SOUP_STATUS_OK, {{"Content-Type", "application/json"}}, answer.dump());
}

void WebConnection::ServeSocket(const HttpRequest &request, std::string rest)
{
    const bool isLink = request.Path() == kLinkPath;
    const int status =
        request.JudgeUpgrade(isLink ? LinkPhone::kProtocol : ControlBridge::kProtocol);
    if (status != SOUP_STATUS_SWITCHING_PROTOCOLS) {
        HeaderList headers;
        if (status == kUpgradeRequired) {
            headers = {{"Upgrade", "websocket"}, {"Sec-WebSocket-Version", "13"}};
        }
        Respond(status, headers);
        return;
    }
    if (const auto token = Authorize(request, true)) {
        if (token->mScope == Scope::Console || (token->mScope == Scope::Phone) == isLink) {
            OpenClient(request, *token, std::move(rest));
        } else {
            Refuse(kForbidden, "token of another scope");
        }
    }
}

void WebConnection::OpenClient(const HttpRequest &request, const Token &token, std::string rest)
{
    mIsServed = true;
    mDeadline.Remove();
    mStream->RestInput();
    mHead = {};
    mToken = token;
    const auto onClosed = [this] { Gone(); };
    const bool isLink = request.Path() == kLinkPath;
    mStream->Write(MakeUpgradeResponse(request.Header("Sec-WebSocket-Key"),
                                       isLink ? LinkPhone::kProtocol : ControlBridge::kProtocol));
    const Parvane::WebSocketTimes &times = mContext.mTimes.mSocket;
    if (isLink) {
        mClient = std::make_unique<LinkPhone>(std::move(mStream), std::move(rest), times,
                                              token.mName, mContext.mSeat, onClosed);
    } else {
        mClient = std::make_unique<ControlBridge>(std::move(mStream), std::move(rest), times,
                                                  mContext.mControlSocket, token.mScope, onClosed);
    }
    WatchTokenEnd();
    mClient->Open();
}

void WebConnection::WatchTokenEnd()
{
    constexpr std::int64_t kMostSeconds = 86400; // the clock may be set meanwhile
    if (mToken->mEnds != 0) {
        const std::chrono::seconds left{
            std::clamp<std::int64_t>(mToken->mEnds - std::time(nullptr), 0, kMostSeconds)};
        mTokenEnd = Parvane::LoopSource::After(left, [this] {
            CheckToken();
            if (mContext.mTokens.Find(mToken->mName, mToken->mHash)) {
                WatchTokenEnd();
            }
        });
    }
}

std::optional<Token> WebConnection::Authorize(const HttpRequest &request, bool mayUseCookie)
{
    // A cookie goes along with whatever page asks, so the page's origin must be known.
    const bool hasOrigin = !request.Header("Origin").empty();
    auto [status, token] = mContext.mAdmission.Judge(
        mAddress, request.BearerToken(), mayUseCookie && hasOrigin ? request.Cookie(kCookie) : "");
    if (status == kTooMany) {
        Refuse(status, "too many wrong tokens", {{"Retry-After", "60"}});
    } else if (!token) {
        Refuse(status, "no token that counts", {{"WWW-Authenticate", "Bearer"}});
    }
    return token;
}

HeaderList WebConnection::SharingHeaders(const HttpRequest &request) const
{
    const std::string origin = request.Header("Origin");
    const auto &allowed = mContext.mSettings.mOrigins;
    if (std::find(allowed.begin(), allowed.end(), origin) == allowed.end()) {
        return {};
    }
    return {{"Access-Control-Allow-Origin", origin}, {"Access-Control-Allow-Credentials", "true"}};
}

bool WebConnection::IsOriginAllowed(const HttpRequest &request) const
{
    const std::string origin = request.Header("Origin");
    const auto &allowed = mContext.mSettings.mOrigins;
    return origin.empty() || origin == (mIsTls ? "https://" : "http://") + request.Header("Host") ||
           std::find(allowed.begin(), allowed.end(), origin) != allowed.end();
}

void WebConnection::Refuse(int status, const char *reason, const HeaderList &headers)
{
    mContext.mRefusals.Count(reason, mAddress);
    Respond(status, headers);
}

void WebConnection::Respond(int status, const HeaderList &headers, std::string_view body)
{
    mIsServed = true;
    mStream->Write(MakeResponse(status, headers, body));
    if (!mIsTls && mStream->Waiting() == 0) {
        ::shutdown(mRawFd, SHUT_WR);
    }
    // What else it sends is read: else the end of the connection would overtake the answer.
    mStream->WatchInput([this] { Discard(); });
    const WebTimes &times = mContext.mTimes;
    mDeadline = Parvane::LoopSource::After(mStream->Waiting() == 0 ? times.mLinger : times.mBody,
                                           [this] { Gone(); });
}

void WebConnection::Discard()
{
    std::array<std::uint8_t, kMostHeadBytes> buffer; // NOLINT: nobody looks at it
    if (mStream->Read(buffer) == 0) {
        Gone();
    }
}

void WebConnection::Gone()
{
    mFirst.Remove();
    mDeadline.Remove();
    mTokenEnd.Remove();
    if (mStream) {
        mStream->RestInput();
    }
    if (!std::exchange(mIsGone, true)) {
        mOnGone();
    }
}

} // namespace ParvaneGateway
