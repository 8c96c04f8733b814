#include "Broker.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "ErrnoText.h"
#include "Log.h"
#include "Printable.h"
#include "RegularFile.h"

namespace ParvaneHub {

namespace {

using std::chrono::milliseconds;

constexpr int kQos = 1;
constexpr int kUnacknowledged = 1000; // more than are ever sent before an answer
constexpr milliseconds kTick{1000};   // as the library wants it
constexpr int kPatienceTicks = 15;    // for an answer to an attempt

std::string DefaultClientId()
{
    std::array<char, 65> host{};
    ::gethostname(host.data(), host.size() - 1);
    return std::string("parvane-hub-") + host.data();
}

std::string ErrorText(int result)
{
    return result == MOSQ_ERR_ERRNO ? Parvane::ErrnoText(errno) : mosquitto_strerror(result);
}

void Require(int result, const char *what)
{
    if (result != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error(std::string(what) + ": " + ErrorText(result));
    }
}

const char *OrNull(const std::string &text)
{
    return text.empty() ? nullptr : text.c_str();
}

/** Whether the other side has gone; the library goes on with a handshake for ever. */
bool HasEnded(int fd)
{
    char byte = 0;
    const ssize_t count = ::recv(fd, &byte, sizeof(byte), MSG_PEEK | MSG_DONTWAIT);
    return count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
}

/** Everything that has arrived; what a layer below holds back tells no descriptor of. */
int ReadAll(mosquitto *client)
{
    constexpr int kMost = 1000;
    int result = MOSQ_ERR_SUCCESS;
    errno = 0;
    for (int i = 0; i < kMost && result == MOSQ_ERR_SUCCESS && errno != EAGAIN; ++i) {
        errno = 0;
        result = mosquitto_loop_read(client, 1);
    }
    const bool isWell = result == MOSQ_ERR_SUCCESS;
    return isWell && HasEnded(mosquitto_socket(client)) ? int{MOSQ_ERR_CONN_LOST} : result;
}

int WriteSome(mosquitto *client)
{
    return mosquitto_loop_write(client, 1);
}

} // namespace

/** What the library calls, from within its calls. */
struct Broker::Callbacks
{
    static void OnConnect(mosquitto * /*client*/, void *object, int code, int /*flags*/,
                          const mosquitto_property * /*properties*/) noexcept
    {
        auto *self = static_cast<Broker *>(object);
        if (code != 0) {
            self->mRefusal = self->mSettings.mIsVersion5 ? mosquitto_reason_string(code)
                                                         : mosquitto_connack_string(code);
            return;
        }
        self->mTellLater = Parvane::LoopSource::Post([self] { self->TellConnected(); });
    }

    static void OnPublish(mosquitto * /*client*/, void *object, int number, int code,
                          const mosquitto_property * /*properties*/) noexcept
    {
        constexpr int kRefused = 128;
        auto *self = static_cast<Broker *>(object);
        self->mListener.mOnDone(number, code >= kRefused ? mosquitto_reason_string(code) : "");
    }

