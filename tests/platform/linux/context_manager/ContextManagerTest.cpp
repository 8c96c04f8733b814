#include "ContextManager.h"

#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/context_manager.h>

#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

/** A source whose readings the test makes. */
class ScriptedSource : public SensorSource
{
public:
    void SetListener(SensorListener *listener) override { mListener = listener; }
    int Start(ContextItem item) override
    {
        mStarted.insert(item);
        if (mOnStart) {
            mOnStart();
        }
        return mStartResult;
    }
    void Stop(ContextItem item) override { mStarted.erase(item); }
    std::optional<SensorReading> Latest(ContextItem item) const override
    {
        const auto found = mLatest.find(item);
        return found != mLatest.end() ? std::optional(found->second) : std::nullopt;
    }

    void Report(ContextItem item, const char *key, int value)
    {
        SensorReading reading;
        reading.Add(key, value);
        mLatest.insert_or_assign(item, reading);
        mListener->OnReading(item, reading);
    }

    SensorListener *mListener = nullptr;
    std::set<ContextItem> mStarted;
    std::map<ContextItem, SensorReading> mLatest;
    int mStartResult = 0;
    std::function<void()> mOnStart;
};

struct Delivery
{
    int mError = -1;
    int mItem = -1;
    int mRequestId = -1;
    int mValue = -1;
    std::int64_t mWallMs = -1;

    bool operator==(const Delivery &) const = default;
};

/** What a callback gets its readings into. */
struct Receiver
{
    std::vector<Delivery> mDeliveries;
    std::function<void(int requestId)> mOnDelivery;

    static void OnChanged(int error, int item, context_data *data, void *userData,
                          int requestId) noexcept
    {
        auto *self = static_cast<Receiver *>(userData);
        Delivery delivery{error, item, requestId};
        for (const char *key :
             {CONTEXT_HRM_HEART_RATE, CONTEXT_ACTIVITY_STATUS, CONTEXT_MOTION_ACTION}) {
            context_context_data_get_int(data, key, &delivery.mValue);
        }
        context_context_data_get_timestamp(data, &delivery.mWallMs);
        std::free(data);
        self->mDeliveries.push_back(delivery);
        if (self->mOnDelivery) {
            self->mOnDelivery(requestId);
        }
    }
};

} // namespace

class ContextManagerTest : public testing::Test
{
protected:
    ContextManagerTest()
    {
        auto source = std::make_shared<ScriptedSource>();
        mSource = source.get();
        SensorSources sources;
        for (const ContextItem item : {ContextItem::Gesture, ContextItem::Pedometer,
                                       ContextItem::HeartRate, ContextItem::Activity}) {
            sources.Assign(item, SourceKind::Manual, source);
        }
        mManager = std::make_unique<ContextManager>(std::move(sources), mClock);
    }

    int Subscribe(int item, context_option *option = nullptr)
    {
        int requestId = -1;
        EXPECT_EQ(mManager->Subscribe(item, option, Receiver::OnChanged, &mReceiver, requestId), 0);
        return requestId;
    }

    int Query(int item)
    {
        int requestId = -1;
        EXPECT_EQ(mManager->Query(item, nullptr, Receiver::OnChanged, &mReceiver, requestId), 0);
        return requestId;
    }

    ContextManager::ItemStatus StatusOf(ContextItem item) const
    {
        for (const ContextManager::ItemStatus &status : mManager->Status()) {
            if (status.mItem == item) {
                return status;
            }
        }
        ADD_FAILURE() << "no status of item " << static_cast<int>(item);
        return {};
    }

    std::vector<Delivery> Take() { return std::exchange(mReceiver.mDeliveries, {}); }

    ManualClock mClock;
    ScriptedSource *mSource = nullptr;
    std::unique_ptr<ContextManager> mManager;
    Receiver mReceiver;
};

TEST_F(ContextManagerTest, SubscriberGetsReadingsWithItsRequestIdAndTheTime)
{
    const int requestId = Subscribe(7);
    EXPECT_GT(requestId, 0);
    EXPECT_THAT(mSource->mStarted, ElementsAre(ContextItem::HeartRate));

    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);

    EXPECT_THAT(Take(), ElementsAre(Delivery{0, 7, requestId, 72, mClock.mWallMs}));
}

TEST_F(ContextManagerTest, UnsubscribedItemIsSilent)
{
    Subscribe(7);
    EXPECT_EQ(mManager->Unsubscribe(7), 0);
    EXPECT_THAT(mSource->mStarted, IsEmpty());
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    EXPECT_THAT(Take(), IsEmpty());
    EXPECT_EQ(mManager->Unsubscribe(7), 0);
}

