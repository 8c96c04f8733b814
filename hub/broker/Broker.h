#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Backoff.h"
#include "LoopSource.h"
#include "Settings.h"

struct mosquitto;

namespace ParvaneHub {

/**
 * The connection to the MQTT broker: made, and made again after growing pauses, for as long as the
 * object lives. Messages go with quality of service 1; nothing is kept here through a lost
 * connection. No callback is called within Publish(). Main-loop thread only.
 */
class Broker
{
public:
    struct Listener
    {
        std::function<void()> mOnConnected;
        std::function<void()> mOnLost; // what was not acknowledged by then has to be sent again
        /** The broker has taken a message, or refused it for good: then why, else empty. */
        std::function<void(int number, const std::string &refusal)> mOnDone;
        std::function<void(std::string_view topic, std::string_view body)> mOnMessage;
    };

    struct Status
    {
        bool mIsConnected = false;
        std::uint64_t mConnections = 0;
        std::string mProblem; // of the last attempt; empty while connected
    };

    /**
     * @param will  the topic on which the broker says "offline" when the hub is gone; the hub says
     *              "online" there itself
     * @param subscription  a topic whose messages are wanted; may be empty
     */
    Broker(BrokerSettings settings, std::string will, std::string subscription, Listener listener);
    ~Broker();

    Broker(const Broker &) = delete;
    Broker &operator=(const Broker &) = delete;

    void Connect();

    /** @return the message's number for mOnDone; nothing without a connection */
    std::optional<int> Publish(const std::string &topic, std::string_view body, bool isRetained);

    /** Says that the hub goes, and ends the connection; waits for the broker, 2 s at most. */
    void Disconnect();

    [[nodiscard]] const Status &GetStatus() const { return mStatus; }

private:
    struct ClientRelease
    {
        void operator()(mosquitto *client) const noexcept;
    };
    using Client = std::unique_ptr<mosquitto, ClientRelease>;
    struct Callbacks;

    void MakeClient();
    void UseTls();
    void UsePassword();
    void WatchSocket();
    void Work(int (*work)(mosquitto *client));
    void Lose(const std::string &why);
    void TellConnected();

    BrokerSettings mSettings;
    std::string mWill;
    std::string mSubscription;
    Listener mListener;
    Status mStatus;
    ParvaneHost::Backoff mBackoff;
    Client mClient;
    int mFd = -1;
    Parvane::LoopSource mReadable;
    Parvane::LoopSource mWritable;
    Parvane::LoopSource mTick;
    Parvane::LoopSource mRetry;
    Parvane::LoopSource mTellLater;
    std::string mRefusal; // of the connection, as the broker has it
    int mTicks = 0;       // since the attempt, until it is a connection
};

} // namespace ParvaneHub
