#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <vector>

#include <platform/context_manager.h>

#include "base/Clock.h"
#include "base/LoopSource.h"
#include "context_manager/SensorSource.h"

namespace ParvanePlatform {

/**
 * Subscriptions and one-shot queries, over one sensor source.
 *
 * Readings reach callbacks from the main loop only, never from inside a call; each comes in a block
 * that the callback releases with free() and that carries the time of its delivery. A callback may
 * call anything. Request ids are above 0 and are not given twice. Main-loop thread only.
 */
class ContextManager : private SensorListener
{
public:
    /** `clock` is borrowed for the life of this object. */
    ContextManager(std::unique_ptr<SensorSource> source, const Clock &clock);
    ~ContextManager() override = default;

    ContextManager(const ContextManager &) = delete;
    ContextManager &operator=(const ContextManager &) = delete;

    /**
     * Subscribes to an item; a subscription that the item has already is replaced.
     *
     * `option` may be null. For the activity item its values of
     * CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER, when there are any, name the only states that
     * are delivered. Other values are not looked at.
     *
     * @return 0; -22 for a null callback or a bad option; -95 for an unknown item
     */
    int Subscribe(int item, const context_option *option, context_changed_cb callback,
                  void *userData, int &requestId);

    /**
     * Ends the item's subscription and its queries that are not answered yet; it may have none.
     *
     * @return 0; -95 for an unknown item
     */
    int Unsubscribe(int item);

    /**
     * Asks for an item's newest values, which come in the next turn of the main loop. `option` may
     * be null and is only checked.
     *
     * @return 0; -22; -61 when the item has no value yet; -95 for an unknown item
     */
    int Query(int item, const context_option *option, context_changed_cb callback, void *userData,
              int &requestId);

private:
    struct Receiver
    {
        context_changed_cb mCallback = nullptr;
        void *mUserData = nullptr;
        int mRequestId = 0;
    };

    struct Subscription
    {
        Receiver mReceiver;
        std::vector<int> mStates;
    };

    struct PendingQuery
    {
        Receiver mReceiver;
        ContextItem mItem = ContextItem::Gesture;
        SensorReading mReading;
        /** The turn in which it was made; it is answered in a later one. */
        std::uint64_t mTurn = 0;
    };

    void OnReading(ContextItem item, const SensorReading &reading) override;
    void AnswerQueries();
    void Deliver(const Receiver &receiver, ContextItem item, const SensorReading &reading) const;
    int NewRequestId();

    const Clock &mClock;
    std::map<ContextItem, Subscription> mSubscriptions;
    std::deque<PendingQuery> mQueries;
    std::uint64_t mTurn = 0;
    int mLastRequestId = 0;
    LoopSource mAnswer;
    std::unique_ptr<SensorSource> mSource;
};

} // namespace ParvanePlatform
