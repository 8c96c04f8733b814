#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <iosfwd>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include <glib.h>

#include <platform/context_manager.h>
#include <platform/service_app.h>
#include <platform/tal_client.h>
#include <platform/vconf.h>

namespace Parvane {

/** A run of bytes that crosses the accessory link. */
using Bytes = std::vector<uint8_t>;

/** One line that reached the main log, complete with its colour codes. */
struct LogLine
{
    int mPriority = 0;
    std::string mTag;
    std::string mText;

    bool operator==(const LogLine &other) const = default;
};

/** Shows a line in a failed expectation. */
std::ostream &operator<<(std::ostream &stream, const LogLine &line);

/** One message that was handed to sendData(). */
struct SentMessage
{
    int mConnectionId = 0;
    int mChannelId = 0;
    int mSize = 0;
    Bytes mBytes;

    bool operator==(const SentMessage &other) const = default;
};

/** Shows a message in a failed expectation. */
std::ostream &operator<<(std::ostream &stream, const SentMessage &message);

/** The keys and values of one reading; a key that is not listed cannot be read. */
using ContextValues = std::vector<std::pair<std::string, std::variant<int, double>>>;

/** What a subscription or a query named, and the request id that it was given. */
struct ContextRequest
{
    int mItem = 0;
    context_changed_cb mCallback = nullptr;
    void *mUserData = nullptr;
    int mRequestId = -1;
};

/** One call that was made to fail. */
struct FailedCall
{
    std::string mCall;
    int mCode = 0;
    std::size_t mLogLines = 0; // how many lines the log had by then
};

/**
 * The platform as a test scripts it: every C function of platform/include, g_timeout_add(), time()
 * and the memory that the service asks for.
 *
 * Unlisted calls succeed; every call is recorded as text, "power_lock_state(2, 16000)"; any call can
 * be made to fail with any code, and a call that fails leaves its output arguments and the state of
 * the platform untouched. Lines for the log, readings of the wall clock and of memory are not
 * calls. Memory that is handed over is one malloc'ed block each, so that the address sanitizer finds
 * what is not released, or released twice.
 *
 * Time stands still until a test moves it. It begins at 1400000000 seconds (2014-05-13 16:53:20 UTC)
 * in the time zone UTC.
 *
 * One object at a time is the platform of the process (Active()). Watches of the key-value store
 * live longer: they belong to the process, as the objects do that asked for them. Timers that are
 * pending when the platform goes are never fired, and what they hold stays reachable.
 */
class ScriptedPlatform
{
public:
    /** Where the wall clock begins. */
    static constexpr int64_t kStartSeconds = 1400000000;

    ScriptedPlatform();
    ~ScriptedPlatform();
    ScriptedPlatform(const ScriptedPlatform &) = delete;
    ScriptedPlatform &operator=(const ScriptedPlatform &) = delete;

    /** The platform of the process; ends the process with a message when there is none. */
    static ScriptedPlatform &Active();

    /** The platform of the process; null when there is none. */
    static ScriptedPlatform *Find();

    // Evidence. Each Take... hands over what has come in since the last one.

    std::vector<std::string> TakeCalls();

    /** The calls of one function, in order; the others are dropped. */
    std::vector<std::string> TakeCallsOf(const std::string &name);
    std::vector<LogLine> TakeLog();

    /** What TakeLog() would hand over. */
    const std::vector<LogLine> &Log() const { return mLog; }

    /** The bytes of each sendData(). */
    std::vector<Bytes> TakeSent();

    /** The same with connection, channel and size. */
    std::vector<SentMessage> TakeSentMessages();

    /** Writes every line of the log to the standard error from now on as well. */
    void PrintLog() { mPrintsLog = true; }

    /** Drops all evidence so far. */
    void Forget();

    /** Adds a line to the calls: for doubles whose place among the platform calls matters. */
    void Record(const std::string &call);

    // Failures. A name that the platform does not have fails the test, and so does a failure that
    // was asked for and never happened.

    /** Makes the next call of `name` fail with `code`; a failing context_option_new() gives null. */
    void FailNext(const std::string &name, int code);

    /** Makes the `n`-th call of `name` from now fail with `code`; 1 is the next one. */
    void FailCall(const std::string &name, int n, int code);

    /** Makes every call of `name` fail with `code`, until SucceedAgain(). */
    void FailEvery(const std::string &name, int code);

    /** Makes the `n`-th call from now fail, whichever function it is; 1 is the next one. */
    void FailAnyCall(int n, int code);

    /** Makes every line for the log return `code`; it is recorded all the same. */
    void FailLog(int code) { mLogCode = code; }

