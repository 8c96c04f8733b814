#include "OperationSocket.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <stdexcept>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "ErrnoText.h"
#include "UnixSocket.h"
#include "Wait.h"

namespace Parvane {

namespace {

using Json = nlohmann::json;

std::string PathOf(const std::string &directory, const std::string &name)
{
    return directory + '/' + name + ".sock";
}

UniqueFd Lock(const std::string &directory, const std::string &name)
{
    const std::string path = directory + "/lock";
    UniqueFd lock(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!lock || ::flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) {
        throw std::runtime_error(
            errno == EWOULDBLOCK ? "another " + name + " uses the run-time directory " + directory
                                 : "cannot lock " + path + ": " + ErrnoText(errno));
    }
    return lock;
}

[[noreturn]] void Fail(const std::string &what, int error)
{
    throw std::runtime_error(what + ": " + ErrnoText(error));
}

bool IsTrusted(int fd)
{
    ucred peer{};
    socklen_t size = sizeof peer;
    return ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
           (peer.uid == 0 || peer.uid == ::geteuid());
}

/** One message; empty at the end, and when there is none. */
std::string Receive(int fd)
{
    std::string text(OperationSocket::kMostBytes, '\0');
    const ssize_t count = ::recv(fd, text.data(), text.size(), MSG_DONTWAIT);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return text;
}

} // namespace

OperationSocket::OperationSocket(const std::string &runtimeDirectory, const std::string &name)
    : mPath(PathOf(runtimeDirectory, name)), mLock(Lock(runtimeDirectory, name))
{
    sockaddr_un address{};
    if (const int error = MakeSocketAddress(mPath, address); error != 0) {
        Fail("cannot make the socket " + mPath, error);
    }
    mListener.Reset(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    struct stat status
    {};
    if (::lstat(mPath.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) {
        ::unlink(mPath.c_str());
    }
    const mode_t old = ::umask(0177);
    const bool isBound =
        ::bind(mListener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
    const int error = errno;
    ::umask(old);
    if (!isBound || ::listen(mListener.Get(), static_cast<int>(kMostClients)) != 0) {
        Fail("cannot make the socket " + mPath, isBound ? errno : error);
    }
    mSource = LoopSource::WatchFd(mListener.Get(), G_IO_IN, [this] { OnAcceptable(); });
}

OperationSocket::~OperationSocket()
{
    ::unlink(mPath.c_str());
}

void OperationSocket::Serve(const std::string &name, Handler handler)
{
    mHandlers[name] = std::move(handler);
}

void OperationSocket::OnAcceptable()
{
    UniqueFd socket(::accept4(mListener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket || !IsTrusted(socket.Get())) {
        return;
    }
    if (mClients.size() >= kMostClients) {
        mClients.pop_front(); // has asked nothing so far
    }
    Client &client = mClients.emplace_back();
    client.mSocket = std::move(socket);
    client.mSource =
        LoopSource::WatchFd(client.mSocket.Get(), G_IO_IN, [this, &client] { OnRequest(client); });
}

void OperationSocket::OnRequest(Client &client)
{
    const std::string text = Receive(client.mSocket.Get());
    if (!text.empty()) {
        const std::string reply = Answer(text).dump(-1, ' ', false, Json::error_handler_t::replace);
        ::send(client.mSocket.Get(), reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
    mClients.remove_if([&client](const Client &one) { return &one == &client; });
}

Json OperationSocket::Answer(const std::string &text) const
{
    try {
        const Json request = Json::parse(text);
        const auto found = mHandlers.find(request.at("request").get<std::string>());
        return found == mHandlers.end() ? Json{{"error", "unknown request"}}
                                        : found->second(request);
    } catch (const Json::exception &) {
        return {{"error", "bad message"}};
    } catch (const std::runtime_error &failure) {
        return {{"error", failure.what()}};
    }
}

Json OperationSocket::Ask(const std::string &runtimeDirectory, const std::string &name,
                          const Json &request)
{
    const auto deadline = Deadline::After(std::chrono::seconds(5));
    const std::string path = PathOf(runtimeDirectory, name);
    const auto noAnswer = [&](int error) {
        return NoAnswer("no " + name + " answers at " + path + ": " + ErrnoText(error) +
                        ConnectHint(error, name));
    };
    UniqueFd socket;
    if (const int error = ConnectToSocket(path, deadline, {}, socket); error != 0) {
        throw noAnswer(error);
    }
    const std::string text = request.dump();
    ::send(socket.Get(), text.data(), text.size(), MSG_NOSIGNAL);
    if (WaitFor(socket.Get(), POLLIN, deadline, {}) != WaitResult::Ready) {
        throw noAnswer(ETIMEDOUT);
    }
    const std::string reply = Receive(socket.Get());
    if (reply.empty()) {
        throw noAnswer(EACCES);
    }
    Json object = Json::parse(reply);
    if (object.contains("error")) {
        throw std::runtime_error(object["error"].get<std::string>());
    }
    return object;
}

} // namespace Parvane
