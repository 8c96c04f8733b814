#include "ConnectionManager.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <memory>
#include <utility>

#include "Failure.h"
#include "Log.h"

namespace Parvane {

namespace {

constexpr const char *kConnStatusKey = "memory/private/tal/conn_status";
constexpr const char *kProfileId = "/mirtala/sensor";
constexpr const char *kServiceName = "sensor_zolt";
constexpr int kChannelId = 143;

constexpr uint32_t kRetryStepMs = 5;
constexpr int32_t kMaxFindPeerCount = 10;
constexpr int kPeerToRetrySilently = 3;

template <typename T>
PlatformPtr<T> AllocateZeroed(const char *function, const char *failure)
{
    PlatformPtr<T> block(static_cast<T *>(std::calloc(1, sizeof(T))));
    if (!block) {
        ThrowFailure(function, failure);
    }
    return block;
}

int ReturnArgument(int value) noexcept
{
    return value;
}

// 1 connected, 0 not; -1 when the key cannot be read.
int ReadConnStatus()
{
    int status = -1;
    return vconf_get_int(kConnStatusKey, &status) == 0 ? status : -1;
}

const char *SendFailureText(int result)
{
    switch (result) {
    case 1:
        return "invalid argument error";
    case 2:
        return "invalid service connection";
    case 3:
        return "network failure error";
    case 4:
    case 5:
        return "Buffer full";
    default:
        return "Unknown error";
    }
}

} // namespace

ConnectionManager *ConnectionManager::sInstance = nullptr;

ConnectionManager *ConnectionManager::GetInstance()
{
    if (sInstance == nullptr) {
        new ConnectionManager(); // its constructor sets sInstance
    }
    return sInstance;
}

ConnectionManager::ConnectionManager()
{
    sInstance = this; // before the call below, which may call back
    const int result = vconf_notify_key_changed(kConnStatusKey, OnConnStatusChanged, nullptr);
    if (result != 0) {
        PARVANE_ERROR("vconf_notify_key_changed FAIL [%d]", result);
    }
}

void ConnectionManager::Initialize()
{
    InitializeTALConnection();
}

void ConnectionManager::InitializeTALConnection()
{
    Records records;
    try {
        records.mNotifications = CreateTALNotification();
        if (registerNotifications(*records.mNotifications) != 0) {
            ThrowFailure(__func__, "Fail to register notification\n");
        }
        records.mChannel = CreateChannel();
        records.mService = CreateService(records.mChannel.get());
        if (registerServiceAgent(records.mService.get()) != 0) {
            ThrowFailure(__func__, "registerServiceAgent failed");
        }
        mRetryDelay = 0;
        mIsInitialized = true;
        mReplacedRecords = std::exchange(mRecords, std::move(records));
    } catch (const std::exception &error) {
        PARVANE_ERROR("TALConnect initialize fail [%s]", error.what());
        records = {};
        mRetryDelay += kRetryStepMs;
        g_timeout_add(mRetryDelay, OnRetryTimer, nullptr);
    }
}

PlatformPtr<tal_notifications> ConnectionManager::CreateTALNotification()
{
    auto notifications = AllocateZeroed<tal_notifications>(__func__, "calloc fail");
    notifications->registerServiceAgentConfirm = TALNotiOnRegisterServiceAgentConfirm;
    notifications->dataReceived = TALNotiOnDataReceived;
    notifications->serviceConnectionIndication = TALNotiOnServiceConnectionIndication;
    notifications->serviceTerminated = TALNotiOnServiceTerminated;
    notifications->serviceCreateConfirm = TALNotiOnServiceCreateConfirm;
    notifications->peerAgent = TALNotiOnPeerAgent;
    notifications->unused7 = ReturnArgument;
    notifications->unused8 = ReturnArgument;
    notifications->unused9 = ReturnArgument;
    return notifications;
}

PlatformPtr<tal_service_descriptor>
ConnectionManager::CreateService(tal_channel_descriptor *channel)
{
    auto service = AllocateZeroed<tal_service_descriptor>(__func__, "ServiceDesc calloc() failed");
    service->profileId = kProfileId;
    service->serviceName = kServiceName;
    service->field8 = 4;
    service->field12 = 1;
    service->channels = channel;
    service->channelCount = 1;
    return service;
}

PlatformPtr<tal_channel_descriptor> ConnectionManager::CreateChannel()
{
    auto channel = AllocateZeroed<tal_channel_descriptor>(__func__, " ChannelDesc calloc() failed");
    channel->id = kChannelId;
    channel->field4 = 1;
    return channel;
}

void ConnectionManager::FindAgentPeer()
{
    PARVANE_WARN("local Agent ID = [%d]", static_cast<int>(mLocalAgentId));
    if (mFindPeerCount > kMaxFindPeerCount) {
        return;
    }
    ++mFindPeerCount;
    if (findPeerAgent(mLocalAgentId) != 0) {
        PARVANE_ERROR("Call find peer failed");
    }
}

void ConnectionManager::SendToHost(const uint8_t *data, int32_t size)
{
    try {
        if (data == nullptr) {
            ThrowFailure(__func__, "Invalid parameter: str is NULL");
        }
        if (!mIsServiceConnected) {
            ThrowFailure(__func__, "mIsServiceConnected is false");
        }
        mTrace.clear();
        AppendTrace(mTrace, data, size);
        if (size >= kMaxMessageSize) {
            PARVANE_ERROR("Message goes over max size(%d) but input size (%d)\n",
                          static_cast<int>(kMaxMessageSize), static_cast<int>(size));
            ThrowFailure(__func__, "message size limit exceed");
        }
    } catch (const std::exception &error) {
        // The checks only log: the send is attempted anyway.
        PARVANE_ERROR("TALConnect initialize fail [%s]", error.what());
    }
    const int result = sendData(mConnectionId, kChannelId, size, data);
    if (result != 0) {
        PARVANE_WARN("%s", SendFailureText(result));
    }
}

void ConnectionManager::AppendTrace(std::string &trace, const uint8_t *data, int32_t size)
{
    constexpr char kDigits[] = "0123456789abcdef";
    for (int32_t position = 0; position < size; ++position) {
        if (position >= 100) {
            trace += std::to_string(position / 100);
        }
        // Not by printf: every message is traced, and that would take longer than sending it.
        trace += {kDigits[position / 10 % 10],   kDigits[position % 10],          ' ',
                  kDigits[data[position] >> 4U], kDigits[data[position] & 0x0FU], ' '};
    }
}

void ConnectionManager::TerminateTALConnection()
{
    if (mConnectionId != -1) {
        const int result = terminateServiceConnection(mConnectionId);
        if (result != 0) {
            PARVANE_ERROR("terminateServiceConnection FAIL [%d]", result);
        }
        mConnectionId = -1;
    }
    if (mLocalAgentId != -1) {
        // Freed after the call, and not those of a registration that is made within it.
        const Records ended[] = {std::move(mReplacedRecords), std::move(mRecords)};
        const int result = deRegisterServiceAgent(mLocalAgentId);
        if (result != 0) {
            PARVANE_ERROR("deRegisterServiceAgent FAIL [%d]", result);
        }
        mLocalAgentId = -1;
    }
    const int result = deregisterNotifications();
    if (result != 0) {
        PARVANE_ERROR("deregisterNotifications FAIL [%d]", result);
    }
    mIsServiceConnected = false;
    mIsInitialized = false;
    if (mListener != nullptr) {
        mListener->OnConnectionReleased();
    }
}

void ConnectionManager::TALNotiOnRegisterServiceAgentConfirm(int /*result*/, int agentId) noexcept
{
    ConnectionManager *const self = GetInstance();
    self->mLocalAgentId = agentId;
    self->mFindPeerCount = 0;
    if (ReadConnStatus() != 1) {
        PARVANE_ERROR("TAL conn is not connected");
    }
}

void ConnectionManager::TALNotiOnDataReceived(int /*connectionId*/, int /*channelId*/, int size,
                                              const void *data) noexcept
try {
    ConnectionManager *const self = GetInstance();
    if (size < 0 || (data == nullptr && size > 0)) {
        return;
    }
    const auto length = static_cast<std::size_t>(size);
    const std::unique_ptr<uint8_t, decltype(&g_free)> copy(
        static_cast<uint8_t *>(std::malloc(length + 1)), g_free);
    if (!copy) {
        return;
    }
    std::copy_n(static_cast<const uint8_t *>(data), length, copy.get());
    copy.get()[length] = 0;
    if (self->mListener != nullptr) {
        self->mListener->OnDataReceived(copy.get(), length);
    }
} catch (const std::exception &error) {
    PARVANE_ERROR("packet dropped [%s]", error.what());
}

void ConnectionManager::TALNotiOnServiceConnectionIndication(int agentId, int connectionId,
                                                             void *peer, void *detail) noexcept
{
    ConnectionManager *const self = GetInstance();
    if (acceptServiceConnection(agentId, connectionId, peer, detail) != 0) {
        PARVANE_WARN("fail to accept service connection");
        return;
    }
    self->mConnectionId = connectionId;
    self->mIsServiceConnected = true;
}

void ConnectionManager::TALNotiOnServiceTerminated(int /*connectionId*/) noexcept
try {
    ConnectionManager *const self = GetInstance();
    if (self->mListener != nullptr) {
        self->mListener->OnServiceTerminated();
    }
} catch (const std::exception &error) {
    PARVANE_ERROR("link event dropped [%s]", error.what());
}

void ConnectionManager::TALNotiOnServiceCreateConfirm(int /*agentId*/, int connectionId,
                                                      void * /*peer*/, int result) noexcept
{
    ConnectionManager *const self = GetInstance();
    if (result != 0) {
        PARVANE_WARN("service connection failed.");
        return;
    }
    self->mConnectionId = connectionId;
    self->mIsServiceConnected = true;
}

void ConnectionManager::TALNotiOnPeerAgent(int /*agentId*/, void * /*peer*/, int status) noexcept
{
    ConnectionManager *const self = GetInstance();
    if (status == 0) {
        self->mFindPeerCount = 0;
        return;
    }
    if (status != kPeerToRetrySilently) {
        PARVANE_ERROR("find peer agent failed : %d", status);
    }
    self->FindAgentPeer();
}

void ConnectionManager::OnConnStatusChanged(vconf_node * /*node*/, void * /*user_data*/) noexcept
try {
    ConnectionManager *const self = GetInstance();
    const int status = ReadConnStatus();
    if (status == 1 && !self->mIsInitialized) {
        self->InitializeTALConnection();
    } else if (status == 0 && self->mIsInitialized) {
        self->TerminateTALConnection();
    }
} catch (const std::exception &error) {
    PARVANE_ERROR("link event dropped [%s]", error.what());
}

gboolean ConnectionManager::OnRetryTimer(gpointer /*data*/) noexcept
{
    GetInstance()->InitializeTALConnection();
    return G_SOURCE_REMOVE;
}

} // namespace Parvane
