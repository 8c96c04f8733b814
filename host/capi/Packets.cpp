#include <algorithm>
#include <cstdlib>
#include <parvane/host.h>
#include <string>
#include <variant>

#include "Guard.h"
#include "Messages.h"
#include "WireCodec.h"

using namespace ParvaneHost;

namespace {

/** What each kind of packet has; called with the packet whose kind is set. */
class Teller
{
public:
    explicit Teller(parvane_packet &packet) : mPacket(&packet) {}

    void operator()(const SensorListHeader &header) const noexcept
    {
        mPacket->kind = PARVANE_PACKET_LIST_HEADER;
        mPacket->flags = header.mFlags;
        std::copy(header.mAddress.begin(), header.mAddress.end(), mPacket->address);
        mPacket->has_address = header.HasAddress() ? 1 : 0;
        mPacket->count = header.mCount;
    }

    void operator()(const SensorEntry &entry) const noexcept
    {
        mPacket->kind = PARVANE_PACKET_ENTRY;
        SetSensor(entry.mFlags, entry.mSensor);
        mPacket->position = entry.mPosition;
        mPacket->available = entry.mAvailable;
        mPacket->largest = entry.mMaxRange;
        mPacket->resolution = entry.mResolution;
        mPacket->smallest = entry.mMinValue;
        mPacket->delay_ms = entry.mMinDelayMs;
        mPacket->reserved = entry.mReserved;
    }

    void operator()(const Reading &reading) const noexcept
    {
        mPacket->kind = PARVANE_PACKET_READING;
        mPacket->command = static_cast<int>(reading.mCommand);
        SetSensor(reading.mFlags, reading.mSensor);
        mPacket->time_ms = reading.mTimeFieldMs;
        mPacket->value = reading.mValue;
    }

    void operator()(const StopAck &acknowledgement) const noexcept
    {
        mPacket->kind = PARVANE_PACKET_STOP_ACK;
        SetSensor(acknowledgement.mFlags, acknowledgement.mSensor);
    }

    void operator()(const OptionReply &reply) const noexcept
    {
        mPacket->kind = PARVANE_PACKET_OPTION;
        SetSensor(reply.mFlags, reply.mSensor);
    }

private:
    void SetSensor(std::uint8_t flags, Sensor sensor) const noexcept
    {
        mPacket->flags = flags;
        mPacket->sensor = static_cast<int>(sensor);
    }

    parvane_packet *mPacket;
};

bool IsByte(int number)
{
    return number >= 0 && number <= 255;
}

/** The request that a packet is; its command is left as it is for one that no phone sends. */
bool ReadRequest(const parvane_packet &packet, Request &request)
{
    if (packet.flags < 0 || packet.flags > WireFormat::kFlagsMask || packet.code < 0 ||
        packet.code > 1 || !IsByte(packet.sensor) || !IsByte(packet.format)) {
        return false;
    }
    const auto flags = static_cast<std::uint8_t>(packet.flags);
    const auto sensor = static_cast<Sensor>(packet.sensor);
    switch (packet.kind) {
    case PARVANE_PACKET_LIST:
        request = Request::SensorList(flags);
        break;
    case PARVANE_PACKET_MEASURE:
        request = Request::MeasureOnce(sensor, flags);
        break;
    case PARVANE_PACKET_START:
        request = Request::Start(sensor, static_cast<std::uint8_t>(packet.format), flags);
        break;
    case PARVANE_PACKET_STOP:
        request = Request::Stop(sensor, flags);
        break;
    default:
        return false;
    }
    request.mCodeBit = packet.code == 1;
    return true;
}

} // namespace

namespace ParvaneHost {

// NOLINTNEXTLINE(bugprone-exception-escape): a reply is never without a value
parvane_packet PacketOf(const Reply &reply) noexcept
{
    parvane_packet packet{};
    std::visit(Teller(packet), reply);
    return packet;
}

char *NewText(std::string_view text) noexcept
{
    auto *const copy = static_cast<char *>(std::malloc(text.size() + 1));
    if (copy != nullptr) {
        text.copy(copy, text.size());
        copy[text.size()] = '\0';
    }
    return copy;
}

} // namespace ParvaneHost

const char *parvane_host_version() noexcept
{
    return PARVANE_HOST_VERSION;
}

const char *parvane_error_text(int error) noexcept
{
    switch (error) {
    case PARVANE_EINVAL:
        return "an argument is not allowed";
    case PARVANE_ENOMEM:
        return "out of memory";
    case PARVANE_EROOM:
        return "there is no room for the result";
    case PARVANE_EMALFORMED:
        return "the bytes or the stored text are not what they should be";
    case PARVANE_EFAILED:
        return "the system has failed";
    default:
        return error >= 0 ? "no error" : "an unknown error";
    }
}

const char *parvane_sensor_name(int sensor) noexcept
{
    // Each of them is a literal, with its zero byte.
    return SensorName(static_cast<Sensor>(IsByte(sensor) ? sensor : 0)).data();
}

void parvane_free(char *text) noexcept
{
    std::free(text);
}

int parvane_encode(const parvane_packet *packet, uint8_t *bytes, size_t size) noexcept
{
    return Guarded([=] {
        Request request;
        if (packet == nullptr || bytes == nullptr || !ReadRequest(*packet, request)) {
            return static_cast<int>(PARVANE_EINVAL);
        }
        const Bytes encoded = Encode(request);
        if (encoded.size() > size) {
            return static_cast<int>(PARVANE_EROOM);
        }
        std::copy(encoded.begin(), encoded.end(), bytes);
        return static_cast<int>(encoded.size());
    });
}

int parvane_decode(const uint8_t *bytes, size_t size, parvane_packet *packet, size_t packet_size,
                   char *why, size_t why_size) noexcept
{
    return Guarded([=] {
        if (packet == nullptr || (bytes == nullptr && size > 0)) {
            return static_cast<int>(PARVANE_EINVAL);
        }
        const auto reply = Decode({bytes, size});
        if (!reply) {
            if (why != nullptr && why_size > 0) {
                const std::string text = reply.GetError().Text();
                why[text.copy(why, why_size - 1)] = '\0';
            }
            return static_cast<int>(PARVANE_EMALFORMED);
        }
        CopyOut(PacketOf(reply.Value()), packet, packet_size);
        return 0;
    });
}

int64_t parvane_full_time_ms(uint32_t time_ms, int64_t now_ms) noexcept
{
    return FullTimeMs(time_ms, now_ms);
}
