#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <sys/socket.h>

#include <glib.h>

#include "FakeWatch.h"
#include "Input.h"
#include "PhoneSeat.h"
#include "Require.h"
#include "TestLoop.h"
#include "TokenStore.h"
#include "WebConnection.h"

// What a client of the network sends, as it comes: through a pair of sockets, to a connection of the gateway with a
// watch behind it. "TOKEN" in the input is a token that counts; the first byte says after how many of the others the
// input pauses, so that it comes in two pieces.

using namespace ParvaneGateway;
using ParvaneFuzz::Require;

namespace {

/** What outlives an input. */
struct World
{
    TestFolder mFolder;
    FakeWatch mWatch{mFolder.Path("link.sock")};
    std::string mSecret = TokenFile(mFolder.Path("")).Add("phone", Scope::Phone, 0);
    TokenStore mTokens{mFolder.Path("")};
    PhoneSeat mSeat{mFolder.Path("link.sock")};
    WebSettings mSettings;
};

void Send(int fd, std::string_view bytes)
{
    if (!bytes.empty() && ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
        Require(errno == EPIPE || errno == EAGAIN || errno == ECONNRESET, "it is taken, or not");
    }
    RunDue();
}

std::string Received(int fd)
{
    std::string answer(262144, '\0');
    const ssize_t size = ::recv(fd, answer.data(), answer.size(), MSG_DONTWAIT);
    answer.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return answer;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static World world;
    if (size < 1) {
        return 0;
    }
    std::string text(ParvaneFuzz::TextOf(data + 1, size - 1));
    bool hasToken = false;
    if (const std::size_t token = text.find("TOKEN"); token != std::string::npos) {
        text.replace(token, 5, world.mSecret);
        hasToken = true;
    }
    // A context for each: what an address has done before does not count.
    WebContext context{
        world.mSettings, world.mSeat, world.mTokens, world.mFolder.Path("control.sock"), {}};
    std::array<int, 2> fds{};
    Require(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds.data()) == 0,
            "there are sockets");
    const Parvane::UniqueFd client(fds[0]);
    bool isGone = false;
    auto connection =
        std::make_shared<WebConnection>(Parvane::UniqueFd(fds[1]), "client", context, [&isGone] {
            Require(!isGone, "an end is told once");
            isGone = true;
        });
    connection->Start();
    const std::size_t cut = std::min<std::size_t>(data[0], text.size());
    Send(client.Get(), std::string_view(text).substr(0, cut));
    Send(client.Get(), std::string_view(text).substr(cut));
    const std::string answer = Received(client.Get());
    Require(answer.empty() || answer.starts_with("HTTP/1.1 "), "what is answered is HTTP");
    Require(hasToken || !answer.starts_with("HTTP/1.1 101 "), "nobody is let in without a token");
    if (world.mWatch.Accept()) {
        Require(hasToken, "no packet comes from one who was not let in");
        while (world.mWatch.Receive()) {
        }
    }
    connection->Shut();
    RunDue();
    connection.reset();
    RunDue();
    Require(!world.mSeat.IsTaken(), "the seat is free again");
    return 0;
}
