#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace ParvaneGateway {

/** The longest packet of the accessory link, in either direction. */
constexpr std::size_t kMaxPacketBytes = 65531;

/** The most bytes that wait for one phone, or for the watch, in the gateway. */
constexpr std::size_t kMaxWaitingBytes = 65536;

/** One packet, or its bytes. */
using PacketBytes = std::span<const std::uint8_t>;

/** Why the seat gives a phone up. Each road says it in its own way. */
enum class PhoneEnd {
    /** There is no watch service, or it has closed the link. WebSocket: 4503. */
    WatchAway,
    /** The gateway ends. WebSocket: 1001. */
    Stopping,
    /** The phone has gone on sending although it was told not to, and nothing more has room. */
    TooMuch
};

/** What `status` tells of a phone. */
struct PhoneIdentity
{
    /** The road's name, such as "websocket". */
    std::string mRoad;
    /** Who it is on that road: the name of its token, or its Bluetooth address. Printable. */
    std::string mName;
};

/**
 * One phone on some road: what a road implements and gives to the PhoneSeat. The road owns it; from
 * Sit() until Left() or Close() the seat refers to it. Main-loop thread only.
 */
class Phone
{
public:
    virtual ~Phone() = default;

    /**
     * Takes one packet of the watch for the phone, to be sent as it is: after those before, not joined,
     * not split. Never blocks. `packet` is used during the call only.
     *
     * @return false when there is no room, because the phone does not read: nothing has been taken, and
     *         the seat offers the packet again after PhoneSeat::HasRoom(). Meanwhile nothing is read
     *         from the watch, which sees its link full
     *
     * At most kMaxWaitingBytes wait here (PacketQueue). May call PhoneSeat::Left() when sending fails.
     */
    virtual bool Deliver(PacketBytes packet) = 0;

    /** PhoneSeat::Packet() has returned false, and now packets are taken again. */
    virtual void GoOn() = 0;

    /**
     * The seat has given the phone up and calls it no more: close its connection for that reason, after
     * what was delivered, as far as the phone still reads. Left() must not follow, but does no harm.
     * The phone may be destroyed in this call.
     */
    virtual void Close(PhoneEnd why) = 0;

    [[nodiscard]] virtual PhoneIdentity Identity() const = 0;
};

} // namespace ParvaneGateway
