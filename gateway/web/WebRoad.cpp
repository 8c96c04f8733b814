#include "WebRoad.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <sys/socket.h>
#include <utility>

#include "ErrnoText.h"
#include "Fingerprint.h"
#include "Log.h"

namespace ParvaneGateway {

namespace {

/** TLS 1.2 with what has no known weakness, and 1.3. */
constexpr char kTlsPriority[] =
    "NONE:+VERS-TLS1.3:+VERS-TLS1.2:+AES-256-GCM:+AES-128-GCM:+CHACHA20-POLY1305:+AEAD:"
    "+ECDHE-ECDSA:+ECDHE-RSA:+GROUP-X25519:+GROUP-SECP256R1:+GROUP-SECP384R1:"
    "+SIGN-ALL:-SIGN-RSA-SHA1:-SIGN-ECDSA-SHA1:+CTYPE-X509:+COMP-NULL:"
    "%SERVER_PRECEDENCE:%SAFE_RENEGOTIATION";

/** An address of either family. */
struct NetworkAddress
{
    sockaddr_storage mStorage{};
    socklen_t mSize = sizeof(sockaddr_storage);

    [[nodiscard]] sockaddr *Get() { return reinterpret_cast<sockaddr *>(&mStorage); }
    [[nodiscard]] const sockaddr_in *V4() const
    {
        return reinterpret_cast<const sockaddr_in *>(&mStorage);
    }
    [[nodiscard]] const sockaddr_in6 *V6() const
    {
        return reinterpret_cast<const sockaddr_in6 *>(&mStorage);
    }
};

NetworkAddress MakeAddress(const std::string &text, int port)
{
    NetworkAddress address;
    auto *v4 = reinterpret_cast<sockaddr_in *>(&address.mStorage);
    auto *v6 = reinterpret_cast<sockaddr_in6 *>(&address.mStorage);
    if (::inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<std::uint16_t>(port));
        address.mSize = sizeof *v4;
    } else {
        ::inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr);
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<std::uint16_t>(port));
        address.mSize = sizeof *v6;
    }
    return address;
}

std::string TextOf(const NetworkAddress &address)
{
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (address.mStorage.ss_family == AF_INET) {
        ::inet_ntop(AF_INET, &address.V4()->sin_addr, text.data(), text.size());
    } else {
        ::inet_ntop(AF_INET6, &address.V6()->sin6_addr, text.data(), text.size());
    }
    return text.data();
}

/** What counts as one address: with IPv6 a host has a network of 64 bits for itself. */
std::string NetworkOf(const NetworkAddress &address)
{
    if (address.mStorage.ss_family == AF_INET) {
        return TextOf(address);
    }
    NetworkAddress network = address;
    auto *bytes = reinterpret_cast<sockaddr_in6 *>(&network.mStorage)->sin6_addr.s6_addr;
    if (IN6_IS_ADDR_V4MAPPED(&address.V6()->sin6_addr) == 0) {
        std::fill(bytes + 8, bytes + 16, std::uint8_t{0});
    }
    return TextOf(network);
}

[[noreturn]] void Fail(const std::string &what, const WebSettings &settings)
{
    throw std::runtime_error("cannot " + what + " " + settings.mAddress + " port " +
                             std::to_string(settings.mPort) + ": " + Parvane::ErrnoText(errno));
}

} // namespace

WebRoad::WebRoad(const Settings &settings, PhoneSeat &seat, TokenStore &tokens,
                 const WebTimes &times)
    : mSettings(settings.mWeb),
      mStateDirectory(settings.mStateDirectory),
      mTokens(tokens),
      mContext{mSettings, seat, tokens, settings.mWatchDirectory + "/control.sock", times}
{}

void WebRoad::Open()
{
    const bool isLocal = mSettings.IsLocal();
    mContext.mMayBePlain = isLocal || mSettings.mInsecure;
    if (!mSettings.mTls && !mContext.mMayBePlain) {
        throw std::runtime_error(
            "[web] address is " + mSettings.mAddress +
            ", which others reach, and tls is no: set insecure=yes if that is meant");
    }
    if (mSettings.mTls) {
        LoadTls();
    }
    Listen();
    mTokens.SetListener([this] {
        for (const Entry &entry : mConnections) {
            entry.mConnection->CheckToken();
        }
    });
    Parvane::LogInfo("the network: " + Text());
}