TEST_F(ContextManagerTest, SecondSubscriptionReplacesTheFirst)
{
    const int first = Subscribe(7);
    const int second = Subscribe(7);
    EXPECT_NE(first, second);
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    EXPECT_THAT(Take(), ElementsAre(Delivery{0, 7, second, 72, mClock.mWallMs}));
}

TEST_F(ContextManagerTest, FilterOfActivitiesLeavesOthersOut)
{
    context_option *option = context_option_new();
    for (const int state : {1, 2, 3}) {
        ASSERT_EQ(context_option_add_value_int(
                      &option, CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER, state),
                  0);
    }
    const int requestId = Subscribe(23, option);
    std::free(option); // not used after the call

    for (const int state : {0, 3, 1}) {
        mSource->Report(ContextItem::Activity, CONTEXT_ACTIVITY_STATUS, state);
    }

    EXPECT_THAT(Take(), ElementsAre(Delivery{0, 23, requestId, 3, mClock.mWallMs},
                                    Delivery{0, 23, requestId, 1, mClock.mWallMs}));
}

TEST_F(ContextManagerTest, WithoutAFilterAllActivitiesCome)
{
    const int requestId = Subscribe(23);
    mSource->Report(ContextItem::Activity, CONTEXT_ACTIVITY_STATUS, 0);
    EXPECT_THAT(Take(), ElementsAre(Delivery{0, 23, requestId, 0, mClock.mWallMs}));
}

TEST_F(ContextManagerTest, QueryIsAnsweredInTheNextTurn)
{
    const int subscription = Subscribe(7);
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    Take();
    const int query = Query(7);
    EXPECT_NE(query, subscription);
    EXPECT_THAT(Take(), IsEmpty());

    RunWhileBusy();

    EXPECT_THAT(Take(), ElementsAre(Delivery{0, 7, query, 72, mClock.mWallMs}));
}

TEST_F(ContextManagerTest, AnswerIsNoOlderThanWhatTheSubscriberHasHeardBeforeIt)
{
    const int subscription = Subscribe(7);
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    Take();
    const int query = Query(7);
    mSource->Report(ContextItem::Gesture, CONTEXT_MOTION_ACTION, 4);
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 80);

    RunWhileBusy();

    EXPECT_THAT(Take(), ElementsAre(Delivery{0, 7, subscription, 80, mClock.mWallMs},
                                    Delivery{0, 7, query, 80, mClock.mWallMs}));
}

TEST_F(ContextManagerTest, QueryWithoutAValueFails)
{
    int requestId = -5;
    EXPECT_EQ(mManager->Query(7, nullptr, Receiver::OnChanged, &mReceiver, requestId), -61);
    EXPECT_EQ(requestId, -5);
    RunWhileBusy();
    EXPECT_THAT(Take(), IsEmpty());
}

TEST_F(ContextManagerTest, UnsubscribingDropsTheQueriesOfItsItemOnly)
{
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    mSource->Report(ContextItem::Gesture, CONTEXT_MOTION_ACTION, 4);
    Query(7);
    const int gesture = Query(1);
    EXPECT_EQ(mManager->Unsubscribe(7), 0);
    RunWhileBusy();
    EXPECT_THAT(Take(), ElementsAre(Delivery{0, 1, gesture, 4, mClock.mWallMs}));
}

TEST_F(ContextManagerTest, CallbackMayDropTheQueriesThatFollow)
{
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    const int first = Query(7);
    Query(7);
    mReceiver.mOnDelivery = [this](int) { EXPECT_EQ(mManager->Unsubscribe(7), 0); };
    RunWhileBusy();
    EXPECT_THAT(Take(), ElementsAre(Delivery{0, 7, first, 72, mClock.mWallMs}));
}

TEST_F(ContextManagerTest, QueryFromACallbackIsAnsweredInALaterTurn)
{
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    Query(7);
    mReceiver.mOnDelivery = [this](int) { Query(7); };
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(Take().size(), 1U);
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(Take().size(), 1U);
}

TEST_F(ContextManagerTest, CallbackMayEndItsSubscription)
{
    Subscribe(7);
    mReceiver.mOnDelivery = [this](int) { EXPECT_EQ(mManager->Unsubscribe(7), 0); };
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 73);
    EXPECT_EQ(Take().size(), 1U);
}

