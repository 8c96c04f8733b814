#include "ScriptedService.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>

namespace ParvaneWatch {

namespace {

void Check(bool good, const char *what)
{
    if (!good) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

void AwaitReadable(int fd, const char *what)
{
    constexpr int kLimitMs = 30000;
    pollfd polled{fd, POLLIN, 0};
    if (poll(&polled, 1, kLimitMs) <= 0) {
        throw std::runtime_error(what);
    }
}

} // namespace

ScriptedService::ScriptedService()
{
    std::string pattern = std::filesystem::temp_directory_path() / "parvane-watch-XXXXXX";
    Check(::mkdtemp(pattern.data()) != nullptr, "mkdtemp");
    mDirectory = pattern;
    const std::string path = Path();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        throw std::runtime_error("the temporary directory's path is too long for a socket");
    }
    std::copy(path.begin(), path.end(), std::begin(address.sun_path));
    mListener.Reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    Check(::bind(mListener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) ==
              0,
          "bind");
    Check(::listen(mListener.Get(), 4) == 0, "listen");
}

ScriptedService::~ScriptedService()
{
    std::error_code ignored;
    std::filesystem::remove_all(mDirectory, ignored);
}

void ScriptedService::Accept()
{
    AwaitReadable(mListener.Get(), "no client connects");
    mClient.Reset(::accept4(mListener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    Check(static_cast<bool>(mClient), "accept");
}

std::string ScriptedService::Receive() const
{
    AwaitReadable(mClient.Get(), "the client sends nothing");
    std::string message(70000, '\0');
    const ssize_t size = ::recv(mClient.Get(), message.data(), message.size(), 0);
    Check(size >= 0, "recv");
    message.resize(static_cast<std::size_t>(size));
    return message;
}

void ScriptedService::Send(const std::string &message) const
{
    Check(::send(mClient.Get(), message.data(), message.size(), MSG_NOSIGNAL) >= 0, "send");
}

std::string ScriptedService::AcceptRequest()
{
    Accept();
    return Receive();
}

} // namespace ParvaneWatch
