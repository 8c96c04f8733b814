/**
 * @file
 * The least that a WebSocket server of libsoup can do: it answers each message with one of a reading's size.
 *
 * Usage: parvane-bench-soup CERTIFICATE KEY    prints its port, and that for TLS
 */

#include <array>
#include <cstdint>
#include <cstdio>
#include <libsoup/soup.h>

#include "Replies.h"

namespace {

void OnMessage(SoupWebsocketConnection *connection, gint /*type*/, GBytes * /*message*/,
               gpointer /*data*/) noexcept
{
    static const std::array<std::uint8_t, ParvaneBench::kReadingSizes[0]> reply{};
    soup_websocket_connection_send_binary(connection, reply.data(), reply.size());
}

void OnClosed(SoupWebsocketConnection *connection, gpointer /*data*/) noexcept
{
    g_object_unref(connection);
}

void OnConnected(SoupServer * /*server*/, SoupServerMessage * /*message*/, const char * /*path*/,
                 SoupWebsocketConnection *connection, gpointer /*data*/) noexcept
{
    g_object_ref(connection);
    g_signal_connect(connection, "message", G_CALLBACK(OnMessage), nullptr);
    g_signal_connect(connection, "closed", G_CALLBACK(OnClosed), nullptr);
}

void OnRequest(SoupServer * /*server*/, SoupServerMessage *message, const char * /*path*/,
               GHashTable * /*query*/, gpointer /*data*/) noexcept
{
    soup_server_message_set_status(message, SOUP_STATUS_NOT_FOUND, nullptr);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        return 2;
    }
    GTlsCertificate *certificate = g_tls_certificate_new_from_files(argv[1], argv[2], nullptr);
    SoupServer *server = soup_server_new("tls-certificate", certificate, nullptr);
    char protocol[] = "parvane.link.v1";
    char *protocols[] = {protocol, nullptr};
    soup_server_add_handler(server, nullptr, OnRequest, nullptr, nullptr);
    soup_server_add_websocket_handler(server, "/link", nullptr, protocols, OnConnected, nullptr,
                                      nullptr);
    if (certificate == nullptr ||
        soup_server_listen_local(server, 0, SOUP_SERVER_LISTEN_IPV4_ONLY, nullptr) == FALSE) {
        return 1;
    }
    SoupServer *secure = soup_server_new("tls-certificate", certificate, nullptr);
    soup_server_add_websocket_handler(secure, "/link", nullptr, protocols, OnConnected, nullptr,
                                      nullptr);
    const auto https = static_cast<SoupServerListenOptions>(SOUP_SERVER_LISTEN_IPV4_ONLY |
                                                            SOUP_SERVER_LISTEN_HTTPS);
    if (soup_server_listen_local(secure, 0, https, nullptr) == FALSE) {
        return 1;
    }
    for (SoupServer *one : {server, secure}) {
        GSList *uris = soup_server_get_uris(one);
        std::printf("%d ", g_uri_get_port(static_cast<GUri *>(uris->data)));
        g_slist_free_full(
            uris, reinterpret_cast<GDestroyNotify>(reinterpret_cast<void (*)()>(g_uri_unref)));
    }
    std::printf("\n");
    std::fflush(stdout);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
    return 0;
}
