#include "AccessoryLink.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include "ErrorCode.h"
#include "Files.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

namespace {

constexpr GIOCondition kReadEvents = static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR);
constexpr GIOCondition kEndEvents = static_cast<GIOCondition>(G_IO_HUP | G_IO_ERR);

/** The next id: above 0, also after the largest. */
int NextId(int last)
{
    return last == std::numeric_limits<int>::max() ? 1 : last + 1;
}

} // namespace

AccessoryLink::AccessoryLink(const std::string &runtimeDirectory, KeyValueStore &keys,
                             const Clock &clock)
    : mKeys(keys),
      mClock(clock),
      mListener(runtimeDirectory + '/' + kSocketName),
      mReceiveBuffer(std::make_unique_for_overwrite<unsigned char[]>(HostSocket::kMaxReceiveBytes))
{
    mKeys.SetInt(kStatusKey, 1);
    WatchListener();
}

AccessoryLink::~AccessoryLink()
{
    try {
        mKeys.SetInt(kStatusKey, 0);
    } catch (const std::exception &failure) {
        LogError("accessory link: %s", failure.what());
    }
}

void AccessoryLink::RegisterNotifications(const tal_notifications &notifications)
{
    mNotifications = notifications;
    WatchHost();
    ScheduleWork();
}

void AccessoryLink::DeregisterNotifications()
{
    mNotifications.reset();
    mPeerSearches.clear();
    WatchHost();
}

int AccessoryLink::RegisterAgent(const tal_service_descriptor *service)
{
    if (service == nullptr || service->profileId == nullptr || service->serviceName == nullptr ||
        service->channels == nullptr || service->channelCount == 0) {
        return kInvalidArgument;
    }
    Agent agent;
    for (unsigned i = 0; i < service->channelCount; ++i) {
        agent.mChannels.push_back(service->channels[i].id);
    }
    // A service that registers anew, perhaps before it has heard of the first time, replaces that
    // registration and is told the same id; a host that is connected stays.
    agent.mId = mAgent ? mAgent->mId : NextId(mLastAgentId);
    LogInfo("accessory link: %s serves %s", service->serviceName, service->profileId);
    mLastAgentId = agent.mId;
    mAgent = std::move(agent);
    ScheduleWork();
    return 0;
}

int AccessoryLink::DeregisterAgent(int agentId)
{
    if (!mAgent || mAgent->mId != agentId) {
        return kInvalidArgument;
    }
    mAgent.reset();
    mPeerSearches.clear();
    if (mHostState == HostState::Indicated || mHostState == HostState::Open) {
        CloseHost();
    }
    return 0;
}

int AccessoryLink::FindPeer(int agentId)
{
    if (!mAgent || mAgent->mId != agentId) {
        return kInvalidArgument;
    }
    mPeerSearches.push_back(agentId);
    ScheduleWork();
    return 0;
}

int AccessoryLink::Accept(int agentId, int connectionId)
{
    if (!mAgent || mAgent->mId != agentId) {
        return kInvalidArgument;
    }
    if (mHostState != HostState::Indicated || connectionId != mConnectionId) {
        return kInvalidConnection;
    }
    mHostState = HostState::Open;
    WatchHost();
    return 0;
}

int AccessoryLink::Terminate(int connectionId)
{
    // A host that is only waiting has no connection yet that the service could know.
    if (mHostState == HostState::None || mHostState == HostState::Waiting ||
        connectionId != mConnectionId) {
        return kInvalidConnection;
    }
    if (mHostState != HostState::Gone) {
        CloseHost();
    }
    return 0;
}

int AccessoryLink::Send(int connectionId, int channelId, int size, const void *data)
{
    if (data == nullptr || size <= 0 || size > kMaxSendBytes) {
        return kInvalidArgument;
    }
    const bool isKnown = mHostState == HostState::Open || mHostState == HostState::Gone;
    if (!isKnown || connectionId != mConnectionId) {
        return kInvalidConnection;
    }
    if (mHostState == HostState::Gone) {
        return kNetworkFailure;
    }
    const auto &channels = mAgent->mChannels;
    if (std::find(channels.begin(), channels.end(), channelId) == channels.end()) {
        return kInvalidArgument;
    }
    switch (mHost.Send(data, static_cast<std::size_t>(size))) {
    case 0:
        ++mStatistics.mPacketsOut;
        mStatistics.mBytesOut += static_cast<unsigned>(size);
        return 0;
    case EAGAIN:
    case ENOBUFS:
    case ENOMEM:
        ++mStatistics.mQueueFull;
        return kBufferFull;
    default:
        return kNetworkFailure;
    }
}

