#include "FakeWatch.h"

#include <cstdlib>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>

#include "UnixSocket.h"

namespace ParvaneGateway {

TestFolder::TestFolder()
{
    std::string name = std::filesystem::temp_directory_path() / "parvane-gateway-test.XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no folder for the test");
    }
    mPath = name;
}

TestFolder::~TestFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
}

FakeWatch::FakeWatch(const std::string &path)
    : mListener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
{
    sockaddr_un address{};
    Parvane::MakeSocketAddress(path, address);
    ::unlink(path.c_str());
    if (::bind(mListener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) !=
            0 ||
        ::listen(mListener.Get(), 8) != 0) {
        throw std::runtime_error("no socket for the test");
    }
}

bool FakeWatch::Accept()
{
    const int fd = ::accept4(mListener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    mHost.Reset(fd);
    return true;
}

std::optional<Bytes> FakeWatch::Receive()
{
    Bytes packet(65536);
    const ssize_t size = ::recv(mHost.Get(), packet.data(), packet.size(), 0);
    if (size <= 0) {
        return std::nullopt;
    }
    packet.resize(static_cast<std::size_t>(size));
    return packet;
}

bool FakeWatch::Send(const Bytes &packet)
{
    return ::send(mHost.Get(), packet.data(), packet.size(), MSG_NOSIGNAL) >= 0;
}

bool FakeWatch::HasEnded()
{
    std::uint8_t byte = 0;
    return ::recv(mHost.Get(), &byte, 1, MSG_PEEK) == 0;
}

} // namespace ParvaneGateway
