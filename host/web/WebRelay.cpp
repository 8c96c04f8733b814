#include "WebRelay.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <utility>

#include "ErrnoText.h"
#include "Fingerprint.h"
#include "Upgrade.h"

namespace ParvaneHost {

namespace {

using namespace std::chrono_literals;
using Parvane::LoopSource;
using Parvane::ObjectPtr;
using Reason = LinkError::Reason;

constexpr std::chrono::milliseconds kConnectTime = 10s;
/** For the last packets of a user who has gone, to a gateway that does not read. */
constexpr std::chrono::milliseconds kLeavingTime = 2s;
constexpr std::size_t kMostPacketBytes = 65531;
constexpr std::size_t kMostWaitingBytes = 65536;
/** The gateway asks after 20 s, so that this end hears it and need not ask itself. */
constexpr Parvane::WebSocketTimes kTimes{25s, 10s, 2s};

bool WouldBlock(int code)
{
    return code == EAGAIN || code == ENOBUFS || code == ENOMEM;
}

/** What the callbacks of GIO are given, and give back. */
template <typename T>
std::unique_ptr<T> Owned(gpointer data)
{
    return std::unique_ptr<T>(static_cast<T *>(data));
}

gboolean OnCertificate(GTlsConnection * /*connection*/, GTlsCertificate *certificate,
                       GTlsCertificateFlags /*errors*/, gpointer fingerprint) noexcept
{
    return static_cast<gboolean>(Parvane::FingerprintOf(certificate) ==
                                 *static_cast<const std::string *>(fingerprint));
}

void ReleaseText(gpointer text, GClosure * /*closure*/) noexcept
{
    delete static_cast<std::string *>(text);
}

/** Small packets are to leave at once. */
void SetNoDelay(GSocketConnection *connection)
{
    g_socket_set_option(g_socket_connection_get_socket(connection), IPPROTO_TCP, TCP_NODELAY, 1,
                        nullptr);
}

bool HasHungUp(int fd)
{
    pollfd state{fd, POLLRDHUP, 0};
    return ::poll(&state, 1, 0) > 0;
}

} // namespace

WebRelay::WebRelay(WebTarget target, Handlers handlers)
    : mTarget(std::move(target)),
      mHandlers(std::move(handlers)),
      mSelf(std::make_shared<WebRelay *>(this)),
      mBuffer(kMostPacketBytes)
{
    std::array<int, 2> fds{};
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds.data()) != 0) {
        Fail(Parvane::ErrnoText(errno), false, errno);
        return;
    }
    mUserEnd.Reset(fds[0]);
    mEndHere.Reset(fds[1]);
    mDeadline = LoopSource::After(kConnectTime, [this] {
        Fail("no answer within " + SecondsText(kConnectTime), false, ETIMEDOUT);
    });
    Connect();
}

WebRelay::~WebRelay()
{
    *mSelf = nullptr;
    g_cancellable_cancel(mCancellable.get());
}

void WebRelay::Leave()
{
    if (mIsOpen) {
        ::shutdown(mEndHere.Get(), SHUT_RDWR); // what has come before is still read
    } else if (!mEnd) {
        mIsUserGone = true;
        End({Reason::Closed, 0, mTarget.mAddress, "the link " + mTarget.mAddress + " was left",
             false});
    }
}

void WebRelay::Connect()
{
    const ObjectPtr<GSocketClient> client(g_socket_client_new());
    g_socket_client_set_enable_proxy(client.get(), FALSE);
    const ObjectPtr<GSocketConnectable> place(
        g_network_address_new(mTarget.mHost.c_str(), mTarget.mPort));
    g_socket_client_connect_async(client.get(), place.get(), mCancellable.get(), OnConnected,
                                  new Self(mSelf));
}

void WebRelay::OnConnected(GObject *client, GAsyncResult *result, gpointer data) noexcept
{
    const auto self = Owned<Self>(data);
    GError *failure = nullptr;
    ObjectPtr<GSocketConnection> connection(
        g_socket_client_connect_finish(G_SOCKET_CLIENT(client), result, &failure));
    const Parvane::ErrorPtr owned(failure);
    WebRelay *relay = **self;
    if (relay == nullptr || relay->mEnd) {
        return;
    }
    if (!connection) {
        const bool isRefused =
            g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_CONNECTION_REFUSED) != FALSE;
        relay->Fail(isRefused ? "connection refused (is the gateway running?)" : failure->message,
                    false, isRefused ? ECONNREFUSED : 0);
        return;
    }
    SetNoDelay(connection.get());
    ObjectPtr<GIOStream> stream(G_IO_STREAM(connection.release()));
    if (relay->mTarget.mIsTls) {
        relay->StartTls(std::move(stream));
    } else {
        relay->AskForLink(std::move(stream));
    }
}

