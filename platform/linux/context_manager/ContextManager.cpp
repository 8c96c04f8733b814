#include "ContextManager.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <utility>
#include <variant>

#include "base/ErrorCode.h"
#include "context_manager/ContextBlock.h"

namespace ParvanePlatform {

namespace {

std::optional<ContextItem> KnownItem(int item)
{
    for (const ContextItem known : {ContextItem::Gesture, ContextItem::Pedometer,
                                    ContextItem::HeartRate, ContextItem::Activity}) {
        if (static_cast<int>(known) == item) {
            return known;
        }
    }
    return std::nullopt;
}

/** True when the states that were asked for, if any, leave a reading out. */
bool IsFilteredOut(const std::vector<int> &states, const SensorReading &reading)
{
    if (states.empty() || reading.size() == 0) {
        return false;
    }
    const int *state = std::get_if<int>(&reading.begin()->mValue);
    return state != nullptr && std::find(states.begin(), states.end(), *state) == states.end();
}

} // namespace

ContextManager::ContextManager(std::unique_ptr<SensorSource> source, const Clock &clock)
    : mClock(clock), mSource(std::move(source))
{
    mSource->SetListener(this);
}

int ContextManager::Subscribe(int item, const context_option *option, context_changed_cb callback,
                              void *userData, int &requestId)
{
    if (callback == nullptr || (option != nullptr && !IsContextOption(option))) {
        return ErrorCode::kInvalidParameter;
    }
    const auto known = KnownItem(item);
    if (!known) {
        return ErrorCode::kNotSupported;
    }
    Subscription subscription;
    if (option != nullptr && *known == ContextItem::Activity) {
        subscription.mStates = GetOptionInts(option, CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER);
    }
    subscription.mReceiver = Receiver{callback, userData, NewRequestId()};
    requestId = subscription.mReceiver.mRequestId;
    mSubscriptions.insert_or_assign(*known, std::move(subscription));
    mSource->Start(*known);
    return 0;
}

int ContextManager::Unsubscribe(int item)
{
    const auto known = KnownItem(item);
    if (!known) {
        return ErrorCode::kNotSupported;
    }
    if (mSubscriptions.erase(*known) > 0) {
        mSource->Stop(*known);
    }
    std::erase_if(mQueries, [known](const PendingQuery &query) { return query.mItem == *known; });
    return 0;
}

int ContextManager::Query(int item, const context_option *option, context_changed_cb callback,
                          void *userData, int &requestId)
{
    if (callback == nullptr || (option != nullptr && !IsContextOption(option))) {
        return ErrorCode::kInvalidParameter;
    }
    const auto known = KnownItem(item);
    if (!known) {
        return ErrorCode::kNotSupported;
    }
    const auto reading = mSource->Latest(*known);
    if (!reading) {
        return ErrorCode::kNoData;
    }
    const Receiver receiver{callback, userData, NewRequestId()};
    mQueries.push_back(PendingQuery{receiver, *known, *reading, mTurn});
    if (!mAnswer.IsActive()) {
        mAnswer = LoopSource::Post([this] { AnswerQueries(); });
    }
    requestId = receiver.mRequestId;
    return 0;
}

void ContextManager::OnReading(ContextItem item, const SensorReading &reading)
{
    const auto subscription = mSubscriptions.find(item);
    if (subscription == mSubscriptions.end() ||
        IsFilteredOut(subscription->second.mStates, reading)) {
        return;
    }
    // A copy: the callback may end the subscription.
    const Receiver receiver = subscription->second.mReceiver;
    Deliver(receiver, item, reading);
}

void ContextManager::AnswerQueries()
{
    // Queries that are made from here on get a turn of their own.
    mAnswer.Remove();
    const std::uint64_t turn = mTurn++;
    while (!mQueries.empty() && mQueries.front().mTurn <= turn) {
        const PendingQuery query = mQueries.front();
        mQueries.pop_front();
        Deliver(query.mReceiver, query.mItem, query.mReading);
    }
}

void ContextManager::Deliver(const Receiver &receiver, ContextItem item,
                             const SensorReading &reading) const
{
    context_data *data = MakeContextData(mClock.WallMs(), reading);
    receiver.mCallback(0, static_cast<int>(item), data, receiver.mUserData, receiver.mRequestId);
}

int ContextManager::NewRequestId()
{
    mLastRequestId = mLastRequestId == std::numeric_limits<int>::max() ? 1 : mLastRequestId + 1;
    return mLastRequestId;
}

} // namespace ParvanePlatform
