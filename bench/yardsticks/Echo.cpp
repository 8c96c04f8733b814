/**
 * @file
 * The least that a server can do on a socket like the service's: for each message that comes, it
 * sends packets of the sizes that are given, and nothing else.
 *
 * Usage: parvane-bench-echo poll|glib|drain SOCKET SIZE...
 *   poll   a loop around poll()
 *   glib   a GLib main loop, one message a turn
 *   drain  a GLib main loop that reads what there is in each turn
 */

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include <glib-unix.h>
#include <glib.h>

namespace {

constexpr std::size_t kLargestPacket = 4096;

struct Echo
{
    int mPeer = -1;
    bool mDrains = false;
    std::vector<std::size_t> mSizes;
};

int Listen(const char *path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (listener < 0 ||
        bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener, 1) != 0) {
        std::exit(EXIT_FAILURE);
    }
    return listener;
}

/** Serves one message. @return false when there is none, or the peer has gone */
bool ServeOne(const Echo &echo)
{
    static std::array<std::uint8_t, kLargestPacket> buffer;
    static const std::array<std::uint8_t, kLargestPacket> reply{};
    const ssize_t length = recv(echo.mPeer, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (length == 0) {
        std::exit(EXIT_SUCCESS);
    }
    if (length < 0) {
        return false;
    }
    for (const std::size_t size : echo.mSizes) {
        if (send(echo.mPeer, reply.data(), size, MSG_NOSIGNAL) < 0) {
            std::exit(EXIT_FAILURE);
        }
    }
    return true;
}

gboolean OnReady(gint /*fd*/, GIOCondition /*events*/, gpointer data) noexcept
{
    const Echo &echo = *static_cast<const Echo *>(data);
    while (ServeOne(echo) && echo.mDrains) {
    }
    return G_SOURCE_CONTINUE;
}

[[noreturn]] void RunPoll(const Echo &echo)
{
    pollfd ready{echo.mPeer, POLLIN, 0};
    for (;;) {
        poll(&ready, 1, -1);
        ServeOne(echo);
    }
}

void RunGlib(Echo &echo)
{
    GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
    g_unix_fd_add(echo.mPeer, G_IO_IN, OnReady, &echo);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 4) {
        return 2;
    }
    const std::string_view mode = argv[1];
    Echo echo;
    echo.mDrains = mode == "drain";
    for (int i = 3; i < argc; ++i) {
        echo.mSizes.push_back(std::strtoul(argv[i], nullptr, 10));
    }
    const int listener = Listen(argv[2]);
    echo.mPeer = accept(listener, nullptr, nullptr);
    if (mode == "poll") {
        RunPoll(echo);
    }
    RunGlib(echo);
    return 0;
}
