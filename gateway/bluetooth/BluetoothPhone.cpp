#include "BluetoothPhone.h"

#include <array>
#include <cerrno>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <utility>

#include "Log.h"

namespace ParvaneGateway {

namespace {

constexpr int kPacketsPerTurn = 32;
/** The longest value of an attribute. */
constexpr std::size_t kLongestValueBytes = 512;

/**
 * Makes two ends, of which neither blocks: the one that is returned is for BlueZ, where nothing may ever wait for
 * us. Both are empty when the system has no descriptor left.
 */
Parvane::UniqueFd MakePair(Parvane::UniqueFd &ours)
{
    int ends[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) {
        Parvane::LogError("bluetooth: no descriptor left for a phone");
    }
    const int size = static_cast<int>(kMaxWaitingBytes / 2); // the kernel doubles it
    setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    ours.Reset(ends[1]);
    return Parvane::UniqueFd(ends[0]);
}

/** Whether the other end is closed; an empty packet reads like that, too. */
bool HasHungUp(int fd)
{
    pollfd state = {fd, 0, 0};
    return poll(&state, 1, 0) > 0 && (state.revents & POLLHUP) != 0;
}

} // namespace

BluetoothPhone::BluetoothPhone(PhoneSeat &seat, const GattObjects &objects,
                               const Parvane::BusScope &bluez, Peer peer,
                               BluetoothPhoneEvents &events)
    : mSeat(seat),
      mObjects(objects),
      mPeer(std::move(peer)),
      mEvents(events),
      mBluez(bluez.Connection(), bluez.Peer())
{}

BluetoothPhone::~BluetoothPhone()
{
    CloseDescriptors();
    mSeat.Left(*this);
}

Parvane::UniqueFd BluetoothPhone::OpenWrite()
{
    CloseWrite();
    Parvane::UniqueFd end = MakePair(mWrite);
    WatchWrite();
    return end;
}

Parvane::UniqueFd BluetoothPhone::OpenNotify()
{
    Parvane::UniqueFd end = MakePair(mNotify);
    WatchNotify();
    return end;
}

void BluetoothPhone::WatchNotify()
{
    mNotifyWatch.Remove();
    if (mNotify) {
        mNotifyWatch = Parvane::LoopSource::WatchFd(mNotify.Get(), G_IO_HUP,
                                                    [this] { mEvents.OnDescriptorClosed(); });
    }
}

void BluetoothPhone::CloseDescriptors()
{
    mNotifyWatch.Remove();
    mNotify.Reset();
    CloseWrite();
}

void BluetoothPhone::CloseWrite()
{
    mWriteInput.Remove();
    const Parvane::UniqueFd write = std::move(mWrite);
    if (!write) {
        return;
    }
    // What BlueZ sends from here on fails, so that the phone hears of it; what it has sent is read.
    shutdown(write.Get(), SHUT_RD);
    std::array<std::uint8_t, kLongestValueBytes> buffer = {};
    for (int left = 0; !mIsOver && ioctl(write.Get(), FIONREAD, &left) == 0 && left > 0;) {
        const ssize_t size = recv(write.Get(), buffer.data(), buffer.size(), 0);
        if (size > 0) {
            mSeat.Packet(*this, {buffer.data(), static_cast<std::size_t>(size)});
        }
    }
}

void BluetoothPhone::WatchWrite()
{
    mWriteInput.Remove();
    if (!mWrite || !mMayRead) {
        return;
    }
    mWriteInput = Parvane::LoopSource::WatchFd(
        mWrite.Get(), static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), [this] {
            if (!ReadPackets(kPacketsPerTurn)) {
                mEvents.OnDescriptorClosed();
            }
        });
}

bool BluetoothPhone::ReadPackets(int limit)
{
    std::array<std::uint8_t, kLongestValueBytes> buffer = {};
    for (int count = 0; count < limit && mMayRead && mWrite; ++count) {
        const ssize_t size = recv(mWrite.Get(), buffer.data(), buffer.size(), 0);
        if (size < 0) {
            return errno == EAGAIN || errno == EINTR;
        }
        if (size == 0) {
            if (HasHungUp(mWrite.Get())) {
                return false;
            }
            continue; // an empty value is no packet
        }
        if (!mSeat.Packet(*this, {buffer.data(), static_cast<std::size_t>(size)})) {
            mMayRead = false;
            mWriteInput.Remove();
        }
    }
    return true;
}

void BluetoothPhone::Hold(bool isHeld)
{
    if (std::exchange(mIsHeld, isHeld) && !isHeld) {
        OnWritable();
    }
}

void BluetoothPhone::OnWritable()
{
    if (std::exchange(mHasRefused, false)) {
        mSeat.HasRoom(*this);
    }
}

bool BluetoothPhone::Deliver(PacketBytes packet)
{
    if (mPeer.mMtu != 0 && packet.size() + kHeaderBytes > mPeer.mMtu) {
        if (!std::exchange(mHasToldOfSize, true)) {
            Parvane::LogWarning("bluetooth: a packet of " + std::to_string(packet.size()) +
                                " bytes is dropped: the connection's MTU is " +
                                std::to_string(mPeer.mMtu));
        }
        return true;
    }
    const bool isTaken =
        !mIsHeld && (mNotify ? DeliverByDescriptor(packet) : DeliverBySignal(packet));
    mHasRefused = !isTaken;
    return isTaken;
}

bool BluetoothPhone::DeliverByDescriptor(PacketBytes packet)
{
    if (send(mNotify.Get(), packet.data(), packet.size(), MSG_NOSIGNAL) >= 0) {
        return true;
    }
    if (errno != EAGAIN) {
        return true; // its end is told by the watch on the descriptor
    }
    mNotifyWatch = Parvane::LoopSource::WatchFd(
        mNotify.Get(), static_cast<GIOCondition>(G_IO_OUT | G_IO_HUP), [this] {
            if (HasHungUp(mNotify.Get())) {
                mEvents.OnDescriptorClosed();
                return;
            }
            WatchNotify();
            OnWritable();
        });
    return false;
}

bool BluetoothPhone::DeliverBySignal(PacketBytes packet)
{
    if (mUnconfirmedBytes + packet.size() > kMaxWaitingBytes / 2) {
        return false;
    }
    mObjects.Notify(packet);
    mUnconfirmedBytes += packet.size();
    Confirm();
    return true;
}

void BluetoothPhone::Confirm()
{
    if (mIsConfirming) {
        return;
    }
    mIsConfirming = true;
    // Once BlueZ has answered, it has had every signal before.
    const std::size_t bytes = mUnconfirmedBytes;
    mBluez.Call("/", "org.freedesktop.DBus.Peer", "Ping", nullptr, "()",
                [this, bytes](GVariant * /*reply*/, const GError * /*error*/) {
                    mIsConfirming = false;
                    mUnconfirmedBytes -= bytes;
                    if (mUnconfirmedBytes != 0) {
                        Confirm();
                    }
                    if (!mIsHeld) {
                        OnWritable();
                    }
                });
}

void BluetoothPhone::GoOn()
{
    mMayRead = true;
    WatchWrite();
}

void BluetoothPhone::Close(PhoneEnd why)
{
    mIsOver = true;
    mWriteInput.Remove();
    mWrite.Reset();
    mNotifyWatch.Remove();
    mNotify.Reset();
    mEvents.OnGivenUp(why);
}

} // namespace ParvaneGateway