    /** Makes the `n`-th call from now and every later one fail, whichever functions they are. */
    void FailAnyCallFrom(int n, int code);

    /** Ends everything that was asked for with the operations above. */
    void SucceedAgain();

    /** The calls that have failed so far, failures of unknown requests and keys not counted. */
    const std::vector<FailedCall> &FailedCalls() const { return mFailedCalls; }

    /** The functions whose calls can be made to fail, always in the same order. */
    static std::span<const char *const> FallibleFunctions();

    /** Whether the function of a recorded call, "power_lock_state(2, 16000)", is one that can fail. */
    static bool CanFail(const std::string &call);

    /** The number of calls so far that FailAnyCall() can make fail. */
    int CallCount() const { return mCallCount; }

    // Memory: what the service itself asks for with new, malloc, calloc or GLib.

    /**
     * Makes the `n`-th allocation of the service from now fail; 1 is the next one.
     *
     * It fails as the language demands: a new-handler is called until it has uninstalled itself.
     */
    void FailAllocation(int n);

    /** Makes the next allocation of the service fail whose size lies within the bounds. */
    void FailAllocationOfSize(std::size_t least, std::size_t most);

    /** Runs `call` as a part of the service: for operations that a test calls itself. */
    static void AsService(const std::function<void()> &call);

    /** Makes the `n`-th allocation of the service from now fail, and every later one too. */
    void FailAllocationsFrom(int n);

    /** Ends all of it; false when the allocation that was to fail has not been made. */
    bool StopFailingAllocations();

    // Hooks: what happens elsewhere while a call is under way. They run after the call has been
    // recorded and before it has any effect.

    void OnNextCall(const std::string &name, std::function<void()> hook);

    /** When within a call the hook of OnAnyCall() runs. */
    enum class Moment {
        Before, // the call has been recorded and has had no effect
        After   // the call has had its effect and is about to return
    };

    /**
     * Runs `hook` inside the `n`-th call of the service from now, whichever it is; lines for the log
     * count. A test that calls the service itself does so with AsService().
     */
    void OnAnyCall(int n, Moment moment, std::function<void()> hook);

    /** The number of calls so far that OnAnyCall() counts. */
    int HookableCallCount() const { return mHookableCallCount; }

    /** Ends the hooks that have not run, and the readings that await a subscription. */
    void ForgetPlans();

    // Time.

    /** Moves time on and fires what is due, in order; the wall clock moves along. */
    void AdvanceTime(int64_t milliseconds);

    /** Sets the wall clock alone; timers do not notice. */
    void SetTime(int64_t seconds);
    int64_t Seconds() const { return mWallMillis / 1000; }

    /** Milliseconds until each pending timer, the next one first. */
    std::vector<int64_t> PendingTimers() const;
    guint AddTimer(guint interval, GSourceFunc function, gpointer data);

    // Context manager.

    /** Hands a reading to the subscriber of an item; the test fails when there is none. */
    void DeliverContext(int item, const ContextValues &values,
                        std::optional<int64_t> milliseconds = std::nullopt);

    /** Hands the reading to the item's subscriber inside its next, successful, subscription. */
    void DeliverDuringSubscription(int item, const ContextValues &values,
                                   std::optional<int64_t> milliseconds = std::nullopt);

    /** Answers the oldest query of an item; the test fails when there is none. */
    void AnswerQuery(int item, const ContextValues &values,
                     std::optional<int64_t> milliseconds = std::nullopt);

    /** Calls the request's callback with a reading, or with none, whatever was asked for before. */
    static void CallContext(const ContextRequest &request, context_data *data, int error = 0);

    /** A reading, malloc'ed; whoever receives it releases it with free(). */
    static context_data *MakeContextData(const ContextValues &values,
                                         std::optional<int64_t> milliseconds = std::nullopt);

    bool IsSubscribed(int item) const { return mSubscriptions.count(item) != 0; }

    /** The item's subscription; the test fails when there is none. */
    ContextRequest SubscriptionOf(int item) const;

    /** Queries that have not been answered. */
    std::size_t OpenQueries(int item) const;

    /** The next subscription or query gets this id; they count up from 1. */
    void SetNextRequestId(int id) { mNextRequestId = id; }

    // Accessory link. The test fails when a notification is to be delivered while none may come.

    /** What registerNotifications() was given last. */
    const tal_notifications &Notifications() const { return mNotifications; }
    bool HasNotifications() const { return mHasNotifications; }

    /** What registerServiceAgent() was given last, while its owner has to keep it; else null. */
    const tal_service_descriptor *Service() const { return mService; }
    void ConfirmRegistration(int result, int agentId) const;
    void IndicateConnection(int agentId, int connectionId, void *peer = nullptr,
                            void *detail = nullptr) const;
    void ConfirmConnection(int agentId, int connectionId, int result) const;
    void ReportPeer(int agentId, int status) const;
    void ReportServiceTerminated(int connectionId) const;

