/**
 * @file
 * A client of an MQTT broker that answers each message of one topic with as many of another, of as
 * many bytes, as the service does.
 *
 * Usage: parvane-bench-topic SOCKET
 */

#include <array>
#include <cstdint>
#include <cstdlib>
#include <mosquitto.h>
#include <span>

#include "Replies.h"

using namespace ParvaneBench;

namespace {

void OnMessage(mosquitto *client, void * /*data*/, const mosquitto_message *message) noexcept
{
    static std::array<std::uint8_t, kLargestReply> bytes{};
    if (message->payloadlen < 2) {
        return;
    }
    const auto *request = static_cast<const std::uint8_t *>(message->payload);
    bytes[0] = request[1]; // the request's number
    const bool isList = request[0] == kListByte;
    for (const unsigned size : isList ? std::span<const unsigned>(kListSizes)
                                      : std::span<const unsigned>(kReadingSizes)) {
        mosquitto_publish(client, nullptr, kReplyTopic, static_cast<int>(size), bytes.data(), 0,
                          false);
    }
}

} // namespace

int main(int argc, char **argv)
{
    constexpr int kKeepAliveSeconds = 600;
    if (argc != 2) {
        return 2;
    }
    mosquitto_lib_init();
    mosquitto *client = mosquitto_new(nullptr, true, nullptr);
    mosquitto_message_callback_set(client, OnMessage);
    if (mosquitto_connect(client, argv[1], 0, kKeepAliveSeconds) != MOSQ_ERR_SUCCESS ||
        mosquitto_subscribe(client, nullptr, kRequestTopic, 0) != MOSQ_ERR_SUCCESS) {
        return EXIT_FAILURE;
    }
    mosquitto_loop_forever(client, -1, 1);
    return 0;
}
