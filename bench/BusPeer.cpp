#include "Peers.h"

#ifdef PARVANE_BENCH_BUS

#include <array>
#include <cstdint>
#include <iterator>
#include <systemd/sd-bus.h>

#include "MessageBus.h"
#include "Replies.h"

namespace ParvaneBench {

namespace {

struct BusUnref
{
    void operator()(sd_bus *bus) const noexcept { sd_bus_flush_close_unref(bus); }
};

void Check(int result, const char *what)
{
    if (result < 0) {
        Fail(std::string(what) + " failed: " + std::to_string(result));
    }
}

class BusPeer : public Peer
{
public:
    explicit BusPeer(const Setting &setting) : mBus(setting), mChild(MakeStart(setting))
    {
        sd_bus *bus = nullptr;
        Check(sd_bus_new(&bus), "sd_bus_new");
        mClient.reset(bus);
        Check(sd_bus_set_address(bus, mBus.Address().c_str()), "sd_bus_set_address");
        Check(sd_bus_set_bus_client(bus, 1), "sd_bus_set_bus_client");
        Check(sd_bus_start(bus), "sd_bus_start");
        WaitUntil("the D-Bus service", 1000,
                  [bus] { return sd_bus_get_name_creds(bus, kBusName, 0, nullptr) >= 0; });
    }

    void AskForReading() override { Ask(kReadingByte, 1); }
    void AskForList() override { Ask(kListByte, std::size(kListSizes)); }

private:
    Child::Start MakeStart(const Setting &setting) const
    {
        Child::Start start;
        start.mArguments = {setting.Yardstick("parvane-bench-bus"), mBus.Address()};
        start.mCpu = setting.mServerCpu;
        return start;
    }

    void Ask(unsigned char what, std::size_t messages)
    {
        const std::array<std::uint8_t, 4> request = {what, 0, 0, 1};
        sd_bus_message *message = nullptr;
        sd_bus_message *reply = nullptr;
        Check(sd_bus_message_new_method_call(mClient.get(), &message, kBusName, kBusPath, kBusName,
                                             "Ask"),
              "a D-Bus call");
        Check(sd_bus_message_append_array(message, 'y', request.data(), request.size()),
              "a D-Bus call");
        const int result = sd_bus_call(mClient.get(), message, 0, nullptr, &reply);
        sd_bus_message_unref(message);
        Check(result, "a D-Bus call");
        sd_bus_message_unref(reply);
        for (std::size_t i = 1; i < messages; ++i) {
            TakePacket();
        }
    }

    /** Takes one of the messages that came ahead of the reply. */
    void TakePacket()
    {
        sd_bus_message *packet = nullptr;
        do {
            const int worked = sd_bus_process(mClient.get(), &packet);
            Check(worked, "sd_bus_process");
            if (worked == 0) {
                Fail("a D-Bus answer has too few messages");
            }
        } while (packet == nullptr);
        const bool isPacket = sd_bus_message_is_signal(packet, kBusName, "Packet") > 0;
        sd_bus_message_unref(packet);
        if (!isPacket) {
            TakePacket();
        }
    }

    MessageBus mBus;
    Child mChild;
    std::unique_ptr<sd_bus, BusUnref> mClient;
};

} // namespace

std::unique_ptr<Peer> MakeBusPeer(const Setting &setting)
{
    return std::make_unique<BusPeer>(setting);
}

} // namespace ParvaneBench

#else

std::unique_ptr<ParvaneBench::Peer> ParvaneBench::MakeBusPeer(const Setting & /*setting*/)
{
    return nullptr;
}

#endif
