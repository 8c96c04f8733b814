/**
 * @file
 * A D-Bus service, by sd-bus, that answers a request of a few bytes with as many bytes as the service
 * does.
 *
 * Usage: parvane-bench-bus ADDRESS
 */

#include <array>
#include <cstdint>
#include <cstdlib>
#include <systemd/sd-bus.h>

#include "Replies.h"

using namespace ParvaneBench;

namespace {

int OnRequest(sd_bus_message *message, void * /*data*/, sd_bus_error * /*error*/) noexcept
{
    const void *request = nullptr;
    std::size_t size = 0;
    if (const int result = sd_bus_message_read_array(message, 'y', &request, &size);
        result < 0 || size == 0) {
        return result;
    }
    static const std::array<std::uint8_t, kListBytes> bytes{};
    const bool isList = *static_cast<const std::uint8_t *>(request) == kListByte;
    sd_bus_message *reply = nullptr;
    int result = sd_bus_message_new_method_return(message, &reply);
    if (result >= 0) {
        result = sd_bus_message_append_array(reply, 'y', bytes.data(),
                                             isList ? kListBytes : kReadingBytes);
    }
    if (result >= 0) {
        result = sd_bus_send(nullptr, reply, nullptr);
    }
    sd_bus_message_unref(reply);
    return result < 0 ? result : 1;
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
