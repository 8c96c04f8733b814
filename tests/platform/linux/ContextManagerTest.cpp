#include "context_manager/ContextManager.h"

#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
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

/** A source whose readings the test makes. */
class ScriptedSource : public SensorSource
{
public:
    void SetListener(SensorListener *listener) override { mListener = listener; }
    int Start(ContextItem item) override
    {
        mStarted.insert(item);
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

} // namespace ParvanePlatform
