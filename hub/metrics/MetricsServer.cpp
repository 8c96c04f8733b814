#include "MetricsServer.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <stdexcept>
#include <sys/socket.h>
#include <utility>

#include "ErrnoText.h"

namespace ParvaneHub {

namespace {

using Parvane::UniqueFd;

constexpr int kFlags = SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC;

/** An IPv4 or IPv6 address as a socket has it. */
struct Address
{
    explicit Address(const Listen &listen)
    {
        auto *v4 = reinterpret_cast<sockaddr_in *>(&mStorage);
        auto *v6 = reinterpret_cast<sockaddr_in6 *>(&mStorage);
        const auto port = htons(static_cast<std::uint16_t>(listen.mPort));
        if (::inet_pton(AF_INET, listen.mAddress.c_str(), &v4->sin_addr) == 1) {
            v4->sin_family = AF_INET;
            v4->sin_port = port;
            mSize = sizeof *v4;
        } else {
            ::inet_pton(AF_INET6, listen.mAddress.c_str(), &v6->sin6_addr);
            v6->sin6_family = AF_INET6;
            v6->sin6_port = port;
            mSize = sizeof *v6;
        }
    }

    sockaddr_storage mStorage{};
    socklen_t mSize = 0;
};

std::string Response(const std::string &status, const std::string &type, const std::string &body)
{
    return "HTTP/1.0 " + status + "\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\nCache-Control: no-store\r\n\r\n" + body;
}

bool WouldBlock(int error)
{
    return error == EAGAIN || error == EINTR;
}

} // namespace

MetricsServer::MetricsServer(const Listen &listen, std::function<std::string()> text)
    : mText(std::move(text))
{
    const Address address(listen);
    const int yes = 1;
    mListener = UniqueFd(::socket(address.mStorage.ss_family, kFlags, 0));
    ::setsockopt(mListener.Get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (!mListener ||
        ::bind(mListener.Get(), reinterpret_cast<const sockaddr *>(&address.mStorage),
               address.mSize) != 0 ||
        ::listen(mListener.Get(), static_cast<int>(kMostClients)) != 0) {
        throw std::runtime_error("cannot listen for the metrics on " + listen.mAddress + " port " +
                                 std::to_string(listen.mPort) + ": " + Parvane::ErrnoText(errno));
    }
    mSource = Parvane::LoopSource::WatchFd(mListener.Get(), G_IO_IN, [this] { OnAcceptable(); });
}

int MetricsServer::Port() const
{
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    ::getsockname(mListener.Get(), reinterpret_cast<sockaddr *>(&address), &size);
    // The port lies at the same place in both kinds.
    return ntohs(reinterpret_cast<const sockaddr_in *>(&address)->sin_port);
}

void MetricsServer::OnAcceptable()
{
    constexpr std::chrono::seconds kPatience{5};
    UniqueFd socket(::accept4(mListener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket) {
        return;
    }
    if (mClients.size() >= kMostClients) {
        mClients.pop_front(); // the one that has taken longest
    }
    Client &client = mClients.emplace_back();
    client.mSocket = std::move(socket);
    client.mSource = Parvane::LoopSource::WatchFd(client.mSocket.Get(), G_IO_IN,
                                                  [this, &client] { OnReadable(client); });
    client.mTimeout = Parvane::LoopSource::After(kPatience, [this, &client] { End(client); });
}

void MetricsServer::OnReadable(Client &client)
{
    std::array<char, 2048> bytes{};
    const ssize_t count = ::recv(client.mSocket.Get(), bytes.data(), bytes.size(), 0);
    if (count < 0 && WouldBlock(errno)) {
        return;
    }
    if (count <= 0 || client.mRequest.size() > kMostRequestBytes) {
        End(client);
        return;
    }
    client.mRequest.append(bytes.data(), static_cast<std::size_t>(count));
    if (client.mRequest.find("\r\n\r\n") == std::string::npos) {
        return;
    }
    client.mAnswer = Answer(client.mRequest);
    client.mSource = Parvane::LoopSource::WatchFd(client.mSocket.Get(), G_IO_OUT,
                                                  [this, &client] { OnWritable(client); });
}

void MetricsServer::OnWritable(Client &client)
{
    const ssize_t sent =
        ::send(client.mSocket.Get(), client.mAnswer.data(), client.mAnswer.size(), MSG_NOSIGNAL);
    if (sent < 0 && WouldBlock(errno)) {
        return;
    }
    client.mAnswer.erase(0, static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
    if (sent < 0 || client.mAnswer.empty()) {
        End(client);
    }
}

void MetricsServer::End(Client &client)
{
    mClients.remove_if([&client](const Client &one) { return &one == &client; });
}

std::string MetricsServer::Answer(const std::string &request) const
{
    const std::string line = request.substr(0, request.find("\r\n"));
    if (!line.starts_with("GET ")) {
        return Response("405 Method Not Allowed", "text/plain", "there is GET /metrics\n");
    }
    const std::string target = line.substr(4, line.find(' ', 4) - 4);
    if (target.substr(0, target.find('?')) != "/metrics") {
        return Response("404 Not Found", "text/plain", "there is GET /metrics\n");
    }
    return Response("200 OK", "application/openmetrics-text; version=1.0.0; charset=utf-8",
                    mText());
}

} // namespace ParvaneHub