    /** Delivers a message of the connection and the channel; the bytes are gone when it returns. */
    void DeliverFromHost(const Bytes &message, int connectionId = 7, int channelId = 143) const;

    // Key-value store.

    /** Changes a key and tells whoever watches it. */
    void ChangeKey(const std::string &key, int value);

    /** Changes a key and tells nobody. */
    void SetKey(const std::string &key, int value) { mKeys[key] = value; }

    /** The watches of the process: the key and the user data of each. */
    static std::vector<std::pair<std::string, void *>> KeyWatches();

    // Preferences.

    void SetPreference(const std::string &key, bool value) { mBooleans[key] = value; }
    void SetPreference(const std::string &key, int value) { mIntegers[key] = value; }
    void SetPreference(const std::string &key, const char *value) { mStrings[key] = value; }
    std::optional<bool> BooleanPreference(const std::string &key) const;
    std::optional<int> IntegerPreference(const std::string &key) const;
    std::optional<std::string> StringPreference(const std::string &key) const;

    /** Makes a successful preference_get_string() of the key hand over a null pointer. */
    void SetNullPreference(const std::string &key) { mNullStrings[key] = true; }

    // Bluetooth and the service framework.

    void SetBluetoothAddress(const std::string &address) { mBluetoothAddress = address; }

    /** What service_app_main() does with the callbacks and the user data that it gets. */
    void SetMainLoop(std::function<int(const service_app_callbacks &, void *)> loop);

    /** How often the service has asked for its end. */
    int ExitRequests() const { return mExitRequests; }

private:
    friend struct PlatformCalls;

    struct Failure
    {
        std::string mName; // empty: any call
        int mRemaining = 1;
        bool mEvery = false; // from the call on that mRemaining tells, for all functions
        int mCode = 0;
    };

    struct AnyCallHook
    {
        int mRemaining = 0;
        Moment mMoment = Moment::Before;
        std::function<void()> mHook;
    };

    struct Timer
    {
        guint mId = 0;
        int64_t mDue = 0;
        guint mInterval = 0;
        GSourceFunc mFunction = nullptr;
        gpointer mData = nullptr;
    };

    struct PendingReading
    {
        int mItem = 0;
        ContextValues mValues;
        std::optional<int64_t> mMilliseconds;
    };

    int Answer(const std::string &name, const std::string &call);
    int TakeFailure(const std::string &name);
    void RunHooks(const std::string &name);
    void RunAnyCallHook();
    static void RunReturnHook();
    void DeliverPending(int item);
    void AddFailure(Failure failure);

    std::vector<std::string> mCalls;
    std::vector<LogLine> mLog;
    bool mPrintsLog = false;
    std::optional<int> mLogCode;
    std::vector<SentMessage> mSent;
    int mCallCount = 0;
    int mHookableCallCount = 0;
    int mExitRequests = 0;
    std::vector<Failure> mFailures;
    std::vector<FailedCall> mFailedCalls;
    AnyCallHook mAnyCallHook;
    std::function<void()> mReturnHook;
    std::vector<std::pair<std::string, std::function<void()>>> mHooks;
    int64_t mWallMillis = kStartSeconds * 1000;
    int64_t mLoopMillis = 0;
    guint mLastTimerId = 0;
    std::vector<Timer> mTimers;
    int mNextRequestId = 1;
    std::map<int, ContextRequest> mSubscriptions;
    std::vector<ContextRequest> mQueries;
    std::vector<PendingReading> mPendingReadings;
    tal_notifications mNotifications = {};
    bool mHasNotifications = false;
    const tal_service_descriptor *mService = nullptr;
    std::map<std::string, int> mKeys;
    std::map<std::string, bool> mBooleans;
    std::map<std::string, int> mIntegers;
    std::map<std::string, std::string> mStrings;
    std::map<std::string, bool> mNullStrings;
    std::string mBluetoothAddress = "AA:BB:CC:DD:EE:0F";
    std::function<int(const service_app_callbacks &, void *)> mMainLoop;
};

/** The local time zone for the life of the object, in the form of the TZ variable. */
class ScopedTimeZone
{
public:
    explicit ScopedTimeZone(const std::string &zone);
    ~ScopedTimeZone();
    ScopedTimeZone(const ScopedTimeZone &) = delete;
    ScopedTimeZone &operator=(const ScopedTimeZone &) = delete;

private:
    std::string mPrevious;
};

} // namespace Parvane
