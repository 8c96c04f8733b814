#pragma once

#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Broker.h"
#include "Discovery.h"
#include "Queue.h"

namespace ParvaneHub {

/**
 * Brings the queue to the broker, in its order, and before it what holds at present: which watches
 * there are, and which of them are linked.
 *
 * So many messages are on their way at a time. One leaves the queue when the broker has acknowledged
 * it; after a lost connection those that it has not are sent again, with the identity that they had.
 * Main-loop thread only.
 */
class Publisher
{
public:
    static constexpr std::size_t kMostOnTheWay = 100;

    struct Counts
    {
        std::uint64_t mDelivered = 0;
        std::uint64_t mRefused = 0; // by the broker, for good
    };

    /** @param queue  borrowed; its Commit() is the caller's, after each call that came from the loop */
    Publisher(const BrokerSettings &settings, Topics topics, Queue &queue);

    void Start() { mBroker.Connect(); }
    void Stop() { mBroker.Disconnect(); }

    /** What a watch is asked for, and whether it is linked; told now and on each connection. */
    void Announce(const std::string &watch, const Wishes &wishes, bool isLinked);

    /** It is followed no more: its entities are taken away, by the queue. */
    void Withdraw(const std::string &watch);

    /** Sends what may be sent; after each Commit() that has succeeded. */
    void Pump();

    [[nodiscard]] const Broker::Status &BrokerStatus() const { return mBroker.GetStatus(); }
    [[nodiscard]] const Counts &GetCounts() const { return mCounts; }

    /** Called when the queue has something to commit. */
    void SetOnWork(std::function<void()> onWork) { mOnWork = std::move(onWork); }

private:
    struct Announced
    {
        Wishes mWishes;
        bool mIsLinked = false;
    };

    void OnConnected();
    void OnLost();
    void OnDone(int number, const std::string &refusal);
    void OnMessage(std::string_view body);
    bool SendAnnouncement();
    bool SendQueued();
    bool Send(const std::string &topic, std::string_view body, bool isRetained, std::int64_t place);

    Topics mTopics;
    Queue &mQueue;
    Counts mCounts;
    std::map<std::string, Announced> mWatches;
    std::set<std::string> mDiscoverable;   // whose entities are to be told
    std::set<std::string> mChanged;        // whose availability is to be told
    std::map<int, std::int64_t> mOnTheWay; // numbers of messages: their places, 0 for none
    std::deque<Queued> mRead;              // of the queue, behind what is on its way
    std::int64_t mReadUpTo = 0;
    std::function<void()> mOnWork;
    Broker mBroker;
};

} // namespace ParvaneHub
