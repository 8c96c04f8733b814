#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <platform/context_manager.h>

#include "Clock.h"
#include "LoopSource.h"
#include "SensorSource.h"
#include "SensorSources.h"

namespace ParvanePlatform {

/**
 * Subscriptions and one-shot queries, over the sensor sources.
 *
 * Readings reach callbacks from the main loop only, never from inside a call; each comes in a block
 * that the callback releases with free() and that carries the time of its delivery. A callback may
 * call anything. Request ids are above 0 and are not given twice. Main-loop thread only.
 */
class ContextManager : private SensorListener
{
public:
    /** `clock` is borrowed for the life of this object. */
    ContextManager(SensorSources sources, const Clock &clock);
    ~ContextManager() override = default;

    ContextManager(const ContextManager &) = delete;
    ContextManager &operator=(const ContextManager &) = delete;

    /**
     * Subscribes to an item; a subscription that the item has already is replaced, and ended too when
     * the source refuses the new one.
     *
     * `option` may be null. For the activity item its values of
     * CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER, when there are any, name the only states that
     * are delivered. Other values are not looked at.
     *
     * @return 0; -22 for a null callback or a bad option; -95 for an unknown item, or one that no
     *         source serves; the code of the source when it cannot serve the item now. `requestId` is
     *         set before the source is asked, and is as it was when the call fails
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

    /** What one item has done since the start of the service, subscribed or not. */
    struct History
    {
        /** The last reading that came from the source, and when. */
        std::optional<SensorReading> mLastReading;
        Instant mLastRead;
        /** Readings that reached a callback; queries not counted. */
        std::uint64_t mDelivered = 0;
    };

    /** A process for which an item is on, whether or not it is subscribed. */
    struct Keeper
    {
        int mPid = 0;
        Instant mSince;
    };

    struct ItemStatus : History
    {
        ContextItem mItem = ContextItem::Gesture;
        SourceKind mSource = SourceKind::None;
        /** SensorSource::Problem() of its source. */
        std::string mProblem;
        /** Set while the item is subscribed. */
        std::optional<int> mRequestId;
        /** When the subscription began. */
        Instant mSubscribed;
        std::vector<Keeper> mKeepers;
    };

    /** The status of every item, by its number. */
    std::vector<ItemStatus> Status() const;

    /**
     * Keeps an item on for a process, until the handle goes; not from inside a reading, and before
     * this object.
     *
     * @return null when the item has no source, or its source cannot serve it now
     */
    std::shared_ptr<void> Keep(ContextItem item, int pid);

    /** Hears every reading of a source before it is delivered. */
    using Tap = std::function<void(ContextItem, const SensorReading &)>;

    /** Sets the tap; an empty one ends it. It must not change the context manager. */
    void SetTap(Tap tap) { mTap = std::move(tap); }

    /** The manual source, if some item has it; else null. */
    ManualSource *Manual() const { return mSources.Manual(); }

    /** The source that plays recordings, likewise. */
    ReplaySource *Replay() const { return mSources.Replay(); }

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
        Instant mSince;
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
    bool IsOn(ContextItem item) const
    {
        return mSubscriptions.contains(item) || mKeepers.contains(item);
    }
    void AnswerQueries();
    void Deliver(const Receiver &receiver, ContextItem item, const SensorReading &reading) const;

    const Clock &mClock;
    std::map<ContextItem, Subscription> mSubscriptions;
    std::multimap<ContextItem, Keeper> mKeepers;
    std::deque<PendingQuery> mQueries;
    std::uint64_t mTurn = 0;
    int mLastRequestId = 0;
    Parvane::LoopSource mAnswer;
    std::map<ContextItem, History> mHistory;
    Tap mTap;
    SensorSources mSources;
};

} // namespace ParvanePlatform