TEST_F(ContextManagerTest, AllItemsCanBeSubscribedToAndNoOthers)
{
    for (const int item : {1, 2, 7, 23}) {
        Subscribe(item);
    }
    EXPECT_EQ(mSource->mStarted.size(), 4U);
    int requestId = -5;
    for (const int item : {0, 3, -1, 24}) {
        EXPECT_EQ(mManager->Subscribe(item, nullptr, Receiver::OnChanged, nullptr, requestId), -95);
        EXPECT_EQ(mManager->Query(item, nullptr, Receiver::OnChanged, nullptr, requestId), -95);
        EXPECT_EQ(mManager->Unsubscribe(item), -95);
    }
    EXPECT_EQ(requestId, -5);
}

TEST_F(ContextManagerTest, NullCallbackIsRefused)
{
    int requestId = -5;
    EXPECT_EQ(mManager->Subscribe(7, nullptr, nullptr, nullptr, requestId), -22);
    EXPECT_EQ(mManager->Query(7, nullptr, nullptr, nullptr, requestId), -22);
    EXPECT_EQ(requestId, -5);
}

TEST_F(ContextManagerTest, EndWithOpenQueriesIsClean)
{
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    Query(7);
    mManager.reset();
    RunWhileBusy();
    EXPECT_THAT(Take(), IsEmpty());
}

TEST_F(ContextManagerTest, FilterOfActivitiesLooksAtTheStateAlone)
{
    context_option *option = context_option_new();
    ASSERT_EQ(
        context_option_add_value_int(&option, CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER, 3), 0);
    Subscribe(23, option);
    std::free(option);
    const auto report = [this](const char *key, std::variant<int, double> value, int status) {
        SensorReading reading;
        reading.Add(key, value);
        if (status >= 0) {
            reading.Add(CONTEXT_ACTIVITY_STATUS, status);
        }
        mSource->mListener->OnReading(ContextItem::Activity, reading);
    };

    report(CONTEXT_ACTIVITY_ACCURACY, 3, 1); // not the accuracy, which comes first
    report(CONTEXT_ACTIVITY_STATUS, 2.0, -1);
    EXPECT_THAT(Take(), IsEmpty());

    report(CONTEXT_ACTIVITY_ACCURACY, 1, 3);
    report(CONTEXT_ACTIVITY_STATUS, 3.0, -1);
    report(CONTEXT_ACTIVITY_ACCURACY, 1, -1); // tells of no other state
    EXPECT_EQ(Take().size(), 3U);
}

TEST_F(ContextManagerTest, SourceThatRefusesMakesTheSubscriptionFailWithItsCode)
{
    mSource->mStartResult = -61;
    int requestId = -5;
    EXPECT_EQ(mManager->Subscribe(7, nullptr, Receiver::OnChanged, &mReceiver, requestId), -61);

    EXPECT_EQ(requestId, -5);
    EXPECT_THAT(mSource->mStarted, IsEmpty());
    EXPECT_EQ(StatusOf(ContextItem::HeartRate).mRequestId, std::nullopt);
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    EXPECT_THAT(Take(), IsEmpty());
}

TEST_F(ContextManagerTest, RequestIdIsWrittenBeforeTheSourceIsAsked)
{
    int requestId = -5;
    int seen = -5;
    mSource->mOnStart = [&] { seen = requestId; };
    EXPECT_EQ(mManager->Subscribe(7, nullptr, Receiver::OnChanged, &mReceiver, requestId), 0);
    EXPECT_GT(seen, 0);
    EXPECT_EQ(seen, requestId);

    // Also when it refuses, and the id is taken back.
    mSource->mStartResult = -61;
    EXPECT_EQ(mManager->Subscribe(7, nullptr, Receiver::OnChanged, &mReceiver, requestId), -61);
    EXPECT_NE(seen, requestId);
}

TEST_F(ContextManagerTest, SourceThatThrowsLeavesNeitherASubscriptionNorARequestId)
{
    mSource->mOnStart = [] { throw std::bad_alloc(); };
    int requestId = -5;
    EXPECT_THROW(mManager->Subscribe(7, nullptr, Receiver::OnChanged, &mReceiver, requestId),
                 std::bad_alloc);
    EXPECT_EQ(requestId, -5);
    EXPECT_THAT(mSource->mStarted, IsEmpty());
    EXPECT_EQ(StatusOf(ContextItem::HeartRate).mRequestId, std::nullopt);
}

TEST_F(ContextManagerTest, RefusedSubscriptionEndsTheOneBefore)
{
    Subscribe(7);
    mSource->mStartResult = -95;
    int requestId = -5;
    EXPECT_EQ(mManager->Subscribe(7, nullptr, Receiver::OnChanged, &mReceiver, requestId), -95);
    EXPECT_EQ(requestId, -5);
    EXPECT_THAT(mSource->mStarted, IsEmpty());
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    EXPECT_THAT(Take(), IsEmpty());
    EXPECT_EQ(mManager->Unsubscribe(7), 0);
}