void AccessoryLink::TakeDown()
{
    if (mIsDown) {
        return;
    }
    LogInfo("accessory link: taken down");
    mIsDown = true;
    mKeyIsDown = true;
    mAcceptTimer.Disarm();
    mListenerSource.Remove();
    if (mHostState == HostState::Open) {
        OnHostEnded();
    } else if (mHostState != HostState::Gone) {
        CloseHost();
    }
}

void AccessoryLink::BringUp()
{
    if (!mIsDown) {
        return;
    }
    LogInfo("accessory link: brought up");
    mIsDown = false;
    if (mHostState == HostState::None) {
        OnEndAnnounced();
    }
}

AccessoryLink::LinkStatus AccessoryLink::Status() const
{
    LinkStatus status;
    status.mIsDown = mIsDown;
    status.mHostState = mHostState;
    status.mStatistics = mStatistics;
    if (mHost) {
        status.mPeer = mPeer;
        status.mConnectedWallMs = mConnectedWallMs;
        status.mConnectedUs = mConnectedUs;
    }
    return status;
}

void AccessoryLink::WatchListener()
{
    if (!mListenerSource.IsActive()) {
        mListenerSource =
            LoopSource::WatchSeldom(mListener.Fd(), G_IO_IN, [this] { OnListenerReady(); });
    }
}

void AccessoryLink::OnListenerReady()
{
    if (mHostState != HostState::None && mHost.HasHungUp()) {
        // The host is as good as gone: the new one waits for the end of it in the queue.
        mListenerSource.Remove();
        return;
    }
    Parvane::UniqueFd connection;
    if (const int error = mListener.Accept(connection); error != 0) {
        OnAcceptFailed(error);
        return;
    }
    HostSocket host(std::move(connection));
    const HostSocket::Peer peer = host.GetPeer();
    if (!peer.IsTrusted()) {
        ++mStatistics.mRefusedHosts;
        LogWarning("accessory link: a host of user %u is refused", peer.mUid);
    } else if (mHostState != HostState::None) {
        ++mStatistics.mRefusedHosts;
        LogWarning("accessory link: a second host is refused");
    } else {
        TakeHost(std::move(host));
    }
}

void AccessoryLink::OnAcceptFailed(int error)
{
    switch (error) {
    case EAGAIN:
    case EINTR:
    case ECONNABORTED:
        return;
    default:
        break;
    }
    // The connection stays in the queue and the socket readable: without a pause the loop would spin.
    LogError("accessory link: cannot take a connection: %s", ErrorText(error).c_str());
    mListenerSource.Remove();
    mAcceptTimer.Arm(mClock.MonotonicUs() + kAcceptPauseMs * 1000, [this] {
        if (mHostState != HostState::Gone) {
            WatchListener();
        }
    });
}

void AccessoryLink::TakeHost(HostSocket host)
{
    if (const int error = host.Prepare(); error != 0) {
        LogError("accessory link: cannot prepare a connection: %s", ErrorText(error).c_str());
        return;
    }
    mPeer = host.GetPeer();
    mConnectedWallMs = mClock.WallMs();
    mConnectedUs = mClock.BootUs();
    mHost = std::move(host);
    mHostState = HostState::Waiting;
    mConnectionId = NextId(mConnectionId);
    WatchHost();
    mKeys.SetInt(kStatusKey, 1);
    ScheduleWork();
}

void AccessoryLink::WatchHost()
{
    if (mHostState == HostState::Waiting) {
        mHostSource =
            LoopSource::WatchFd(mHost.Fd(), kEndEvents, [this] { OnWaitingHostHungUp(); });
    } else if (mHostState == HostState::Open && mNotifications) {
        mHostSource = LoopSource::WatchFd(mHost.Fd(), kReadEvents, [this] { OnHostReady(); });
    } else if (mHostState == HostState::Open) {
        // Nobody is there to be told what it has sent.
        mHostSource = LoopSource::WatchFd(mHost.Fd(), kEndEvents, [this] { CloseHost(); });
    }
}

void AccessoryLink::OnWaitingHostHungUp()
{
    mHostSource.Remove();
    mReadyTimer.Arm(mClock.MonotonicUs() + kReadyWaitMs * 1000, [this] {
        LogWarning("accessory link: a host has gone before the service was ready for it");
        CloseHost();
    });
}

void AccessoryLink::OnHostReady()
{
    // A host that waits for each answer before it asks again has one message a turn: looking for a
    // second one would be a call in vain for each.
    const bool isAlone = mLoneMessages >= kLoneMessages && mLoneMessages % kLoneMessages != 0;
    ++mLoneMessages;
    for (int i = 0; i < (isAlone ? 1 : kMessagesPerTurn); ++i) {
        std::size_t size = 0;
        const HostSocket::Received received =
            mHost.Receive({mReceiveBuffer.get(), HostSocket::kMaxReceiveBytes}, size);
        if (i > 0 && received != HostSocket::Received::Nothing) {
            mLoneMessages = 0;
        }
        if (!OnReceived(received, size)) {
            return;
        }
    }
}

