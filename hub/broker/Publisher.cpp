#include "Publisher.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "Log.h"
#include "ReadingText.h"

namespace ParvaneHub {

namespace {

using std::chrono::milliseconds;

/** Of two clocks that may both be wrong, the one that says that it is older. */
milliseconds AgeOf(const Queued &queued, std::int64_t clockS)
{
    const auto now = std::chrono::floor<milliseconds>(std::chrono::system_clock::now());
    const milliseconds byWall = now.time_since_epoch() - milliseconds(queued.mMessage.mAtMs);
    const milliseconds bySteady = std::chrono::seconds(clockS - queued.mTakenS);
    return std::max({byWall, bySteady, milliseconds{0}});
}

} // namespace

Publisher::Publisher(const BrokerSettings &settings, Topics topics, Queue &queue)
    : mTopics(std::move(topics)),
      mQueue(queue),
      mBroker(settings, mTopics.Hub(),
              mTopics.mDiscovery.empty() ? std::string() : mTopics.mDiscovery + "/status",
              {[this] { OnConnected(); }, [this] { OnLost(); },
               [this](int number, const std::string &refusal) { OnDone(number, refusal); },
               [this](std::string_view /*topic*/, std::string_view body) { OnMessage(body); }})
{}

void Publisher::Announce(const std::string &watch, const Wishes &wishes, bool isLinked)
{
    const auto [entry, isNew] = mWatches.try_emplace(watch);
    if (isNew || entry->second.mWishes != wishes) {
        mDiscoverable.insert(watch);
    }
    entry->second = {wishes, isLinked};
    mChanged.insert(watch);
    Pump();
}

void Publisher::Withdraw(const std::string &watch)
{
    mWatches.erase(watch);
    mDiscoverable.erase(watch);
    mChanged.erase(watch);
    for (DiscoveryMessage &message : Undiscover(mTopics, watch)) {
        mQueue.Put({std::move(message.mTopic), {}, 0, true});
    }
    // States that are retained, too.
    for (const std::string_view level :
         {std::string_view("availability"), kWorn, kActivity, kSteps}) {
        mQueue.Put({mTopics.Watch(watch, level), {}, 0, true});
    }
    mQueue.Forget(watch);
}

void Publisher::Pump()
{
    while (mBroker.GetStatus().mIsConnected && mOnTheWay.size() < kMostOnTheWay &&
           (SendAnnouncement() || SendQueued())) {
    }
}

void Publisher::OnConnected()
{
    Send(mTopics.Hub(), "online", true, 0);
    for (const auto &[watch, announced] : mWatches) {
        mDiscoverable.insert(watch);
        mChanged.insert(watch);
    }
    Pump();
}

void Publisher::OnLost()
{
    mOnTheWay.clear();
    mRead.clear();
    mReadUpTo = 0;
}

void Publisher::OnDone(int number, const std::string &refusal)
{
    const auto found = mOnTheWay.find(number);
    if (found == mOnTheWay.end()) {
        return;
    }
    if (!refusal.empty()) {
        if (mCounts.mRefused++ == 0) {
            Parvane::LogWarning("the broker refuses messages: " + refusal);
        }
    }
    if (found->second != 0) {
        mCounts.mDelivered += refusal.empty() ? 1U : 0U;
        mQueue.Remove(found->second);
    }
    mOnTheWay.erase(found);
    mOnWork();
}

/** Who reads the discovery has begun anew. */
void Publisher::OnMessage(std::string_view body)
{
    if (body == "online") {
        for (const auto &[watch, announced] : mWatches) {
            mDiscoverable.insert(watch);
        }
        mOnWork();
    }
}

/** @return whether there was something */
bool Publisher::SendAnnouncement()
{
    if (!mDiscoverable.empty()) {
        const std::string watch = mDiscoverable.extract(mDiscoverable.begin()).value();
        for (const auto &message : Discover(mTopics, watch, mWatches[watch].mWishes)) {
            Send(message.mTopic, message.mBody, true, 0);
        }
        return true;
    }
    if (!mChanged.empty()) {
        const std::string watch = mChanged.extract(mChanged.begin()).value();
        Send(mTopics.Availability(watch), mWatches[watch].mIsLinked ? "online" : "offline", true,
             0);
        return true;
    }
    return false;
}

bool Publisher::SendQueued()
{
    if (mRead.empty()) {
        auto messages = mQueue.After(mReadUpTo, kMostOnTheWay);
        std::move(messages.begin(), messages.end(), std::back_inserter(mRead));
    }
    if (mRead.empty()) {
        return false;
    }
    const Queued &next = mRead.front();
    const Message &message = next.mMessage;
    const std::string body = message.mAtMs == 0 || message.mBody.empty()
                                 ? message.mBody
                                 : WithAge(message.mBody, AgeOf(next, mQueue.ClockS()));
    if (!Send(message.mTopic, body, message.mIsRetained, next.mPlace)) {
        return false;
    }
    mReadUpTo = next.mPlace;
    mRead.pop_front();
    return true;
}

bool Publisher::Send(const std::string &topic, std::string_view body, bool isRetained,
                     std::int64_t place)
{
    const auto number = mBroker.Publish(topic, body, isRetained);
    if (number) {
        mOnTheWay.emplace(*number, place);
    }
    return number.has_value();
}

} // namespace ParvaneHub
