#include "ConnectionManager.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
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

// Fixed by the accessory link where a pointer has 4 bytes.
constexpr bool kIsFixedLayout = sizeof(void *) == 4;
static_assert(!kIsFixedLayout || sizeof(tal_notifications) == 48);
static_assert(!kIsFixedLayout || offsetof(tal_notifications, registerServiceAgentConfirm) == 0);
static_assert(!kIsFixedLayout || offsetof(tal_notifications, dataReceived) == 4);
static_assert(!kIsFixedLayout || offsetof(tal_notifications, serviceConnectionIndication) == 8);
static_assert(!kIsFixedLayout || offsetof(tal_notifications, serviceTerminated) == 12);
static_assert(!kIsFixedLayout || offsetof(tal_notifications, serviceCreateConfirm) == 16);
static_assert(!kIsFixedLayout || offsetof(tal_notifications, peerAgent) == 20);
static_assert(!kIsFixedLayout || offsetof(tal_notifications, unused7) == 24);
static_assert(!kIsFixedLayout || offsetof(tal_notifications, unused8) == 28);
static_assert(!kIsFixedLayout || offsetof(tal_notifications, unused9) == 32);
static_assert(!kIsFixedLayout || offsetof(tal_notifications, reserved) == 36);
static_assert(!kIsFixedLayout || sizeof(tal_service_descriptor) == 32);
static_assert(!kIsFixedLayout || offsetof(tal_service_descriptor, profileId) == 0);
static_assert(!kIsFixedLayout || offsetof(tal_service_descriptor, serviceName) == 4);
static_assert(!kIsFixedLayout || offsetof(tal_service_descriptor, field8) == 8);
static_assert(!kIsFixedLayout || offsetof(tal_service_descriptor, field12) == 12);
static_assert(!kIsFixedLayout || offsetof(tal_service_descriptor, channels) == 16);
static_assert(!kIsFixedLayout || offsetof(tal_service_descriptor, channelCount) == 20);
static_assert(!kIsFixedLayout || offsetof(tal_service_descriptor, reserved) == 24);
static_assert(sizeof(tal_channel_descriptor) == 20);
static_assert(offsetof(tal_channel_descriptor, id) == 0);
static_assert(offsetof(tal_channel_descriptor, field2) == 2);
static_assert(offsetof(tal_channel_descriptor, field4) == 4);
static_assert(offsetof(tal_channel_descriptor, reserved) == 8);

