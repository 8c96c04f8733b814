#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "BusScope.h"
#include "GattObjects.h"
#include "LoopSource.h"
#include "Phone.h"
#include "PhoneSeat.h"
#include "UniqueFd.h"

namespace ParvaneGateway {

/** Hears what becomes of a seated phone. */
class BluetoothPhoneEvents
{
public:
    virtual ~BluetoothPhoneEvents() = default;

    /** BlueZ has closed a descriptor: the phone wants no more, or is out of reach. May destroy it. */
    virtual void OnDescriptorClosed() = 0;

    /** The seat has given the phone up, whose descriptors are closed. Must not destroy it. */
    virtual void OnGivenUp(PhoneEnd why) = 0;
};

/**
 * A phone that writes and is notified over BlueZ: through descriptors where BlueZ asks for them, else
 * through calls and signals. One value is one packet. Leaves the seat at its end.
 */
class BluetoothPhone : public Phone
{
public:
    /** What the largest packet of the wire format takes: an entry of the sensor list. */
    static constexpr std::size_t kLargestPacketBytes = 25;
    /** What the protocol adds to a value in a notification. */
    static constexpr std::size_t kHeaderBytes = 3;

    struct Peer
    {
        /** The path of its device, and the connection's MTU; 0 when BlueZ does not tell it. */
        std::string mDevice;
        std::uint16_t mMtu = 0;
        PhoneIdentity mIdentity;
    };

    /**
     * What is a reference is borrowed for the life of the phone.
     *
     * @param bluez  where BlueZ is called
     */
    BluetoothPhone(PhoneSeat &seat, const GattObjects &objects, const Parvane::BusScope &bluez,
                   Peer peer, BluetoothPhoneEvents &events);
    ~BluetoothPhone() override;

    BluetoothPhone(const BluetoothPhone &) = delete;
    BluetoothPhone &operator=(const BluetoothPhone &) = delete;

    PhoneSeat::Answer Sit() { return mSeat.Sit(*this); }

    [[nodiscard]] const std::string &Device() const { return mPeer.mDevice; }

    /** Does nothing with 0. */
    void SetMtu(std::uint16_t mtu) { mPeer.mMtu = mtu != 0 ? mtu : mPeer.mMtu; }

    // Each makes a socket pair in place of the one before, and gives BlueZ's end; empty when the system
    // has no descriptor left. Neither end blocks.
    Parvane::UniqueFd OpenWrite();
    Parvane::UniqueFd OpenNotify();

    /** From here on packets go through calls and signals; what BlueZ has written already is read first. */
    void CloseDescriptors();

    [[nodiscard]] bool HasNotifyDescriptor() const { return static_cast<bool>(mNotify); }

    /** One packet that came by a call. */
    void Write(PacketBytes packet) { mSeat.Packet(*this, packet); }

    /** While held, nothing goes to the phone: somebody else would hear it, too. */
    void Hold(bool isHeld);

    bool Deliver(PacketBytes packet) override;
    void GoOn() override;
    void Close(PhoneEnd why) override;
    [[nodiscard]] PhoneIdentity Identity() const override { return mPeer.mIdentity; }

private:
    /** Reads first what BlueZ has written. */
    void CloseWrite();
    void WatchWrite();
    void WatchNotify();
    void OnWritable();
    /** Reads at most so many packets. @return false once BlueZ's end is closed and all is read */
    bool ReadPackets(int limit);
    bool DeliverByDescriptor(PacketBytes packet);
    bool DeliverBySignal(PacketBytes packet);
    void Confirm();

    PhoneSeat &mSeat;
    const GattObjects &mObjects;
    Peer mPeer;
    BluetoothPhoneEvents &mEvents;
    Parvane::BusScope mBluez;
    Parvane::UniqueFd mWrite;
    Parvane::LoopSource mWriteInput;
    bool mMayRead = true;
    Parvane::UniqueFd mNotify;
    Parvane::LoopSource mNotifyWatch;
    bool mIsHeld = false;
    bool mIsOver = false;
    /** A packet was refused, and the seat awaits HasRoom(). */
    bool mHasRefused = false;
    /** Of the signals that BlueZ has not been seen to have read. */
    std::size_t mUnconfirmedBytes = 0;
    bool mIsConfirming = false;
    bool mHasToldOfSize = false;
};

} // namespace ParvaneGateway