void WebRelay::StartTls(ObjectPtr<GIOStream> connection)
{
    const ObjectPtr<GSocketConnectable> place(
        g_network_address_new(mTarget.mHost.c_str(), mTarget.mPort));
    GError *failure = nullptr;
    const ObjectPtr<GIOStream> tls(
        g_tls_client_connection_new(connection.get(), place.get(), &failure));
    const Parvane::ErrorPtr owned(failure);
    if (!tls) {
        Fail(std::string(failure->message) + " (glib-networking has it)", true);
        return;
    }
    if (!mTarget.mFingerprint.empty()) {
        // Asked about certificates that the system does not trust; the others are judged afterwards.
        g_signal_connect_data(tls.get(), "accept-certificate", G_CALLBACK(OnCertificate),
                              new std::string(mTarget.mFingerprint), ReleaseText,
                              G_CONNECT_DEFAULT);
    }
    g_tls_connection_handshake_async(G_TLS_CONNECTION(tls.get()), G_PRIORITY_DEFAULT,
                                     mCancellable.get(), OnHandshake, new Self(mSelf));
}

void WebRelay::OnHandshake(GObject *stream, GAsyncResult *result, gpointer data) noexcept
{
    const auto self = Owned<Self>(data);
    GTlsConnection *connection = G_TLS_CONNECTION(stream);
    GError *failure = nullptr;
    g_tls_connection_handshake_finish(connection, result, &failure);
    const Parvane::ErrorPtr owned(failure);
    WebRelay *relay = **self;
    if (relay == nullptr || relay->mEnd) {
        return;
    }
    if (auto error = relay->JudgeHandshake(connection, failure)) {
        relay->End(*std::move(error));
    } else {
        relay->AskForLink(ObjectPtr<GIOStream>(G_IO_STREAM(g_object_ref(stream))));
    }
}

std::optional<LinkError> WebRelay::JudgeHandshake(GTlsConnection *connection, GError *failure) const
{
    GTlsCertificate *certificate = g_tls_connection_get_peer_certificate(connection);
    const std::string shown =
        certificate != nullptr ? Parvane::FingerprintOf(certificate) : std::string();
    const bool isPinned = !mTarget.mFingerprint.empty();
    const auto error = [this](const std::string &why, bool isFinal) {
        return LinkError{Reason::CannotConnect, 0, mTarget.mAddress,
                         "cannot connect to " + mTarget.mAddress + ": " + why, isFinal};
    };
    if (isPinned && !shown.empty() && shown != mTarget.mFingerprint) {
        return error("its certificate is another one than the fingerprint says, it has " + shown,
                     true);
    }
    if (g_error_matches(failure, G_TLS_ERROR, G_TLS_ERROR_BAD_CERTIFICATE) != FALSE && !isPinned) {
        return error(
            "this system does not trust its certificate; 'parvane-gateway status' on the watch tells the "
            "fingerprint to compare with" +
                (shown.empty() ? std::string() : ", which here is " + shown),
            true);
    }
    if (failure != nullptr) {
        return error(failure->message, false);
    }
    return std::nullopt;
}

void WebRelay::AskForLink(ObjectPtr<GIOStream> stream)
{
    mKey = MakeKey();
    mStream = std::make_unique<Parvane::WebStream>(std::move(stream));
    mStream->Write(MakeUpgradeRequest(mTarget, mKey));
    mStream->WatchInput([this] { OnHead(); });
}

void WebRelay::OnHead()
{
    constexpr std::size_t kMostHeadBytes = 16384;
    constexpr std::string_view kHeadEnd = "\r\n\r\n";
    std::array<std::uint8_t, kMostHeadBytes> buffer; // NOLINT: filled by the read
    const std::ptrdiff_t count = mStream->Read(buffer);
    if (count == Parvane::WebStream::kNothing) {
        return;
    }
    mHead.append(reinterpret_cast<const char *>(buffer.data()), static_cast<std::size_t>(count));
    const std::size_t end = mHead.find(kHeadEnd);
    if (end == std::string::npos && (count == 0 || mHead.size() > kMostHeadBytes)) {
        // One that serves no plain HTTP, or nothing but that, ends without an answer.
        Fail(count == 0 ? "it ended the connection without an answer" : "its answer is too long",
             false);
        return;
    }
    if (end == std::string::npos) {
        return;
    }
    std::string rest = mHead.substr(end + kHeadEnd.size());
    mHead.resize(end + kHeadEnd.size());
    if (auto error = JudgeAnswer(mHead, mKey, mTarget)) {
        End(*std::move(error));
        return;
    }
    mStream->RestInput();
    Parvane::WebSocketEvents &events = *this;
    mWeb = std::make_unique<Parvane::WebSocket>(
        std::move(mStream), std::move(rest), Parvane::FrameKind::Binary, kMostPacketBytes,
        kMostWaitingBytes, kTimes, events, Parvane::WebSocketRole::Client);
    mWeb->Start();
    if (!mEnd) {
        mWeb->Ping(); // a phone that is not taken gets its close before the answer
    }
}

void WebRelay::Fail(const std::string &why, bool isFinal, int code)
{
    End({Reason::CannotConnect, code, mTarget.mAddress,
         "cannot connect to " + mTarget.mAddress + ": " + why, isFinal});
}

