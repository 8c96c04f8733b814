#include "Host.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <variant>

#include "Bridge.h"
#include "Gateway.h"
#include "Process.h"

namespace {

constexpr std::size_t kLargestPacket = 70000;

bool IsReadable(int fd, std::chrono::milliseconds limit)
{
    pollfd ready{fd, POLLIN, 0};
    return poll(&ready, 1, static_cast<int>(limit.count())) == 1;
}

} // namespace

Host::Host(const std::filesystem::path &socketPath, std::chrono::milliseconds limit)
{
    if (const Gateway *gateway = Gateway::Of(socketPath.parent_path())) {
        ConnectToGateway(*gateway, limit);
    } else {
        ConnectToSocket(PhoneSocket(socketPath), limit);
    }
}

void Host::ConnectToGateway(const Gateway &gateway, std::chrono::milliseconds limit)
{
    mRoad = std::make_unique<ParvaneHost::GatewayRoad>(gateway.Target());
    const auto until = Parvane::Deadline::After(limit);
    while (!mLink && !mIsRefused) {
        auto link = mRoad->Connect(until, {});
        if (link) {
            mLink.emplace(std::move(link).Value());
            mFd = mLink->Fd();
            ::fcntl(mFd, F_SETFL, 0); // as that of the other road, it waits for room
            break;
        }
        const auto *error = std::get_if<ParvaneHost::LinkError>(&link.GetError());
        mIsRefused =
            error != nullptr && error->mReason == ParvaneHost::LinkError::Reason::AnotherHost;
        if (!mIsRefused && (error == nullptr || error->mIsFinal || until.HasPassed())) {
            throw std::runtime_error(Describe(link.GetError()));
        }
        PauseBriefly();
    }
}

void Host::ConnectToSocket(const std::filesystem::path &socketPath, std::chrono::milliseconds limit)
{
    const std::string path = socketPath.string();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        throw std::invalid_argument("too long for a socket: " + path);
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const bool isConnected = Eventually(
        [&] {
            mFd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
            if (connect(mFd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0) {
                return true;
            }
            Disconnect();
            return false;
        },
        limit);
    if (!isConnected) {
        throw std::runtime_error("no link at " + path);
    }
}

Host::~Host()
{
    Disconnect();
}

void Host::Disconnect()
{
    if (mLink) {
        mLink.reset();
        mRoad.reset();
    } else if (mFd >= 0) {
        close(mFd);
    }
    mFd = -1;
}

void Host::Send(const Bytes &packet) const
{
    if (send(mFd, packet.data(), packet.size(), MSG_NOSIGNAL) < 0) {
        throw std::system_error(errno, std::generic_category(), "send");
    }
}

bool Host::TrySend(const Bytes &packet) const
{
    return send(mFd, packet.data(), packet.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
}

std::optional<Bytes> Host::Receive(std::chrono::milliseconds limit) const
{
    if (!IsReadable(mFd, limit)) {
        return std::nullopt;
    }
    Bytes packet(kLargestPacket);
    const ssize_t size = recv(mFd, packet.data(), packet.size(), 0);
    if (size <= 0) {
        return std::nullopt;
    }
    packet.resize(static_cast<std::size_t>(size));
    return packet;
}

std::vector<Bytes> Host::Ask(const Bytes &packet, std::size_t count) const
{
    Send(packet);
    std::vector<Bytes> answers;
    while (answers.size() < count) {
        std::optional<Bytes> answer = Receive();
        if (!answer) {
            break;
        }
        answers.push_back(*std::move(answer));
    }
    return answers;
}

bool Host::IsClosed() const
{
    std::array<uint8_t, 1> byte{};
    return mIsRefused || Eventually([&] {
               return IsReadable(mFd, std::chrono::milliseconds(0)) &&
                      recv(mFd, byte.data(), byte.size(), MSG_DONTWAIT) <= 0;
           });
}
