#include "LinkPhone.h"

#include <utility>

namespace ParvaneGateway {

LinkPhone::LinkPhone(std::unique_ptr<Parvane::WebStream> stream, std::string first,
                     const Parvane::WebSocketTimes &times, std::string name, PhoneSeat &seat,
                     std::function<void()> onClosed)
    : mSocket(std::move(stream), std::move(first), Parvane::FrameKind::Binary, kMaxPacketBytes,
              kMaxWaitingBytes, times, *this),
      mName(std::move(name)),
      mSeat(seat),
      mOnClosed(std::move(onClosed))
{}

LinkPhone::~LinkPhone()
{
    mSeat.Left(*this);
}

void LinkPhone::Open()
{
    switch (mSeat.Sit(*this)) {
    case PhoneSeat::Answer::AnotherPhone:
        mSocket.Close(Parvane::CloseCode::AnotherPhone, "another phone is connected");
        break;
    case PhoneSeat::Answer::WatchAway:
        mSocket.Close(Parvane::CloseCode::WatchAway, "the watch is away");
        break;
    case PhoneSeat::Answer::Seated:
        break;
    }
    mSocket.Start();
}

void LinkPhone::End(Parvane::CloseCode code, const char *reason)
{
    mSocket.Close(code, reason);
}

bool LinkPhone::Deliver(PacketBytes packet)
{
    return mSocket.Send(packet);
}

void LinkPhone::GoOn()
{
    mSocket.Resume();
}

void LinkPhone::Close(PhoneEnd why)
{
    switch (why) {
    case PhoneEnd::WatchAway:
        mSocket.Close(Parvane::CloseCode::WatchAway, "the watch is away");
        break;
    case PhoneEnd::Stopping:
        mSocket.Close(Parvane::CloseCode::GoingAway, "the gateway ends");
        break;
    case PhoneEnd::TooMuch:
        mSocket.Close(Parvane::CloseCode::TooMuch, "more than the watch takes");
        break;
    }
}

PhoneIdentity LinkPhone::Identity() const
{
    return {"websocket", mName};
}

void LinkPhone::OnMessage(std::span<const std::uint8_t> message)
{
    if (!mSeat.Packet(*this, message)) {
        mSocket.Rest();
    }
}

void LinkPhone::OnRoom()
{
    mSeat.HasRoom(*this);
}

void LinkPhone::OnEnd()
{
    mSeat.Left(*this);
}

void LinkPhone::OnClosed()
{
    mOnClosed();
}

} // namespace ParvaneGateway