TEST_F(ContextManagerTest, RefusalIsNoneForTheNextSubscription)
{
    const int first = Subscribe(7);
    mSource->mStartResult = -61;
    int requestId = first;
    EXPECT_EQ(mManager->Subscribe(7, nullptr, Receiver::OnChanged, &mReceiver, requestId), -61);
    EXPECT_EQ(requestId, first);
    mSource->mStartResult = 0;
    const int second = Subscribe(7);
    EXPECT_GT(second, first);
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    EXPECT_THAT(Take(), ElementsAre(Delivery{0, 7, second, 72, mClock.mWallMs}));
}

TEST_F(ContextManagerTest, ItemWithoutASourceIsRefused)
{
    SensorSources sources;
    sources.Assign(ContextItem::HeartRate, SourceKind::Ble, nullptr);
    ContextManager manager(std::move(sources), mClock);
    int requestId = -5;
    for (const int item : {1, 7}) { // never assigned; a source that could not be made
        EXPECT_EQ(manager.Subscribe(item, nullptr, Receiver::OnChanged, &mReceiver, requestId),
                  -95);
        EXPECT_EQ(manager.Query(item, nullptr, Receiver::OnChanged, &mReceiver, requestId), -61);
        EXPECT_EQ(manager.Unsubscribe(item), 0);
    }
    EXPECT_EQ(requestId, -5);
    EXPECT_EQ(manager.Manual(), nullptr);
}

TEST_F(ContextManagerTest, StatusTellsOfEachItemByItsNumber)
{
    std::vector<ContextItem> items;
    for (const ContextManager::ItemStatus &status : mManager->Status()) {
        items.push_back(status.mItem);
        EXPECT_EQ(status.mSource, SourceKind::Manual);
        EXPECT_EQ(status.mRequestId, std::nullopt);
        EXPECT_FALSE(status.mLastReading);
        EXPECT_EQ(status.mDelivered, 0U);
    }
    EXPECT_THAT(items, ElementsAre(ContextItem::Gesture, ContextItem::Pedometer,
                                   ContextItem::HeartRate, ContextItem::Activity));
}

TEST_F(ContextManagerTest, StatusTellsSinceWhenAndByWhatRequestAnItemIsSubscribed)
{
    const std::int64_t begin = mClock.mWallMs;
    const int requestId = Subscribe(7);
    mClock.mWallMs += 5000;
    EXPECT_THAT(StatusOf(ContextItem::HeartRate).mRequestId, Optional(requestId));
    EXPECT_EQ(StatusOf(ContextItem::HeartRate).mSubscribed.mWallMs, begin);
    EXPECT_EQ(StatusOf(ContextItem::Pedometer).mRequestId, std::nullopt);

    mManager->Unsubscribe(7);
    EXPECT_EQ(StatusOf(ContextItem::HeartRate).mRequestId, std::nullopt);
}

TEST_F(ContextManagerTest, StatusKeepsTheLastReadingAndWhatWasDelivered)
{
    Subscribe(7);
    mClock.mMonotonicUs = 7'000'000;
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    mClock.mMonotonicUs = 9'000'000;
    mClock.mWallMs += 2000;
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 73);
    mManager->Unsubscribe(7);
    mClock.mMonotonicUs = 60'000'000;

    const ContextManager::ItemStatus status = StatusOf(ContextItem::HeartRate);
    ASSERT_TRUE(status.mLastReading);
    EXPECT_EQ(std::get<int>(status.mLastReading->begin()->mValue), 73);
    EXPECT_EQ(status.mLastRead.mBootUs, 9'000'000);
    EXPECT_EQ(status.mLastRead.mWallMs, mClock.mWallMs);
    EXPECT_EQ(status.mDelivered, 2U);
}

TEST_F(ContextManagerTest, ReadingThatIsFilteredOutIsNotCountedAsDelivered)
{
    context_option *option = context_option_new();
    ASSERT_EQ(
        context_option_add_value_int(&option, CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER, 3), 0);
    Subscribe(23, option);
    std::free(option);
    mSource->Report(ContextItem::Activity, CONTEXT_ACTIVITY_STATUS, 1);
    EXPECT_EQ(StatusOf(ContextItem::Activity).mDelivered, 0U);
    EXPECT_TRUE(StatusOf(ContextItem::Activity).mLastReading);
    mSource->Report(ContextItem::Activity, CONTEXT_ACTIVITY_STATUS, 3);
    EXPECT_EQ(StatusOf(ContextItem::Activity).mDelivered, 1U);
}

