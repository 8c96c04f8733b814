#include "ContextManager.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>
#include <optional>
#include <utility>
#include <variant>

#include "ContextBlock.h"
#include "ErrorCode.h"
#include "Numbers.h"
#include "RuntimeLog.h"

namespace ParvanePlatform {

namespace {

constexpr std::array kItems = {ContextItem::Gesture, ContextItem::Pedometer, ContextItem::HeartRate,
                               ContextItem::Activity};

std::optional<ContextItem> KnownItem(int item)
{
    for (const ContextItem known : kItems) {
        if (static_cast<int>(known) == item) {
            return known;
        }
    }
    return std::nullopt;
}

/** True when the states that were asked for, if any, leave a reading of the activity out. */
bool IsFilteredOut(const std::vector<int> &states, const SensorReading &reading)
{
    if (states.empty()) {
        return false;
    }
    // By its key: a reading may tell of the accuracy alone, which is no state.
    const auto *const state =
        std::find_if(reading.begin(), reading.end(), [](const SensorValue &value) {
            return std::strcmp(value.mKey, CONTEXT_ACTIVITY_STATUS) == 0;
        });
    return state != reading.end() &&
           std::none_of(states.begin(), states.end(), [state](int wanted) {
               return std::visit([wanted](auto number) { return number == wanted; }, state->mValue);
           });
}

} // namespace

ContextManager::ContextManager(SensorSources sources, const Clock &clock)
    : mClock(clock), mSources(std::move(sources))
{
    mSources.SetListener(this);
}

int ContextManager::Subscribe(int item, const context_option *option, context_changed_cb callback,
                              void *userData, int &requestId)
{
    if (callback == nullptr || (option != nullptr && !IsContextOption(option))) {
        return ErrorCode::kInvalidParameter;
    }
    const auto known = KnownItem(item);
    SensorSource *source = known ? mSources.SourceOf(*known) : nullptr;
    if (source == nullptr) {
        return ErrorCode::kNotSupported;
    }
    Subscription subscription;
    subscription.mSince = mClock.Now();
    if (option != nullptr && *known == ContextItem::Activity) {
        subscription.mStates = GetOptionInts(option, CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER);
    }
    subscription.mReceiver = Receiver{callback, userData, mLastRequestId = NextId(mLastRequestId)};
    const int newRequestId = subscription.mReceiver.mRequestId;
    mSubscriptions.insert_or_assign(*known, std::move(subscription));
    const int before = std::exchange(requestId, newRequestId);
    const auto takeBack = [&] {
        requestId = before;
        mSubscriptions.erase(*known);
        if (!IsOn(*known)) {
            source->Stop(*known);
        }
    };
    try {
        const int result = source->Start(*known);
        if (result != 0) {
            takeBack();
        }
        return result;
    } catch (...) {
        takeBack();
        throw;
    }
}

int ContextManager::Unsubscribe(int item)
{
    const auto known = KnownItem(item);
    if (!known) {
        return ErrorCode::kNotSupported;
    }
    if (mSubscriptions.erase(*known) > 0 && !IsOn(*known)) {
        mSources.SourceOf(*known)->Stop(*known);
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
    const SensorSource *source = mSources.SourceOf(*known);
    const auto reading = source != nullptr ? source->Latest(*known) : std::nullopt;
    if (!reading) {
        return ErrorCode::kNoData;
    }
    const Receiver receiver{callback, userData, mLastRequestId = NextId(mLastRequestId)};
    mQueries.push_back(PendingQuery{receiver, *known, *reading, mTurn});
    if (!mAnswer.IsActive()) {
        mAnswer = Parvane::LoopSource::Post([this] { AnswerQueries(); });
    }
    requestId = receiver.mRequestId;
    return 0;
}

std::shared_ptr<void> ContextManager::Keep(ContextItem item, int pid)
{
    SensorSource *source = mSources.SourceOf(item);
    if (source == nullptr || mSources.KindOf(item) == SourceKind::None) {
        return nullptr;
    }
    const bool wasOn = IsOn(item);
    const auto keeper = mKeepers.insert({item, Keeper{pid, mClock.Now()}});
    std::shared_ptr<void> handle(&*keeper, [this, source, item, keeper](void *) {
        mKeepers.erase(keeper);
        if (!IsOn(item)) {
            source->Stop(item);
        }
    });
    // Begun anew, an item would tell its subscriber what that knows already.
    return wasOn || source->Start(item) == 0 ? handle : nullptr;
}

void ContextManager::OnReading(ContextItem item, const SensorReading &reading)
{
    History &history = mHistory[item];
    history.mLastReading = reading;
    history.mLastRead = mClock.Now();
    if (mTap) {
        mTap(item, reading);
    }
    // The answers of waiting queries come after this reading: an older count would seem to go back.
    for (PendingQuery &query : mQueries) {
        if (query.mItem == item) {
            query.mReading = reading;
        }
    }
    const auto subscription = mSubscriptions.find(item);
    if (subscription == mSubscriptions.end() ||
        IsFilteredOut(subscription->second.mStates, reading)) {
        return;
    }
    ++history.mDelivered;
    // A copy: the callback may end the subscription.
    const Receiver receiver = subscription->second.mReceiver;
    Deliver(receiver, item, reading);
}

std::vector<ContextManager::ItemStatus> ContextManager::Status() const
{
    std::vector<ItemStatus> all;
    for (const ContextItem item : kItems) {
        ItemStatus status;
        status.mItem = item;
        status.mSource = mSources.KindOf(item);
        if (const SensorSource *source = mSources.SourceOf(item); source != nullptr) {
            status.mProblem = source->Problem();
        }
        if (const auto found = mSubscriptions.find(item); found != mSubscriptions.end()) {
            status.mRequestId = found->second.mReceiver.mRequestId;
            status.mSubscribed = found->second.mSince;
        }
        for (auto [at, end] = mKeepers.equal_range(item); at != end; ++at) {
            status.mKeepers.push_back(at->second);
        }
        if (const auto found = mHistory.find(item); found != mHistory.end()) {
            static_cast<History &>(status) = found->second;
        }
        all.push_back(status);
    }
    return all;
}

void ContextManager::AnswerQueries()
{
    // First: a query that a callback makes is answered in the next turn.
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
    context_data *data = nullptr;
    try {
        data = MakeContextData(mClock.WallMs(), reading);
    } catch (const std::bad_alloc &) {
        // Not passed on: other readings and answers are waiting behind this one.
        LogError("context manager: a reading of item %d is lost: out of memory",
                 static_cast<int>(item));
        return;
    }
    receiver.mCallback(0, static_cast<int>(item), data, receiver.mUserData, receiver.mRequestId);
}

} // namespace ParvanePlatform