void WebRelay::End(LinkError error)
{
    if (mEnd) {
        return;
    }
    mEnd = std::move(error);
    mDeadline.Remove();
    mFromUser.Remove();
    mToUser.Remove();
    if (mStream) {
        mStream->RestInput();
    }
    mTeller = LoopSource::Post([this] { Tell(); });
}

void WebRelay::Tell()
{
    const Parvane::UniqueFd last = std::move(mEndHere);
    const auto onEnd = std::move(mHandlers.mOnEnd);
    const LinkError error = *mEnd;
    onEnd(error);
    // The relay may be gone. Packets that nobody has read here would end the socket before the user has read its own.
    std::array<char, 1> byte{};
    ssize_t count = 0;
    do {
        count = ::recv(last.Get(), byte.data(), byte.size(), MSG_DONTWAIT);
    } while (count > 0 || (count == 0 && !HasHungUp(last.Get())) ||
             (count < 0 && (errno == ECONNRESET || errno == EINTR)));
}

void WebRelay::Opened()
{
    if (!mIsOpen && !mEnd) {
        mIsOpen = true;
        mDeadline.Remove();
        WatchUser();
        mTeller = LoopSource::Post([this] { mHandlers.mOnOpen(); });
    }
}

bool WebRelay::Deliver(std::span<const std::uint8_t> packet)
{
    ssize_t count = 0;
    do {
        count = ::send(mEndHere.Get(), packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (count < 0 && errno == EINTR);
    // A user who has gone is found where he is read.
    return count >= 0 || !WouldBlock(errno);
}

void WebRelay::WatchUser()
{
    mFromUser = LoopSource::WatchFd(mEndHere.Get(), static_cast<GIOCondition>(G_IO_IN | G_IO_HUP),
                                    [this] { OnUserReadable(); });
}

void WebRelay::OnUserReadable()
{
    constexpr int kEnough = 64; // for the others in the loop
    for (int read = 0; read < kEnough; ++read) {
        const ssize_t count =
            ::recv(mEndHere.Get(), mBuffer.data(), mBuffer.size(), MSG_DONTWAIT | MSG_TRUNC);
        if (count < 0 && (errno == EINTR || errno == ECONNRESET)) {
            continue; // packets that came before the end of a user who has not read all may follow
        }
        if (count < 0 && WouldBlock(errno)) {
            return;
        }
        if (count < 0 || (count == 0 && HasHungUp(mEndHere.Get()))) {
            OnUserGone();
            return;
        }
        if (count > static_cast<ssize_t>(kMostPacketBytes)) {
            continue; // no packet: the watch would pass over it as well
        }
        const std::span packet(mBuffer.data(), static_cast<std::size_t>(count));
        if (!mWeb->Send(packet)) {
            mForWeb.emplace(packet.begin(), packet.end());
            // Nothing but whether the user goes.
            mFromUser = LoopSource::WatchFd(mEndHere.Get(), G_IO_HUP, [this] { OnUserGone(); });
            return;
        }
    }
}

void WebRelay::OnUserGone()
{
    mFromUser.Remove();
    mToUser.Remove();
    mForUser.reset();
    mIsUserGone = true;
    if (mForWeb) {
        mDeadline = LoopSource::After(kLeavingTime, [this] { CloseWeb(); });
    } else {
        CloseWeb();
    }
}

void WebRelay::CloseWeb()
{
    mWeb->Close(Parvane::CloseCode::Normal, "");
}

void WebRelay::OnMessage(std::span<const std::uint8_t> message)
{
    Opened();
    if (mIsUserGone || Deliver(message)) {
        return;
    }
    mForUser.emplace(message.begin(), message.end());
    mWeb->Rest();
    mToUser = LoopSource::WatchFd(mEndHere.Get(), G_IO_OUT, [this] {
        if (Deliver(*mForUser)) {
            mForUser.reset();
            mToUser.Remove();
            mWeb->Resume();
        }
    });
}

void WebRelay::OnRoom()
{
    if (mForWeb) {
        if (!mWeb->Send(*mForWeb)) {
            return;
        }
        mForWeb.reset();
    }
    mDeadline.Remove();
    WatchUser(); // who may have gone while it waited, and have left more
}

void WebRelay::OnEnd()
{
    if (mIsUserGone) {
        return; // told when all has been sent
    }
    if (const auto code = mWeb->EndCode()) {
        End(ErrorOfCode(*code, mIsOpen, mTarget));
    } else {
        End({mIsOpen ? Reason::Closed : Reason::CannotConnect, 0, mTarget.mAddress,
             "the connection to " + mTarget.mAddress + " is lost", false});
    }
}

void WebRelay::OnClosed()
{
    if (mIsUserGone) {
        End({Reason::Closed, 0, mTarget.mAddress, "the link " + mTarget.mAddress + " was left",
             false});
    }
}

} // namespace ParvaneHost
