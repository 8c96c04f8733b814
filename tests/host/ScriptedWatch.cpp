#include "ScriptedWatch.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>
#include <system_error>

namespace ParvaneHost {

namespace {

constexpr int kLimitMs = 30000;
constexpr std::size_t kBufferBytes = 70000;

void Check(bool good, const char *what)
{
    if (!good) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

bool IsReadable(int fd, int timeoutMs)
{
    pollfd polled{fd, POLLIN, 0};
    return poll(&polled, 1, timeoutMs) > 0;
}

void AwaitReadable(int fd, const char *what)
{
    if (!IsReadable(fd, kLimitMs)) {
        throw std::runtime_error(what);
    }
}

} // namespace

ScriptedWatch::ScriptedWatch()
{
    std::string pattern = std::filesystem::temp_directory_path() / "parvane-host-XXXXXX";
    Check(::mkdtemp(pattern.data()) != nullptr, "mkdtemp");
    mDirectory = pattern;
    mPath = mDirectory + "/link.sock";

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (mPath.size() >= sizeof(address.sun_path)) {
        throw std::runtime_error("the temporary directory's path is too long for a socket");
    }
    std::copy(mPath.begin(), mPath.end(), std::begin(address.sun_path));
    mListener.Reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    Check(static_cast<bool>(mListener), "socket");
    Check(::bind(mListener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) ==
              0,
          "bind");
    Check(::listen(mListener.Get(), 4) == 0, "listen");
}

ScriptedWatch::~ScriptedWatch()
{
    std::error_code ignored;
    std::filesystem::remove_all(mDirectory, ignored);
}

void ScriptedWatch::Accept()
{
    AwaitReadable(mListener.Get(), "no host connects");
    mHost.Reset(::accept4(mListener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    Check(static_cast<bool>(mHost), "accept");
}

Bytes ScriptedWatch::Receive()
{
    AwaitReadable(mHost.Get(), "the host sends nothing");
    Bytes packet(kBufferBytes);
    const ssize_t size = ::recv(mHost.Get(), packet.data(), packet.size(), 0);
    Check(size >= 0, "recv");
    if (size == 0) {
        throw std::runtime_error("the host hung up");
    }
    packet.resize(static_cast<std::size_t>(size));
    return packet;
}

bool ScriptedWatch::IsQuiet() const
{
    return !IsReadable(mHost.Get(), 0);
}

void ScriptedWatch::Send(const Bytes &packet)
{
    Check(::send(mHost.Get(), packet.data(), packet.size(), MSG_NOSIGNAL) >= 0, "send");
}

void ScriptedWatch::HangUp()
{
    mHost.Reset();
}

bool ScriptedWatch::SeesHostLeave()
{
    AwaitReadable(mHost.Get(), "the host stays");
    std::uint8_t byte = 0;
    return ::recv(mHost.Get(), &byte, 1, 0) == 0;
}

void ScriptedWatch::StopListening()
{
    mListener.Reset();
}

void ScriptedWatch::Step(const Answerer &answerer)
{
    if (mListener && IsReadable(mListener.Get(), 0)) {
        Accept();
    }
    if (mHost && IsReadable(mHost.Get(), 0)) {
        for (const Bytes &packet : answerer(Receive())) {
            Send(packet);
        }
    }
}

} // namespace ParvaneHost