    static void OnMessage(mosquitto * /*client*/, void *object,
                          const mosquitto_message *message) noexcept
    {
        auto *self = static_cast<Broker *>(object);
        self->mListener.mOnMessage(message->topic, {static_cast<const char *>(message->payload),
                                                    static_cast<std::size_t>(message->payloadlen)});
    }
};

void Broker::ClientRelease::operator()(mosquitto *client) const noexcept
{
    mosquitto_destroy(client);
}

Broker::Broker(BrokerSettings settings, std::string will, std::string subscription,
               Listener listener)
    : mSettings(std::move(settings)),
      mWill(std::move(will)),
      mSubscription(std::move(subscription)),
      mListener(std::move(listener)),
      mBackoff(milliseconds{500}, milliseconds{30000})
{
    constexpr int kPlainPort = 1883;
    constexpr int kTlsPort = 8883;
    if (mSettings.mPort == 0) {
        mSettings.mPort = mSettings.mTls ? kTlsPort : kPlainPort;
    }
    mosquitto_lib_init();
}

Broker::~Broker()
{
    mClient.reset();
    mosquitto_lib_cleanup();
}

void Broker::Connect()
{
    mRefusal.clear();
    mTicks = 0;
    try {
        MakeClient();
        Require(mosquitto_connect_async(mClient.get(), mSettings.mHost.c_str(), mSettings.mPort,
                                        static_cast<int>(mSettings.mKeepAlive.count())),
                "cannot connect");
    } catch (const std::runtime_error &failure) {
        Lose(failure.what());
        return;
    }
    mTick = Parvane::LoopSource::After(kTick, [this] { Work(mosquitto_loop_misc); });
    WatchSocket();
}

std::optional<int> Broker::Publish(const std::string &topic, std::string_view body, bool isRetained)
{
    int number = 0;
    if (!mStatus.mIsConnected ||
        mosquitto_publish(mClient.get(), &number, topic.c_str(), static_cast<int>(body.size()),
                          body.data(), kQos, isRetained) != MOSQ_ERR_SUCCESS) {
        return std::nullopt; // a connection that is lost is told by the next read
    }
    if (!mWritable.IsActive()) {
        WatchSocket();
    }
    return number;
}

void Broker::Disconnect()
{
    constexpr std::string_view kOffline = "offline";
    mTick.Remove();
    mRetry.Remove();
    mReadable.Remove();
    mWritable.Remove();
    mTellLater.Remove();
    if (mStatus.mIsConnected) {
        // A will is not told to those who take their leave.
        Publish(mWill, kOffline, true);
        mReadable.Remove();
        mWritable.Remove();
        mosquitto_disconnect(mClient.get());
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        for (int fd = mosquitto_socket(mClient.get());
             fd >= 0 && std::chrono::steady_clock::now() < end;
             fd = mosquitto_socket(mClient.get())) {
            const int events = POLLIN | (mosquitto_want_write(mClient.get()) ? POLLOUT : 0);
            pollfd polled{fd, static_cast<short>(events), 0};
            ::poll(&polled, 1, static_cast<int>(kTick.count()) / 10);
            if (WriteSome(mClient.get()) != 0 || ReadAll(mClient.get()) != 0) {
                break;
            }
        }
    }
    mStatus.mIsConnected = false;
    mClient.reset();
}

/** A new one for each connection, so that nothing is left of the one before. */
void Broker::MakeClient()
{
    constexpr std::string_view kOffline = "offline";
    const std::string id = mSettings.mClientId.empty() ? DefaultClientId() : mSettings.mClientId;
    mClient.reset(mosquitto_new(id.c_str(), true, this));
    if (!mClient) {
        throw std::runtime_error("cannot make a client: " + Parvane::ErrnoText(errno));
    }
    mosquitto *client = mClient.get();
    mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION,
                         mSettings.mIsVersion5 ? MQTT_PROTOCOL_V5 : MQTT_PROTOCOL_V311);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_max_inflight_messages_set(client, kUnacknowledged);
    Require(mosquitto_will_set(client, mWill.c_str(), static_cast<int>(kOffline.size()),
                               kOffline.data(), kQos, true),
            "cannot set the last will");
    UsePassword();
    if (mSettings.mTls) {
        UseTls();
    }
    mosquitto_connect_v5_callback_set(client, Callbacks::OnConnect);
    mosquitto_publish_v5_callback_set(client, Callbacks::OnPublish);
    mosquitto_message_callback_set(client, Callbacks::OnMessage);
}

