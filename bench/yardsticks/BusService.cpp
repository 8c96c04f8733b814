/**
 * @file
 * A D-Bus service, by sd-bus, that answers a request of a few bytes with as many messages, of as many
 * bytes, as the service does.
 *
 * Usage: parvane-bench-bus ADDRESS
 */

#include <array>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <systemd/sd-bus.h>

#include "Replies.h"

using namespace ParvaneBench;

namespace {

/** Sends `bytes` bytes in a message, and gives up the reference to that. */
int Send(sd_bus_message *message, unsigned bytes)
{
    static const std::array<std::uint8_t, kLargestReply> content{};
    int result = sd_bus_message_append_array(message, 'y', content.data(), bytes);
    if (result >= 0) {
        result = sd_bus_send(nullptr, message, nullptr);
    }
    sd_bus_message_unref(message);
    return result < 0 ? result : 1;
}

int OnRequest(sd_bus_message *message, void * /*data*/, sd_bus_error * /*error*/) noexcept
{
    const void *request = nullptr;
    std::size_t size = 0;
    if (const int result = sd_bus_message_read_array(message, 'y', &request, &size);
        result < 0 || size == 0) {
        return result;
    }
    const bool isList = *static_cast<const std::uint8_t *>(request) == kListByte;
    if (isList) {
        // All but the last packet go ahead of the reply, to the one who has asked.
        for (std::size_t i = 0; i + 1 < std::size(kListSizes); ++i) {
            sd_bus_message *packet = nullptr;
            sd_bus *bus = sd_bus_message_get_bus(message);
            int result = sd_bus_message_new_signal(bus, &packet, kBusPath, kBusName, "Packet");
            if (result >= 0) {
                result = sd_bus_message_set_destination(packet, sd_bus_message_get_sender(message));
            }
            if (result < 0) {
                return result;
            }
            if (result = Send(packet, kListSizes[i]); result < 0) {
                return result;
            }
        }
    }
    sd_bus_message *reply = nullptr;
    const int result = sd_bus_message_new_method_return(message, &reply);
    return result < 0 ? result : Send(reply, isList ? kListSizes[4] : kReadingSizes[0]);
}

const sd_bus_vtable kMethods[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Ask", "ay", "ay", OnRequest, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

void Check(int result)
{
    if (result < 0) {
        std::exit(EXIT_FAILURE);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        return 2;
    }
    sd_bus *bus = nullptr;
    Check(sd_bus_new(&bus));
    Check(sd_bus_set_address(bus, argv[1]));
    Check(sd_bus_set_bus_client(bus, 1));
    Check(sd_bus_start(bus));
    Check(sd_bus_add_object_vtable(bus, nullptr, kBusPath, kBusName, kMethods, nullptr));
    Check(sd_bus_request_name(bus, kBusName, 0));
    for (;;) {
        const int worked = sd_bus_process(bus, nullptr);
        Check(worked);
        if (worked == 0) {
            Check(sd_bus_wait(bus, UINT64_MAX));
        }
    }
}
