#include "LinkSession.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "Numbers.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

LinkSession::LinkSession(const std::string &runtimeDirectory, KeyValueStore &keys,
                         const Clock &clock, std::optional<uid_t> allowed)
    : mKeys(keys), mClock(clock), mTransport(runtimeDirectory, clock, *this, allowed)
{
    mKeys.SetInt(kStatusKey, 1);
    mTransport.Listen();
}

LinkSession::~LinkSession()
{
    try {
        mKeys.SetInt(kStatusKey, 0);
    } catch (const std::exception &failure) {
        LogError("accessory link: %s", failure.what());
    }
}

void LinkSession::RegisterNotifications(const tal_notifications &notifications)
{
    mNotifications = notifications;
    WatchHost();
    ScheduleWork();
}

void LinkSession::DeregisterNotifications()
{
    mNotifications.reset();
    mPeerSearches.clear();
    WatchHost();
}

int LinkSession::RegisterAgent(const tal_service_descriptor *service)
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

int LinkSession::DeregisterAgent(int agentId)
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

int LinkSession::FindPeer(int agentId)
{
    if (!mAgent || mAgent->mId != agentId) {
        return kInvalidArgument;
    }
    mPeerSearches.push_back(agentId);
    ScheduleWork();
    return 0;
}

int LinkSession::Accept(int agentId, int connectionId)
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

int LinkSession::Terminate(int connectionId)
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

int LinkSession::Send(int connectionId, int channelId, int size, const void *data)
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
    switch (mTransport.Send(data, static_cast<std::size_t>(size))) {
    case 0:
        ++mStatistics.mPacketsOut;
        mStatistics.mBytesOut += static_cast<unsigned>(size);
        if (mTap) {
            mTap({connectionId,
                  false,
                  {static_cast<const unsigned char *>(data), static_cast<std::size_t>(size)}});
        }
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

void LinkSession::TakeDown()
{
    if (mIsDown) {
        return;
    }
    LogInfo("accessory link: taken down");
    mIsDown = true;
    mKeyIsDown = true;
    mTransport.StopListening();
    if (mHostState == HostState::Open) {
        OnEnded();
    } else if (mHostState != HostState::Gone) {
        CloseHost();
    }
}

void LinkSession::BringUp()
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

LinkSession::LinkStatus LinkSession::Status() const
{
    LinkStatus status;
    status.mIsDown = mIsDown;
    status.mHostState = mHostState;
    status.mStatistics = mStatistics;
    status.mStatistics.mRefusedHosts = mTransport.RefusedHosts();
    if (mTransport.HasHost()) {
        status.mPeer = mTransport.Peer();
        status.mConnected = mConnected;
    }
    return status;
}

void LinkSession::OnConnected()
{
    mConnected = mClock.Now();
    mHostState = HostState::Waiting;
    mConnectionId = NextId(mConnectionId);
    WatchHost();
    mKeys.SetInt(kStatusKey, 1);
    ScheduleWork();
}

void LinkSession::WatchHost()
{
    if (mHostState == HostState::Open && mNotifications) {
        mTransport.WatchMessages();
    } else if (mHostState == HostState::Open || mHostState == HostState::Waiting) {
        mTransport.WatchEnd();
    }
}

void LinkSession::OnHungUp()
{
    if (mHostState == HostState::Open) {
        CloseHost(); // nobody is there to be told what it has sent
        return;
    }
    mTransport.Unwatch();
    mReadyTimer.Arm(mClock.MonotonicUs() + kReadyWaitMs * 1000, [this] {
        LogWarning("accessory link: a host has gone before the service was ready for it");
        CloseHost();
    });
}

bool LinkSession::OnMessage(std::span<unsigned char> message)
{
    const int connectionId = mConnectionId;
    ++mStatistics.mPacketsIn;
    mStatistics.mBytesIn += message.size();
    if (mTap) {
        mTap({connectionId, true, message});
    }
    if (mNotifications->dataReceived != nullptr) {
        mNotifications->dataReceived(connectionId, mAgent->mChannels.front(),
                                     static_cast<int>(message.size()), message.data());
    }
    // The service may have closed the connection, or stopped listening.
    return mHostState == HostState::Open && mConnectionId == connectionId && mNotifications;
}

void LinkSession::OnEnded()
{
    EndConnection();
    if (mNotifications && mNotifications->serviceTerminated != nullptr) {
        mNotifications->serviceTerminated(mConnectionId);
    }
    AnnounceEnd();
}

void LinkSession::CloseHost()
{
    EndConnection();
    AnnounceEnd();
}

void LinkSession::EndConnection()
{
    mReadyTimer.Disarm();
    mTransport.Close();
    mTransport.StopListening();
    mHostState = HostState::Gone;
}

void LinkSession::AnnounceEnd()
{
    mKeys.SetInt(kStatusKey, 0, [this, life = std::weak_ptr<int>(mLife)] {
        if (!life.expired()) {
            mHostState = HostState::None;
            OnEndAnnounced();
        }
    });
}

void LinkSession::OnEndAnnounced()
{
    if (mIsDown) {
        return;
    }
    // Only now that the watchers have heard of the 0: they would hear of no change otherwise.
    if (std::exchange(mKeyIsDown, false)) {
        mKeys.SetInt(kStatusKey, 1);
    }
    mTransport.Listen();
}

void LinkSession::ScheduleWork()
{
    if (!mWork.IsActive()) {
        mWork = Parvane::LoopSource::Post([this] { DoWork(); });
    }
}

void LinkSession::DoWork()
{
    // First: work that the service causes in these calls is done in the next turn.
    mWork.Remove();
    ConfirmAgent();
    AnswerPeerSearches();
    IndicateHost();
}

void LinkSession::ConfirmAgent()
{
    if (!mNotifications || !mAgent || mAgent->mConfirmed) {
        return;
    }
    mAgent->mConfirmed = true;
    if (mNotifications->registerServiceAgentConfirm != nullptr) {
        mNotifications->registerServiceAgentConfirm(0, mAgent->mId);
    }
}

void LinkSession::AnswerPeerSearches()
{
    if (!mNotifications) {
        return;
    }
    const auto searches = std::exchange(mPeerSearches, {});
    for (const int agentId : searches) {
        const bool isAsked = mNotifications && mNotifications->peerAgent != nullptr && mAgent &&
                             mAgent->mId == agentId;
        if (isAsked) {
            const bool isThere = mTransport.HasHost();
            mNotifications->peerAgent(agentId, isThere ? &mTransport : nullptr,
                                      isThere ? 0 : kNoPeer);
        }
    }
}

void LinkSession::IndicateHost()
{
    if (mHostState != HostState::Waiting || !mNotifications || !mAgent || !mAgent->mConfirmed) {
        return;
    }
    mTransport.Unwatch();
    mReadyTimer.Disarm();
    mHostState = HostState::Indicated;
    const int connectionId = mConnectionId;
    if (mNotifications->serviceConnectionIndication != nullptr) {
        mNotifications->serviceConnectionIndication(mAgent->mId, connectionId, &mTransport,
                                                    nullptr);
    }
    if (mHostState == HostState::Indicated) {
        LogWarning("accessory link: the service has not accepted the host");
        CloseHost();
    }
}

} // namespace ParvanePlatform
