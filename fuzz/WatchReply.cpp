#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "ConfigText.h"
#include "ControlClient.h"
#include "Input.h"
#include "Require.h"
#include "StatusText.h"
#include "TestSupport.h"

// What a service may send to parvane-watch: messages with a NUL between them, on a real socket. The
// first one is the reply to a request, the others are those of a stream.

using namespace ParvaneWatch;
using ParvaneFuzz::Require;
using ParvaneFuzz::Split;

namespace {

/** The service's end of the socket. */
class Listener
{
public:
    Listener()
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        const std::string path = Path();
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        Require(bind(mSocket, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                    listen(mSocket, 1) == 0,
                "the socket can be made");
    }
    ~Listener() { close(mSocket); }
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    std::string Path() const { return mDirectory / "control.sock"; }

    /** Takes the client that has connected, and sends all messages, which is the end of it. */
    void Serve(const std::vector<std::string_view> &messages) const
    {
        const int client = accept(mSocket, nullptr, nullptr);
        Require(client >= 0, "the client has connected");
        for (const std::string_view message : messages) {
            if (send(client, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
                break; // the queue is full
            }
        }
        shutdown(client, SHUT_WR); // the request can still be sent
        mClient = Parvane::UniqueFd(client);
    }

private:
    const ParvanePlatform::TemporaryDirectory mDirectory;
    const int mSocket = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    mutable Parvane::UniqueFd mClient;
};

void CheckStatus(const nlohmann::json &reply)
{
    for (const auto &[member, text] :
         {std::pair("status", &StatusText), {"config", &ConfigText}, {"log", &LogText}}) {
        if (const auto report = reply.find(member); report != reply.end()) {
            for (const std::string &line : text(*report)) {
                Require(line.find('\n') == std::string::npos, "a line is one line");
            }
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const Listener listener;
    const auto messages = Split(ParvaneFuzz::TextOf(data, size), '\0');
    ControlClient client(listener.Path(), -1);
    listener.Serve(messages);
    std::size_t taken = 0;
    try {
        CheckStatus(client.Ask(R"({"request":"status"})"));
        while (client.Next()) {
            ++taken;
        }
        Require(taken < messages.size(), "there are no more messages than were sent");
    } catch (const Unreachable &) {
    } catch (const ProtocolError &error) {
        Require(*error.what() != '\0', "an error has a text");
    }
    return 0;
}