bool AccessoryLink::OnReceived(HostSocket::Received received, std::size_t size)
{
    switch (received) {
    case HostSocket::Received::Message:
        return DeliverMessage(size);
    case HostSocket::Received::Empty:
        LogWarning("accessory link: an empty message is dropped");
        return true;
    case HostSocket::Received::TooLong:
        LogWarning("accessory link: a message of more than %zu bytes is dropped",
                   HostSocket::kMaxReceiveBytes);
        return true;
    case HostSocket::Received::Error:
        return true;
    case HostSocket::Received::Nothing:
        return false;
    case HostSocket::Received::End:
        OnHostEnded();
        return false;
    }
    return false;
}

bool AccessoryLink::DeliverMessage(std::size_t size)
{
    const int connectionId = mConnectionId;
    ++mStatistics.mPacketsIn;
    mStatistics.mBytesIn += size;
    if (mNotifications->dataReceived != nullptr) {
        mNotifications->dataReceived(connectionId, mAgent->mChannels.front(),
                                     static_cast<int>(size), mReceiveBuffer.get());
    }
    // The service may have closed the connection, or stopped listening.
    return mHostState == HostState::Open && mConnectionId == connectionId && mNotifications;
}

void AccessoryLink::OnHostEnded()
{
    EndConnection();
    if (mNotifications && mNotifications->serviceTerminated != nullptr) {
        mNotifications->serviceTerminated(mConnectionId);
    }
    AnnounceEnd();
}

void AccessoryLink::CloseHost()
{
    EndConnection();
    AnnounceEnd();
}

void AccessoryLink::EndConnection()
{
    mReadyTimer.Disarm();
    mHostSource.Remove();
    mHost.Close();
    mHostState = HostState::Gone;
    // The next host waits in the socket's queue.
    mListenerSource.Remove();
}

void AccessoryLink::AnnounceEnd()
{
    mKeys.SetInt(kStatusKey, 0, [this, life = std::weak_ptr<int>(mLife)] {
        if (!life.expired()) {
            mHostState = HostState::None;
            OnEndAnnounced();
        }
    });
}

void AccessoryLink::OnEndAnnounced()
{
    if (mIsDown) {
        return;
    }
    // Not before the watchers have heard of the 0: they would hear of no change at all.
    if (std::exchange(mKeyIsDown, false)) {
        mKeys.SetInt(kStatusKey, 1);
    }
    WatchListener();
}

void AccessoryLink::ScheduleWork()
{
    if (!mWork.IsActive()) {
        mWork = LoopSource::Post([this] { DoWork(); });
    }
}

void AccessoryLink::DoWork()
{
    // From here on new work gets a turn of its own.
    mWork.Remove();
    ConfirmAgent();
    AnswerPeerSearches();
    IndicateHost();
}

void AccessoryLink::ConfirmAgent()
{
    if (!mNotifications || !mAgent || mAgent->mConfirmed) {
        return;
    }
    mAgent->mConfirmed = true;
    if (mNotifications->registerServiceAgentConfirm != nullptr) {
        mNotifications->registerServiceAgentConfirm(0, mAgent->mId);
    }
}

void AccessoryLink::AnswerPeerSearches()
{
    if (!mNotifications) {
        return;
    }
    const auto searches = std::exchange(mPeerSearches, {});
    for (const int agentId : searches) {
        const bool isAsked = mNotifications && mNotifications->peerAgent != nullptr && mAgent &&
                             mAgent->mId == agentId;
        if (isAsked) {
            const bool isThere = mHost && mHostState != HostState::Gone;
            mNotifications->peerAgent(agentId, isThere ? &mHost : nullptr, isThere ? 0 : kNoPeer);
        }
    }
}

void AccessoryLink::IndicateHost()
{
    if (mHostState != HostState::Waiting || !mNotifications || !mAgent || !mAgent->mConfirmed) {
        return;
    }
    mHostSource.Remove();
    mReadyTimer.Disarm();
    mHostState = HostState::Indicated;
    const int connectionId = mConnectionId;
    if (mNotifications->serviceConnectionIndication != nullptr) {
        mNotifications->serviceConnectionIndication(mAgent->mId, connectionId, &mHost, nullptr);
    }
    if (mHostState == HostState::Indicated) {
        LogWarning("accessory link: the service has not accepted the host");
        CloseHost();
    }
}

} // namespace ParvanePlatform