template <typename T>
PlatformPtr<T> AllocateZeroed()
{
    return PlatformPtr<T>(static_cast<T *>(std::calloc(1, sizeof(T))));
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

// The trace of a message: "00 14 01 02 " is one of two bytes.
constexpr int32_t kTwoDigitPositions = 100;
constexpr std::size_t kCharactersPerByte = 6;
constexpr std::size_t kDigitsOffset = 3;
constexpr char kDigits[] = "0123456789abcdef";

using TwoDigitTrace = std::array<char, kTwoDigitPositions * kCharactersPerByte>;

// A trace whose bytes are still blank.
constexpr TwoDigitTrace kEmptyTrace = [] {
    TwoDigitTrace trace = {};
    trace.fill(' ');
    for (std::size_t position = 0; position < kTwoDigitPositions; ++position) {
        trace[position * kCharactersPerByte] = static_cast<char>('0' + position / 10);
        trace[position * kCharactersPerByte + 1] = static_cast<char>('0' + position % 10);
    }
    return trace;
}();

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
        new ConnectionManager(); // makes itself known
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

void ConnectionManager::UnsetListener(const ConnectionEventListener *listener)
{
    if (mListener == listener) {
        mListener = nullptr;
    }
}

void ConnectionManager::Initialize()
{
    InitializeTALConnection();
}

void ConnectionManager::InitializeTALConnection()
{
    if (mIsInitializing) {
        return; // the link comes up within a call below
    }
    mIsInitializing = true;
    mIsTerminatedMeanwhile = false;
    try {
        auto notifications = CreateTALNotification();
        if (registerNotifications(*notifications) != 0) {
            ThrowFailure(__func__, "Fail to register notification\n");
        }
        auto channel = CreateChannel();
        auto service = CreateService(channel.get());
        if (registerServiceAgent(service.get()) != 0) {
            ThrowFailure(__func__, "registerServiceAgent failed");
        }
        // From here on the link looks at the records, whatever has happened within the calls.
        mNotifications = std::move(notifications);
        mService = std::move(service);
        mChannel = std::move(channel);
        if (mIsTerminatedMeanwhile) {
            ThrowFailure(__func__, "terminated meanwhile");
        }
        mRetryDelay = 0;
        mIsInitialized = true;
    } catch (const std::exception &error) {
        PARVANE_ERROR("TALConnect initialize fail [%s]", error.what());
        mRetryDelay += kRetryStepMs;
        g_timeout_add(mRetryDelay, OnRetryTimer, nullptr);
    }
    mIsInitializing = false;
}

PlatformPtr<tal_notifications> ConnectionManager::CreateTALNotification()
{
    auto notifications = AllocateZeroed<tal_notifications>();
    if (!notifications) {
        ThrowFailure(__func__, "calloc fail");
    }
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
    auto service = AllocateZeroed<tal_service_descriptor>();
    if (!service) {
        ThrowFailure(__func__, "ServiceDesc calloc() failed");
    }
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
    auto channel = AllocateZeroed<tal_channel_descriptor>();
    if (!channel) {
        ThrowFailure(__func__, " ChannelDesc calloc() failed");
    }
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
    // Most messages are no longer than that; they are written in one go, because each one is traced.
    const int32_t inOneGo = std::min(size, kTwoDigitPositions);
    if (inOneGo > 0) {
        const std::size_t begin = trace.size();
        trace.append(kEmptyTrace.data(), static_cast<std::size_t>(inOneGo) * kCharactersPerByte);
        char *digits = trace.data() + begin + kDigitsOffset;
        for (int32_t position = 0; position < inOneGo; ++position, digits += kCharactersPerByte) {
            digits[0] = kDigits[data[position] >> 4U];
            digits[1] = kDigits[data[position] & 0x0FU];
        }
    }
    for (int32_t position = kTwoDigitPositions; position < size; ++position) {
        trace += std::to_string(position);
        trace += ' ';
        trace += kDigits[data[position] >> 4U];
        trace += kDigits[data[position] & 0x0FU];
        trace += ' ';
    }
}

void ConnectionManager::TerminateTALConnection()
{
    if (mIsTerminating) {
        return; // the link tells of its end from within a call below
    }
    mIsTerminating = true;
    mIsTerminatedMeanwhile = true;
    const bool isAgentKnown = mLocalAgentId != -1;
    if (mConnectionId != -1) {
        const int result = terminateServiceConnection(std::exchange(mConnectionId, -1));
        if (result != 0) {
            PARVANE_ERROR("terminateServiceConnection FAIL [%d]", result);
        }
    }
    if (mLocalAgentId != -1) {
        const int result = deRegisterServiceAgent(std::exchange(mLocalAgentId, -1));
        if (result != 0) {
            PARVANE_ERROR("deRegisterServiceAgent FAIL [%d]", result);
        }
    }
    const int result = deregisterNotifications();
    if (result != 0) {
        PARVANE_ERROR("deregisterNotifications FAIL [%d]", result);
    }
    // Once more: a notification may have come from within the calls above.
    mConnectionId = -1;
    mLocalAgentId = -1;
    mIsServiceConnected = false;
    mIsInitialized = false;
    mNotifications.reset();
    if (isAgentKnown) {
        // Without its id the agent could not be deregistered: the link may still read its records.
        mService.reset();
        mChannel.reset();
    }
    mIsTerminating = false;
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
    if (length > 0) {
        std::memcpy(copy.get(), data, length);
    }
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
