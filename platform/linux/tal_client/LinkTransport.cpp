#include "LinkTransport.h"

#include <utility>

#include "RuntimeLog.h"

namespace ParvanePlatform {

namespace {

constexpr GIOCondition kReadEvents = static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR);
constexpr GIOCondition kEndEvents = static_cast<GIOCondition>(G_IO_HUP | G_IO_ERR);

} // namespace

LinkTransport::LinkTransport(const std::string &runtimeDirectory, const Clock &clock,
                             LinkEvents &events, std::optional<uid_t> allowed)
    : mEvents(events),
      mListener(
          runtimeDirectory + '/' + kSocketName, "accessory link", clock,
          [this] { OnListenerReady(); }, allowed),
      mReceiveBuffer(
          std::make_unique_for_overwrite<unsigned char[]>(PacketSocket::kMaxReceiveBytes))
{}

void LinkTransport::WatchMessages()
{
    mHostSource = Parvane::LoopSource::WatchFd(mHost.Fd(), kReadEvents, [this] { OnHostReady(); });
}

void LinkTransport::WatchEnd()
{
    mHostSource =
        Parvane::LoopSource::WatchFd(mHost.Fd(), kEndEvents, [this] { mEvents.OnHungUp(); });
}

void LinkTransport::Close()
{
    mHostSource.Remove();
    mHost.Close();
}

void LinkTransport::OnListenerReady()
{
    if (mHost && mHost.HasHungUp()) {
        // The host is as good as gone: the new one waits for the end of it in the queue.
        StopListening();
        return;
    }
    PacketSocket host = mListener.Accept();
    if (!host) {
        return;
    }
    const PacketSocket::Peer peer = host.GetPeer();
    if (!mListener.Admits(peer)) {
        ++mRefusedHosts;
        mListener.LogRefusal("a host of user " + std::to_string(peer.mUid) + " is refused");
    } else if (mHost) {
        ++mRefusedHosts;
        mListener.LogRefusal("a second host is refused");
    } else {
        mPeer = peer;
        mHost = std::move(host);
        mEvents.OnConnected();
    }
}

void LinkTransport::OnHostReady()
{
    // A host that waits for each answer before it asks again has one message a turn: looking for a
    // second one would be a call in vain for each.
    const bool isAlone = mLoneMessages >= kLoneMessages && mLoneMessages % kLoneMessages != 0;
    ++mLoneMessages;
    for (int i = 0; i < (isAlone ? 1 : kMessagesPerTurn); ++i) {
        std::size_t size = 0;
        const PacketSocket::Received received =
            mHost.Receive({mReceiveBuffer.get(), PacketSocket::kMaxReceiveBytes}, size);
        if (i > 0 && received != PacketSocket::Received::Nothing) {
            mLoneMessages = 0;
        }
        if (!OnReceived(received, size)) {
            return;
        }
    }
}

bool LinkTransport::OnReceived(PacketSocket::Received received, std::size_t size)
{
    switch (received) {
    case PacketSocket::Received::Message:
        return mEvents.OnMessage({mReceiveBuffer.get(), size});
    case PacketSocket::Received::Empty:
        LogWarning("accessory link: an empty message is dropped");
        return true;
    case PacketSocket::Received::TooLong:
        LogWarning("accessory link: a message of more than %zu bytes is dropped",
                   PacketSocket::kMaxReceiveBytes);
        return true;
    case PacketSocket::Received::Error:
        return true;
    case PacketSocket::Received::Nothing:
        return false;
    case PacketSocket::Received::End:
        mEvents.OnEnded();
        return false;
    }
    return false;
}

} // namespace ParvanePlatform
