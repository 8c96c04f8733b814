#include "ScriptedPlatform.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <ostream>

#include <gtest/gtest.h>

#include "Allocation.h"
#include "PlatformBlocks.h"

namespace Parvane {

namespace {

struct KeyWatch
{
    std::string mKey;
    vconf_changed_cb mCallback = nullptr;
    void *mUserData = nullptr;
};

/** What outlives every test, as long as the process. */
struct ProcessState
{
    ScriptedPlatform *mActive = nullptr;
    std::vector<KeyWatch> mWatches;
    std::vector<gpointer> mAbandonedTimerData;
};

ProcessState &Process()
{
    static auto *const state = new ProcessState; // never destroyed: it keeps things reachable
    return *state;
}

constexpr std::array kFallible = {
    "service_app_main",
    "preference_get_boolean",
    "preference_set_boolean",
    "preference_get_int",
    "preference_set_int",
    "preference_get_string",
    "preference_set_string",
    "preference_is_existing",
    "context_set_changed_callback",
    "context_unset_changed_callback",
    "context_get_context",
    "context_option_new",
    "context_option_add_value_int",
    "context_option_add_value_double",
    "context_context_data_get_int",
    "context_context_data_get_double",
    "context_context_data_get_timestamp",
    "vconf_get_int",
    "vconf_notify_key_changed",
    "bt_initialize",
    "bt_deinitialize",
    "bt_adapter_get_address",
    "power_lock_state",
    "registerNotifications",
    "deregisterNotifications",
    "registerServiceAgent",
    "deRegisterServiceAgent",
    "findPeerAgent",
    "acceptServiceConnection",
    "terminateServiceConnection",
    "sendData",
};

const std::array kInfallible = {"service_app_exit", "app_efl_exit", "g_timeout_add"};

template <typename Names>
bool Knows(const Names &names, const std::string &name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

} // namespace

std::ostream &operator<<(std::ostream &stream, const LogLine &line)
{
    return stream << "{" << line.mPriority << ", \"" << line.mTag << "\", "
                  << testing::PrintToString(line.mText) << "}";
}

std::ostream &operator<<(std::ostream &stream, const SentMessage &message)
{
    return stream << "{connection " << message.mConnectionId << ", channel " << message.mChannelId
                  << ", size " << message.mSize << ", " << testing::PrintToString(message.mBytes)
                  << "}";
}

ScriptedPlatform::ScriptedPlatform()
{
    const PlatformScope scope;
    if (Process().mActive != nullptr) {
        std::fputs("ScriptedPlatform: there is one already, and a process has only one\n", stderr);
        std::abort();
    }
    Process().mActive = this;
    PlatformScope::SetReturnHook(RunReturnHook);
    setenv("TZ", "UTC0", 1);
    tzset();
}

ScriptedPlatform::~ScriptedPlatform()
{
    Allocation::StopFailing();
    for (const Failure &failure : mFailures) {
        if (!failure.mEvery) {
            ADD_FAILURE() << "the failure " << failure.mCode << " of "
                          << (failure.mName.empty() ? "any call" : failure.mName)
                          << " was asked for and never happened";
        }
    }
    for (const auto &hook : mHooks) {
        ADD_FAILURE() << "the hook of " << hook.first << " was set and never ran";
    }
    if (mAnyCallHook.mHook || mReturnHook) {
        ADD_FAILURE() << "the hook of a call was set and never ran";
    }
    PlatformScope::SetReturnHook(nullptr);
    for (const Timer &timer : mTimers) {
        Process().mAbandonedTimerData.push_back(timer.mData);
    }
    Process().mActive = nullptr;
}

ScriptedPlatform &ScriptedPlatform::Active()
{
    if (Process().mActive == nullptr) {
        std::fputs("ScriptedPlatform: called while there is none\n", stderr);
        std::abort();
    }
    return *Process().mActive;
}

ScriptedPlatform *ScriptedPlatform::Find()
{
    return Process().mActive;
}

std::vector<std::string> ScriptedPlatform::TakeCalls()
{
    return std::exchange(mCalls, {});
}

std::vector<std::string> ScriptedPlatform::TakeCallsOf(const std::string &name)
{
    std::vector<std::string> calls = TakeCalls();
    calls.erase(std::remove_if(calls.begin(), calls.end(),
                               [&name](const std::string &call) {
                                   return call.compare(0, name.size() + 1, name + "(") != 0;
                               }),
                calls.end());
    return calls;
}

std::vector<LogLine> ScriptedPlatform::TakeLog()
{
    return std::exchange(mLog, {});
}

std::vector<Bytes> ScriptedPlatform::TakeSent()
{
    std::vector<Bytes> sent;
    for (const SentMessage &message : std::exchange(mSent, {})) {
        sent.push_back(message.mBytes);
    }
    return sent;
}

std::vector<SentMessage> ScriptedPlatform::TakeSentMessages()
{
    return std::exchange(mSent, {});
}

void ScriptedPlatform::Forget()
{
    mCalls.clear();
    mLog.clear();
    mSent.clear();
}

void ScriptedPlatform::Record(const std::string &call)
{
    const PlatformScope scope;
    mCalls.push_back(call);
}

void ScriptedPlatform::AddFailure(Failure failure)
{
    if (!failure.mName.empty() && !Knows(kFallible, failure.mName)) {
        ADD_FAILURE() << "the platform has no function \"" << failure.mName << "\" that can fail";
        return;
    }
    mFailures.push_back(std::move(failure));
}

void ScriptedPlatform::FailNext(const std::string &name, int code)
{
    FailCall(name, 1, code);
}

void ScriptedPlatform::FailCall(const std::string &name, int n, int code)
{
    AddFailure({name, n, false, code});
}

void ScriptedPlatform::FailEvery(const std::string &name, int code)
{
    AddFailure({name, 1, true, code});
}

void ScriptedPlatform::FailAnyCall(int n, int code)
{
    AddFailure({"", n, false, code});
}

void ScriptedPlatform::FailAnyCallFrom(int n, int code)
{
    AddFailure({"", n, true, code});
}

void ScriptedPlatform::SucceedAgain()
{
    mFailures.clear();
}

std::span<const char *const> ScriptedPlatform::FallibleFunctions()
{
    return kFallible;
}

bool ScriptedPlatform::CanFail(const std::string &call)
{
    return Knows(kFallible, call.substr(0, call.find('(')));
}

void ScriptedPlatform::FailAllocation(int n)
{
    Allocation::FailNth(n);
}

void ScriptedPlatform::FailAllocationOfSize(std::size_t least, std::size_t most)
{
    Allocation::FailSize(least, most);
}

void ScriptedPlatform::FailAllocationsFrom(int n)
{
    Allocation::FailFrom(n);
}

void ScriptedPlatform::AsService(const std::function<void()> &call)
{
    const ServiceScope service;
    call();
}

bool ScriptedPlatform::StopFailingAllocations()
{
    return Allocation::StopFailing();
}

void ScriptedPlatform::OnNextCall(const std::string &name, std::function<void()> hook)
{
    if (!Knows(kFallible, name) && !Knows(kInfallible, name)) {
        ADD_FAILURE() << "the platform has no function \"" << name << "\"";
        return;
    }
    mHooks.emplace_back(name, std::move(hook));
}

void ScriptedPlatform::ForgetPlans()
{
    mHooks.clear();
    mPendingReadings.clear();
}

void ScriptedPlatform::RunHooks(const std::string &name)
{
    const auto found = std::find_if(mHooks.begin(), mHooks.end(),
                                    [&name](const auto &hook) { return hook.first == name; });
    if (found != mHooks.end()) {
        const std::function<void()> hook = std::move(found->second);
        mHooks.erase(found); // before it runs: it may lead to the same call
        hook();
    }
}

void ScriptedPlatform::OnAnyCall(int n, Moment moment, std::function<void()> hook)
{
    mAnyCallHook = {n, moment, std::move(hook)};
}

void ScriptedPlatform::RunAnyCallHook()
{
    ++mHookableCallCount;
    if (mAnyCallHook.mRemaining == 0 || --mAnyCallHook.mRemaining != 0) {
        return;
    }
    const std::function<void()> hook = std::exchange(mAnyCallHook.mHook, nullptr);
    if (mAnyCallHook.mMoment == Moment::After) {
        mReturnHook = hook;
        return;
    }
    hook();
}

void ScriptedPlatform::RunReturnHook()
{
    ScriptedPlatform *const platform = Find();
    if (platform != nullptr && platform->mReturnHook) {
        std::exchange(platform->mReturnHook, nullptr)();
    }
}

int ScriptedPlatform::TakeFailure(const std::string &name)
{
    int code = 0;
    for (auto failure = mFailures.begin(); failure != mFailures.end();) {
        const bool concerned = failure->mName.empty() || failure->mName == name;
        if (concerned && failure->mEvery) {
            failure->mRemaining = std::max(failure->mRemaining - 1, 0);
            code = failure->mRemaining == 0 ? failure->mCode : code;
        } else if (concerned && --failure->mRemaining == 0) {
            code = failure->mCode;
            failure = mFailures.erase(failure);
            continue;
        }
        ++failure;
    }
    return code;
}

int ScriptedPlatform::Answer(const std::string &name, const std::string &call)
{
    mCalls.push_back(call);
    if (!Knows(kFallible, name)) {
        if (name != "g_timeout_add") {
            ++mExitRequests;
        }
        RunHooks(name);
        RunAnyCallHook();
        return 0;
    }
    ++mCallCount;
    const int code = TakeFailure(name);
    if (code != 0) {
        mFailedCalls.push_back({call, code, mLog.size()});
    }
    RunHooks(name);
    RunAnyCallHook();
    return code;
}

// Time.

void ScriptedPlatform::AdvanceTime(int64_t milliseconds)
{
    const PlatformScope scope;
    const int64_t end = mLoopMillis + milliseconds;
    while (true) {
        const auto next =
            std::min_element(mTimers.begin(), mTimers.end(), [](const Timer &a, const Timer &b) {
                return a.mDue < b.mDue || (a.mDue == b.mDue && a.mId < b.mId);
            });
        if (next == mTimers.end() || next->mDue > end) {
            break;
        }
        Timer timer = *next;
        mTimers.erase(next);
        mWallMillis += timer.mDue - mLoopMillis;
        mLoopMillis = timer.mDue;
        gboolean again = FALSE;
        {
            const ServiceScope service;
            again = timer.mFunction(timer.mData);
        }
        if (again != FALSE) {
            timer.mDue += timer.mInterval;
            mTimers.push_back(timer);
        }
    }
    mWallMillis += end - mLoopMillis;
    mLoopMillis = end;
}

void ScriptedPlatform::SetTime(int64_t seconds)
{
    mWallMillis = seconds * 1000;
}

std::vector<int64_t> ScriptedPlatform::PendingTimers() const
{
    std::vector<int64_t> pending;
    for (const Timer &timer : mTimers) {
        pending.push_back(timer.mDue - mLoopMillis);
    }
    std::sort(pending.begin(), pending.end());
    return pending;
}

guint ScriptedPlatform::AddTimer(guint interval, GSourceFunc function, gpointer data)
{
    Answer("g_timeout_add", "g_timeout_add(" + std::to_string(interval) + ")");
    ++mLastTimerId;
    mTimers.push_back({mLastTimerId, mLoopMillis + interval, interval, function, data});
    return mLastTimerId;
}

// Context manager.

context_data *ScriptedPlatform::MakeContextData(const ContextValues &values,
                                                std::optional<int64_t> milliseconds)
{
    const PlatformScope scope;
    return NewContextData(values, milliseconds);
}

void ScriptedPlatform::CallContext(const ContextRequest &request, context_data *data, int error)
{
    const ServiceScope service;
    request.mCallback(error, request.mItem, data, request.mUserData, request.mRequestId);
}

void ScriptedPlatform::DeliverContext(int item, const ContextValues &values,
                                      std::optional<int64_t> milliseconds)
{
    const auto found = mSubscriptions.find(item);
    if (found == mSubscriptions.end()) {
        ADD_FAILURE() << "nobody has subscribed to item " << item;
        return;
    }
    const ContextRequest request = found->second; // the entry may go while it is called
    CallContext(request, MakeContextData(values, milliseconds));
}

void ScriptedPlatform::DeliverDuringSubscription(int item, const ContextValues &values,
                                                 std::optional<int64_t> milliseconds)
{
    mPendingReadings.push_back({item, values, milliseconds});
}

void ScriptedPlatform::DeliverPending(int item)
{
    std::vector<PendingReading> pending = std::exchange(mPendingReadings, {});
    for (PendingReading &reading : pending) {
        if (reading.mItem == item) {
            DeliverContext(item, reading.mValues, reading.mMilliseconds);
        } else {
            mPendingReadings.push_back(std::move(reading));
        }
    }
}

void ScriptedPlatform::AnswerQuery(int item, const ContextValues &values,
                                   std::optional<int64_t> milliseconds)
{
    const auto found =
        std::find_if(mQueries.begin(), mQueries.end(),
                     [item](const ContextRequest &query) { return query.mItem == item; });
    if (found == mQueries.end()) {
        ADD_FAILURE() << "nobody has asked for item " << item;
        return;
    }
    const ContextRequest query = *found;
    mQueries.erase(found);
    CallContext(query, MakeContextData(values, milliseconds));
}

ContextRequest ScriptedPlatform::SubscriptionOf(int item) const
{
    const auto found = mSubscriptions.find(item);
    if (found == mSubscriptions.end()) {
        ADD_FAILURE() << "nobody has subscribed to item " << item;
        return {};
    }
    return found->second;
}

std::size_t ScriptedPlatform::OpenQueries(int item) const
{
    return static_cast<std::size_t>(
        std::count_if(mQueries.begin(), mQueries.end(),
                      [item](const ContextRequest &query) { return query.mItem == item; }));
}

// Accessory link.

namespace {

template <typename Slot, typename... Arguments>
void Notify(bool allowed, Slot slot, Arguments... arguments)
{
    if (!allowed || slot == nullptr) {
        ADD_FAILURE() << "no notification may come now";
        return;
    }
    const ServiceScope service;
    slot(arguments...);
}

} // namespace

void ScriptedPlatform::ConfirmRegistration(int result, int agentId) const
{
    Notify(mHasNotifications, mNotifications.registerServiceAgentConfirm, result, agentId);
}

void ScriptedPlatform::IndicateConnection(int agentId, int connectionId, void *peer,
                                          void *detail) const
{
    Notify(mHasNotifications, mNotifications.serviceConnectionIndication, agentId, connectionId,
           peer, detail);
}

void ScriptedPlatform::ConfirmConnection(int agentId, int connectionId, int result) const
{
    void *const peer = nullptr;
    Notify(mHasNotifications, mNotifications.serviceCreateConfirm, agentId, connectionId, peer,
           result);
}

void ScriptedPlatform::ReportPeer(int agentId, int status) const
{
    void *const peer = nullptr;
    Notify(mHasNotifications, mNotifications.peerAgent, agentId, peer, status);
}

void ScriptedPlatform::ReportServiceTerminated(int connectionId) const
{
    Notify(mHasNotifications, mNotifications.serviceTerminated, connectionId);
}

void ScriptedPlatform::DeliverFromHost(const Bytes &message, int connectionId, int channelId) const
{
    // A block of its own, of exactly the message's size: reading past it is found.
    const MallocPtr<uint8_t> block = MallocCopy(message.data(), message.size());
    const void *const data = block.get();
    Notify(mHasNotifications, mNotifications.dataReceived, connectionId, channelId,
           static_cast<int>(message.size()), data);
}

// Key-value store.

void ScriptedPlatform::ChangeKey(const std::string &key, int value)
{
    mKeys[key] = value;
    const std::vector<KeyWatch> watches = Process().mWatches;
    for (const KeyWatch &watch : watches) {
        if (watch.mKey == key) {
            const ServiceScope service;
            watch.mCallback(nullptr, watch.mUserData);
        }
    }
}

std::vector<std::pair<std::string, void *>> ScriptedPlatform::KeyWatches()
{
    std::vector<std::pair<std::string, void *>> watches;
    for (const KeyWatch &watch : Process().mWatches) {
        watches.emplace_back(watch.mKey, watch.mUserData);
    }
    return watches;
}

void PlatformCalls::AddKeyWatch(const char *key, vconf_changed_cb callback, void *userData)
{
    Process().mWatches.push_back({key, callback, userData});
}

// Preferences.

namespace {

template <typename Value>
std::optional<Value> ValueOf(const std::map<std::string, Value> &values, const std::string &key)
{
    const auto found = values.find(key);
    return found == values.end() ? std::nullopt : std::optional<Value>(found->second);
}

} // namespace

std::optional<bool> ScriptedPlatform::BooleanPreference(const std::string &key) const
{
    return ValueOf(mBooleans, key);
}

std::optional<int> ScriptedPlatform::IntegerPreference(const std::string &key) const
{
    return ValueOf(mIntegers, key);
}

std::optional<std::string> ScriptedPlatform::StringPreference(const std::string &key) const
{
    return ValueOf(mStrings, key);
}

void ScriptedPlatform::SetMainLoop(std::function<int(const service_app_callbacks &, void *)> loop)
{
    mMainLoop = std::move(loop);
}

ScopedTimeZone::ScopedTimeZone(const std::string &zone)
{
    const char *const previous = std::getenv("TZ");
    mPrevious = previous == nullptr ? "UTC0" : previous;
    setenv("TZ", zone.c_str(), 1);
    tzset();
}

ScopedTimeZone::~ScopedTimeZone()
{
    setenv("TZ", mPrevious.c_str(), 1);
    tzset();
}

} // namespace Parvane