void Broker::UseTls()
{
    mosquitto *client = mClient.get();
    if (mSettings.mAuthorities.empty()) {
        Require(mosquitto_int_option(client, MOSQ_OPT_TLS_USE_OS_CERTS, 1),
                "cannot use the certificates of the system");
    }
    Require(mosquitto_tls_set(client, OrNull(mSettings.mAuthorities),
                              mSettings.mAuthorities.empty() ? "/etc/ssl/certs" : nullptr,
                              OrNull(mSettings.mCertificate), OrNull(mSettings.mKey), nullptr),
            "cannot use the certificates");
}

void Broker::UsePassword()
{
    constexpr std::size_t kMostBytes = 4096;
    if (mSettings.mUser.empty()) {
        return;
    }
    std::string password;
    if (!mSettings.mPasswordFile.empty()) {
        if (const int error = Parvane::ReadWholeFile(mSettings.mPasswordFile, kMostBytes, password);
            error != 0) {
            throw std::runtime_error("cannot read the password in " + mSettings.mPasswordFile +
                                     ": " + Parvane::ErrnoText(error));
        }
        password.erase(std::min(password.find_first_of("\r\n"), password.size()));
    }
    Require(mosquitto_username_pw_set(mClient.get(), mSettings.mUser.c_str(), OrNull(password)),
            "cannot set the user");
}

/** Waits for the socket, as long as there is one: always to read, to write while something is left. */
void Broker::WatchSocket()
{
    const int fd = mosquitto_socket(mClient.get());
    if (fd != mFd || !mReadable.IsActive()) {
        mFd = fd;
        mWritable.Remove();
        mReadable = Parvane::LoopSource::WatchFd(fd, GIOCondition(G_IO_IN | G_IO_ERR | G_IO_HUP),
                                                 [this] { Work(ReadAll); });
    }
    if (!mosquitto_want_write(mClient.get())) {
        mWritable.Remove();
    } else if (!mWritable.IsActive()) {
        mWritable = Parvane::LoopSource::WatchFd(fd, G_IO_OUT, [this] { Work(WriteSome); });
    }
}

/** Lets the library do something, and looks at what came of it. */
void Broker::Work(int (*work)(mosquitto *client))
{
    const int result = work(mClient.get());
    const bool isMisc = work == mosquitto_loop_misc;
    if (result != MOSQ_ERR_SUCCESS || mosquitto_socket(mClient.get()) < 0) {
        Lose(!mRefusal.empty() ? mRefusal : ErrorText(result));
        return;
    }
    if (isMisc && !mStatus.mIsConnected && ++mTicks > kPatienceTicks) {
        Lose("no answer within 15 s");
        return;
    }
    if (isMisc) {
        mTick = Parvane::LoopSource::After(kTick, [this] { Work(mosquitto_loop_misc); });
    }
    WatchSocket();
}

/** No connection any more, or still none: another one after a pause. */
void Broker::Lose(const std::string &why)
{
    const bool wasConnected = std::exchange(mStatus.mIsConnected, false);
    const std::string problem = Parvane::Printable(
        mSettings.mHost + ':' + std::to_string(mSettings.mPort) + ": " + why, 300);
    mReadable.Remove();
    mWritable.Remove();
    mTick.Remove();
    mTellLater.Remove();
    mFd = -1;
    mClient.reset();
    if (problem != mStatus.mProblem) { // once for each reason
        Parvane::LogWarning(
            (wasConnected ? "the broker is gone: " : "no connection to the broker: ") + problem);
    }
    mStatus.mProblem = problem;
    mRetry = Parvane::LoopSource::After(mBackoff.Next(), [this] { Connect(); });
    if (wasConnected) {
        mListener.mOnLost();
    }
}

void Broker::TellConnected()
{
    mStatus.mIsConnected = true;
    mStatus.mProblem.clear();
    ++mStatus.mConnections;
    mBackoff.Reset();
    Parvane::LogInfo("connected to the broker");
    if (!mSubscription.empty()) {
        mosquitto_subscribe(mClient.get(), nullptr, mSubscription.c_str(), 0);
    }
    mListener.mOnConnected();
    WatchSocket();
}

} // namespace ParvaneHub