TEST_F(ContextManagerTest, QueriesAreNotCountedAsDelivered)
{
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    Query(7);
    RunWhileBusy();
    EXPECT_EQ(Take().size(), 1U);
    EXPECT_EQ(StatusOf(ContextItem::HeartRate).mDelivered, 0U);
}

TEST_F(ContextManagerTest, TapHearsEachReadingBeforeItIsDelivered)
{
    Subscribe(7);
    std::vector<std::string> order;
    mManager->SetTap([&](ContextItem item, const SensorReading &reading) {
        order.push_back("tap " + std::to_string(static_cast<int>(item)) + " " +
                        std::to_string(std::get<int>(reading.begin()->mValue)));
    });
    mReceiver.mOnDelivery = [&](int) { order.emplace_back("delivery"); };

    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    mSource->Report(ContextItem::Gesture, CONTEXT_MOTION_ACTION, 4); // nobody has subscribed

    EXPECT_THAT(order, ElementsAre("tap 7 72", "delivery", "tap 1 4"));
}

TEST_F(ContextManagerTest, TapHearsWhatTheFilterLeavesOut)
{
    context_option *option = context_option_new();
    ASSERT_EQ(
        context_option_add_value_int(&option, CONTEXT_ACTIVITY_NOTIFICATION_ACTIVITY_FILTER, 3), 0);
    Subscribe(23, option);
    std::free(option);
    int heard = 0;
    mManager->SetTap([&heard](ContextItem, const SensorReading &) { ++heard; });
    mSource->Report(ContextItem::Activity, CONTEXT_ACTIVITY_STATUS, 0);
    EXPECT_EQ(heard, 1);
    EXPECT_THAT(Take(), IsEmpty());
}

TEST_F(ContextManagerTest, TapDoesNotHearQueries)
{
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    int heard = 0;
    mManager->SetTap([&heard](ContextItem, const SensorReading &) { ++heard; });
    Query(7);
    RunWhileBusy();
    EXPECT_EQ(heard, 0);
}

TEST_F(ContextManagerTest, EmptyTapEndsTheTapping)
{
    int heard = 0;
    mManager->SetTap([&heard](ContextItem, const SensorReading &) { ++heard; });
    mManager->SetTap({});
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    EXPECT_EQ(heard, 0);
}

TEST_F(ContextManagerTest, AnItemIsOnForAsLongAsSomebodyKeepsIt)
{
    auto first = mManager->Keep(ContextItem::HeartRate, 11);
    auto second = mManager->Keep(ContextItem::HeartRate, 12);
    EXPECT_THAT(mSource->mStarted, ElementsAre(ContextItem::HeartRate));
    first.reset();
    EXPECT_THAT(mSource->mStarted, ElementsAre(ContextItem::HeartRate));
    ASSERT_EQ(StatusOf(ContextItem::HeartRate).mKeepers.size(), 1U);
    EXPECT_EQ(StatusOf(ContextItem::HeartRate).mKeepers.front().mPid, 12);
    EXPECT_THAT(StatusOf(ContextItem::Activity).mKeepers, IsEmpty());
    second.reset();
    EXPECT_THAT(mSource->mStarted, IsEmpty());
}

TEST_F(ContextManagerTest, WhoKeepsAnItemChangesNothingForItsSubscriber)
{
    Subscribe(7);
    int starts = 0;
    mSource->mOnStart = [&starts] { ++starts; };
    auto keeper = mManager->Keep(ContextItem::HeartRate, 11);
    EXPECT_EQ(starts, 0) << "an item that begins anew would tell its subscriber what that knows";
    keeper.reset();
    EXPECT_THAT(mSource->mStarted, ElementsAre(ContextItem::HeartRate));

    keeper = mManager->Keep(ContextItem::HeartRate, 11);
    mManager->Unsubscribe(7);
    EXPECT_THAT(mSource->mStarted, ElementsAre(ContextItem::HeartRate));
    mSource->Report(ContextItem::HeartRate, CONTEXT_HRM_HEART_RATE, 72);
    EXPECT_THAT(Take(), IsEmpty());
    Subscribe(7);
    EXPECT_EQ(starts, 1) << "whoever subscribes begins as ever";
}

TEST_F(ContextManagerTest, WhatCannotBeKeptIsNotOn)
{
    mSource->mStartResult = -5;
    EXPECT_EQ(mManager->Keep(ContextItem::HeartRate, 11), nullptr);
    EXPECT_THAT(mSource->mStarted, IsEmpty());
    EXPECT_THAT(StatusOf(ContextItem::HeartRate).mKeepers, IsEmpty());
}

} // namespace ParvanePlatform