void WebRoad::LoadTls()
{
    // GIO has no call for it, and its own choice has TLS 1.0. Read when the first connection is made.
    ::setenv("G_TLS_GNUTLS_PRIORITY", kTlsPriority, 1);
    const bool isOwn = mSettings.mCertificate.empty();
    mCertificate =
        LoadCertificate(isOwn ? mStateDirectory + "/certificate.pem" : mSettings.mCertificate,
                        isOwn ? mStateDirectory + "/key.pem" : mSettings.mKey,
                        HostNames(mSettings.mAddress), isOwn);
    mContext.mCertificate = mCertificate.get();
}

void WebRoad::Listen()
{
    constexpr int kBacklog = 128;
    NetworkAddress address = MakeAddress(mSettings.mAddress, mSettings.mPort);
    mListener.Reset(::socket(address.Get()->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC,
                             IPPROTO_TCP));
    const int yes = 1;
    if (!mListener ||
        ::setsockopt(mListener.Get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) != 0 ||
        ::bind(mListener.Get(), address.Get(), address.mSize) != 0 ||
        ::listen(mListener.Get(), kBacklog) != 0 ||
        ::getsockname(mListener.Get(), address.Get(), &address.mSize) != 0) {
        Fail("listen on", mSettings);
    }
    mPort = ntohs(address.mStorage.ss_family == AF_INET ? address.V4()->sin_port
                                                        : address.V6()->sin6_port);
    mSource = Parvane::LoopSource::WatchFd(mListener.Get(), G_IO_IN, [this] { OnAcceptable(); });
}

void WebRoad::Shut()
{
    mSource.Remove();
    mPause.Remove();
    mListener.Reset();
    for (const Entry &entry : mConnections) {
        entry.mConnection->Shut();
    }
}

nlohmann::json WebRoad::Status() const
{
    nlohmann::json status = {{"address", mSettings.mAddress},
                             {"port", mPort},
                             {"tls", mCertificate != nullptr},
                             {"plain", mContext.mMayBePlain},
                             {"connections", mConnections.size()},
                             {"refusals", mContext.mRefusals.Counts()},
                             {"text", Text()}};
    if (mCertificate) {
        status["fingerprint"] = Parvane::FingerprintOf(mCertificate.get());
    }
    return status;
}

std::string WebRoad::Text() const
{
    return mSettings.mAddress + " port " + std::to_string(mPort) + (mCertificate ? ", TLS" : "") +
           (mContext.mMayBePlain ? ", plain" : "");
}

void WebRoad::OnAcceptable()
{
    constexpr std::chrono::milliseconds kPause{1000};
    NetworkAddress address;
    Parvane::UniqueFd fd(
        ::accept4(mListener.Get(), address.Get(), &address.mSize, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!fd) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
            // The connection stays in the queue: without a pause the loop would spin.
            Parvane::LogError("cannot take a connection: " + Parvane::ErrnoText(errno));
            mSource.Remove();
            mPause = Parvane::LoopSource::After(kPause, [this] {
                mSource = Parvane::LoopSource::WatchFd(mListener.Get(), G_IO_IN,
                                                       [this] { OnAcceptable(); });
            });
        }
        return;
    }
    const std::string network = NetworkOf(address);
    if (mConnections.size() >= kMostConnections) {
        mContext.mRefusals.Count("too many connections", TextOf(address));
    } else if (IsCrowded(network)) {
        mContext.mRefusals.Count("too many connections of one address", TextOf(address));
    } else {
        Take(std::move(fd), network);
    }
}

bool WebRoad::IsCrowded(const std::string &network) const
{
    std::size_t all = 0;
    std::size_t unknown = 0;
    for (const Entry &entry : mConnections) {
        if (entry.mNetwork == network && !entry.mIsGone) {
            ++all;
            unknown += entry.mConnection->IsServed() ? 0U : 1U;
        }
    }
    return all >= kMostOfAddress || unknown >= kMostUnknown;
}

void WebRoad::Take(Parvane::UniqueFd fd, const std::string &address)
{
    const int yes = 1;
    ::setsockopt(fd.Get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes); // only slower without it
    Entry &entry = mConnections.emplace_back();
    entry.mNetwork = address;
    entry.mConnection =
        std::make_shared<WebConnection>(std::move(fd), address, mContext, [this, &entry] {
            entry.mIsGone = true;
            mSweep = Parvane::LoopSource::Post([this] { Sweep(); });
        });
    entry.mConnection->Start();
}

void WebRoad::Sweep()
{
    mConnections.remove_if([](const Entry &entry) { return entry.mIsGone; });
}

} // namespace ParvaneGateway
