#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <platform/context_manager.h>

#include "FuzzedService.h"
#include "Input.h"
#include "LinkTest.h"
#include "Require.h"
#include "ScriptedPlatform.h"
#include "WireCodec.h"

// Anything from the host into the whole service, and anything else that the platform may do between:
// the input is a list of steps, each a letter and what it needs (Script::Step). After the last one
// the platform is well again, and a host is served as by a service that has just been started.

namespace ParvaneFuzz {

using namespace Parvane;

namespace {

constexpr int kAgent = 5;
constexpr int kConnection = 7;
constexpr int kChannel = 143;
constexpr int kLargestMessage = 65531;
constexpr std::array kItems = {1, 2, 7, 23};

const std::array kKeys = {CONTEXT_HRM_HEART_RATE,
                          CONTEXT_HRM_SPO2,
                          CONTEXT_HRM_PEAK_TO_PEAK,
                          CONTEXT_ACTIVITY_STATUS,
                          CONTEXT_ACTIVITY_ACCURACY,
                          CONTEXT_MOTION_ACTION,
                          CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT,
                          CONTEXT_PEDOMETER_CUMULATIVE_WALK_STEP_COUNT,
                          CONTEXT_PEDOMETER_CUMULATIVE_RUN_STEP_COUNT,
                          CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE,
                          CONTEXT_PEDOMETER_CUMULATIVE_CALORIE,
                          CONTEXT_PEDOMETER_SPEED};

/**
 * The functions that an input may choose: all that can fail, but for the two that a service calls once
 * in the life of its process, as which this one has many services.
 */
const std::vector<const char *> kFunctions = [] {
    std::vector<const char *> functions;
    for (const char *const function : ScriptedPlatform::FallibleFunctions()) {
        const std::string_view name = function;
        if (name != "service_app_main" && name != "vconf_notify_key_changed") {
            functions.push_back(function);
        }
    }
    return functions;
}();

constexpr std::array kZones = {"UTC0", "CET-1CEST,M3.5.0,M10.5.0/3", "<+1245>-12:45", "EST5EDT"};

/** An expectation of the scripted platform that fails ends the process. */
class Abort : public testing::EmptyTestEventListener
{
    void OnTestPartResult(const testing::TestPartResult &result) override
    {
        std::fprintf(stderr, "%s\n", result.summary());
        std::abort();
    }
};

/** The life of one service, as the input tells it. */
class Script
{
public:
    explicit Script(Input input) : mInput(input) {}

    void Run()
    {
        while (!mInput.IsAtEnd()) {
            Step();
            CheckEvidence();
        }
    }

    /** After all that has happened: what a fresh service does. */
    void ExpectAGoodDay()
    {
        mZone.reset();
        mPlatform.SucceedAgain();
        mPlatform.StopFailingAllocations();
        mPlatform.ForgetPlans();
        mPlatform.FailLog(0);
        mPlatform.SetBluetoothAddress("AA:BB:CC:DD:EE:0F");
        mPlatform.SetTime(ScriptedPlatform::kStartSeconds);
        mPlatform.AdvanceTime(60000);
        mPlatform.ChangeKey(kLinkStatusKey, 0);
        mPlatform.ChangeKey(kLinkStatusKey, 1);
        Require(mPlatform.HasNotifications(), "the service registers with the link");
        mPlatform.ConfirmRegistration(0, kAgent);
        mPlatform.IndicateConnection(kAgent, kConnection);
        CheckEvidence();
        ExpectSensorList();
        ExpectMeasurement(3, 15000, {0x42, 0x90, 0x00, 0x00});
        ExpectMeasurement(4, 3000, {0x3F, 0x80, 0x00, 0x00});
        ExpectActivity();
        ExpectSteps();
    }

private:
    // One step. A letter that none of them has does nothing.
    void Step()
    {
        const std::uint8_t letter = mInput.Byte();
        switch (letter) {
        case 'I': // the next step happens inside the next call of a function: the function
            PlanStep();
            break;
        case 'p': // a packet from the host: its length, its bytes
            Ask(mInput.Bytes());
            break;
        case 'P': // a long packet of the same bytes: its length, the byte
            AskAtLength();
            break;
        case 'h': // a heart rate
            Read(7, {{CONTEXT_HRM_HEART_RATE, mInput.Int()}});
            break;
        case 's': // a step count
            Read(2, Steps());
            break;
        case 'a': // an activity
            Read(23, {{CONTEXT_ACTIVITY_STATUS, mInput.Int()}});
            break;
        case 'v': // any reading: its item, its values
            ReadAny();
            break;
        case 'd': // the same inside the next subscription
            ReadInsideSubscription();
            break;
        case 'e': // no reading but an error code
            FailReading(Item());
            break;
        case 'q': // the answer to a query for steps
            AnswerQuery();
            break;
        case 't': // milliseconds pass
            Wait(static_cast<std::int64_t>(mInput.Number(2)));
            break;
        case 'c': // the wall clock is set
            mPlatform.SetTime(mInput.Int());
            break;
        case 'z': // the time zone changes
            mZone.reset();
            mZone = std::make_unique<ScopedTimeZone>(kZones[mInput.Byte() % kZones.size()]);
            break;
        default:
            LinkStep(letter);
            break;
        }
    }

    void LinkStep(std::uint8_t letter)
    {
        switch (letter) {
        case 'k': // the link comes or goes
            mPlatform.ChangeKey(kLinkStatusKey, static_cast<std::int8_t>(mInput.Byte()));
            break;
        case 'u': // it comes and a host connects, without more
            mPlatform.ChangeKey(kLinkStatusKey, 1);
            Notify([this] { mPlatform.ConfirmRegistration(0, kAgent); });
            Notify([this] { mPlatform.IndicateConnection(kAgent, kConnection); });
            break;
        case 'r': // a registration is confirmed: its result, the agent
            ConfirmRegistration();
            break;
        case 'i': // a host connects: the connection
            Connect(mInput.Int());
            break;
        case 'o': // a connection is confirmed
            Confirm(mInput.Int());
            break;
        case 'n': // a peer's status
            ReportPeer(mInput.Int());
            break;
        case 'x': // the host has gone
            Notify([this] { mPlatform.ReportServiceTerminated(kConnection); });
            break;
        default:
            FailureStep(letter);
            break;
        }
    }

    void FailureStep(std::uint8_t letter)
    {
        switch (letter) {
        case 'f': // the n-th call of a function fails: the function, n, the code
            FailCall();
            break;
        case 'F': // every call of it: the function, the code
            FailFunction();
            break;
        case 'A': // the n-th call of any function: n, the code
            FailAnyCall();
            break;
        case 'm': // the n-th allocation: n
            mPlatform.FailAllocation(mInput.Byte() + 1);
            mHasLackedMemory = true;
            break;
        case 'S': // all is well again
            mPlatform.SucceedAgain();
            mPlatform.StopFailingAllocations();
            break;
        case 'l': // the log fails
            mPlatform.FailLog(mInput.Int());
            break;
        case 'b': // the adapter's address
            mPlatform.SetBluetoothAddress(Text());
            break;
        case 'w': // what is stored: the opt-in, the time, the text
            Store();
            break;
        case 'R': // another start: 0, or the n-th call that fails in it, and its code
            Restart();
            break;
        case 'L': // a lifecycle callback
            LifecycleEvent();
            break;
        default:
            break;
        }
    }

    // What the steps need.

    int Item() { return kItems[mInput.Byte() % kItems.size()]; }
    const char *Function() { return kFunctions[mInput.Byte() % kFunctions.size()]; }
    int Code() { return static_cast<std::int16_t>(mInput.Number(2) | 1U); } // never 0
    double Double() { return std::bit_cast<double>(mInput.Number(8)); }

    std::string Text()
    {
        const Bytes bytes = mInput.Bytes();
        return std::string(bytes.begin(), std::find(bytes.begin(), bytes.end(), 0));
    }

    ContextValues Steps()
    {
        return {{CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, static_cast<double>(mInput.Int())}};
    }

    ContextValues Values()
    {
        ContextValues values;
        for (int left = mInput.Byte() % 8; left > 0; --left) {
            const char *key = kKeys[mInput.Byte() % kKeys.size()];
            if (mInput.Byte() % 2 == 0) {
                values.emplace_back(key, mInput.Int());
            } else {
                values.emplace_back(key, Double());
            }
        }
        return values;
    }

    std::optional<std::int64_t> Milliseconds()
    {
        if (mInput.Byte() % 2 == 0) {
            return std::nullopt;
        }
        return static_cast<std::int64_t>(mInput.Number(8));
    }

    // What the steps do, where the platform may do it.

    template <typename Notification>
    void Notify(Notification notification)
    {
        if (mPlatform.HasNotifications()) {
            notification();
        }
    }

    void ConfirmRegistration()
    {
        const int result = mInput.Byte();
        const int agent = mInput.Int();
        Notify([&] { mPlatform.ConfirmRegistration(result, agent); });
    }

    void ReportPeer(int status)
    {
        Notify([&] { mPlatform.ReportPeer(kAgent, status); });
    }

    void Connect(int connection)
    {
        Notify([&] { mPlatform.IndicateConnection(kAgent, connection); });
    }

    void Confirm(int result)
    {
        Notify([&] { mPlatform.ConfirmConnection(kAgent, kConnection, result); });
    }

    void Ask(const Bytes &packet)
    {
        Notify([&] {
            mPlatform.TakeSentMessages();
            mPlatform.DeliverFromHost(packet);
        });
    }

    void AskAtLength()
    {
        const auto length = static_cast<std::size_t>(mInput.Number(2));
        Ask(Bytes(length, mInput.Byte()));
    }

    void ReadAny()
    {
        const int item = Item();
        Read(item, Values());
    }

    void ReadInsideSubscription()
    {
        const int item = Item();
        const ContextValues values = Values();
        mPlatform.DeliverDuringSubscription(item, values, Milliseconds());
    }

    void AnswerQuery()
    {
        const ContextValues steps = Steps();
        const auto milliseconds = Milliseconds();
        if (mPlatform.OpenQueries(2) != 0) {
            mPlatform.AnswerQuery(2, steps, milliseconds);
        }
    }

    void Read(int item, const ContextValues &values)
    {
        const auto milliseconds = Milliseconds();
        if (mPlatform.IsSubscribed(item)) {
            mPlatform.DeliverContext(item, values, milliseconds);
        }
    }

    void FailReading(int item)
    {
        const int code = Code();
        if (mPlatform.IsSubscribed(item)) {
            ScriptedPlatform::CallContext(mPlatform.SubscriptionOf(item), nullptr, code);
        }
    }

    void PlanStep()
    {
        mPlatform.OnNextCall(Function(), [this] {
            const bool wasInside = std::exchange(mIsInsideCall, true);
            if (!mInput.IsAtEnd()) {
                Step();
            }
            mIsInsideCall = wasInside;
        });
    }

    // No time passes inside a call.
    void Wait(std::int64_t milliseconds)
    {
        if (!mIsInsideCall) {
            mPlatform.AdvanceTime(milliseconds);
        }
    }

    void FailCall()
    {
        const char *function = Function();
        const int n = mInput.Byte() + 1;
        mPlatform.FailCall(function, n, Code());
    }

    void FailFunction()
    {
        const char *function = Function();
        mPlatform.FailEvery(function, Code());
    }

    void FailAnyCall()
    {
        const int n = mInput.Byte() + 1;
        mPlatform.FailAnyCall(n, Code());
    }

    void Store()
    {
        mPlatform.SetPreference("Parvane/data/pedometer/requested", mInput.Byte() % 2 != 0);
        mPlatform.SetPreference("Parvane/data/pedometer/time", mInput.Int());
        mPlatform.SetPreference("Parvane/data/pedometer/value", Text().c_str());
    }

    void Restart()
    {
        const int n = mInput.Byte();
        const int code = Code();
        if (mIsInsideCall) {
            return;
        }
        mPlatform.ForgetPlans();
        mService.reset();
        mService = std::make_unique<FuzzedService>(mPlatform, [&] {
            if (n != 0) {
                mPlatform.FailAnyCall(n, code);
            }
        });
    }

    void LifecycleEvent()
    {
        const service_app_callbacks &callbacks = mService->Callbacks();
        const int event = mInput.Byte() % 3;
        ScriptedPlatform::AsService([&] {
            if (event == 0) {
                callbacks.app_control(nullptr, nullptr);
            } else if (event == 1) {
                callbacks.low_memory(nullptr);
            } else {
                callbacks.low_battery(nullptr);
            }
        });
    }

    // What has to be true after every step.

    void CheckEvidence()
    {
        for (const SentMessage &message : mPlatform.TakeSentMessages()) {
            Require(message.mChannelId == kChannel, "every packet has the channel of the service");
            Require(message.mSize == static_cast<int>(message.mBytes.size()) &&
                        message.mSize <= kLargestMessage,
                    "no packet is larger than the link allows");
            const auto meaning = ParvaneHost::Decode(message.mBytes);
            if (!meaning.Ok()) {
                std::fprintf(stderr, "%s\n", meaning.GetError().Text().c_str());
            }
            Require(meaning.Ok(), "the phone understands every packet");
        }
        for (const LogLine &line : mPlatform.TakeLog()) {
            Require(line.mTag == "Parvane" && line.mPriority >= 4 && line.mPriority <= 6,
                    "every log line has the service's tag and a known priority");
        }
        mPlatform.Forget();
    }

    // The good day.

    void ExpectSensorList()
    {
        Ask({0x01});
        const std::vector<Bytes> expected = {
            {0x81, 0x80, 0x0A, 0x03, 0x00, 0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x0F, 0x04},
            {0x81, 0x01, 0x15, 0x41, 0x01, 0x01, 0x40, 0x00, 0x00, 0x00, 0x3F, 0x80, 0x00,
             0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x13, 0x88, 0x00, 0x00, 0x00},
            {0x81, 0x02, 0x15, 0x42, 0x02, 0x01, 0x48, 0x92, 0x7C, 0x00, 0x3F, 0x80, 0x00,
             0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x93, 0xE0, 0x00, 0x01, 0x00},
            {0x81, 0x03, 0x15, 0x43, 0x03, 0x01, 0x43, 0x48, 0x00, 0x00, 0x3F, 0x80, 0x00,
             0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x3A, 0x98, 0x00, 0x00, 0x00},
            {0x81, 0x04, 0x15, 0x44, 0x04, 0x01, 0x3F, 0x80, 0x00, 0x00, 0x3F, 0x80, 0x00,
             0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0xE8, 0x00, 0x00, 0x00}};
        Require(mPlatform.TakeSent() == expected, "the sensor list is that of a fresh service");
    }

    /** A measurement whose sensor says 72 beats per minute. */
    void ExpectMeasurement(std::uint8_t sensor, int periodMs, const Bytes &value)
    {
        mPlatform.Forget();
        Ask({0x12, 0x00, 0x00, sensor});
        Require(mPlatform.IsSubscribed(7), "a measurement subscribes to the heart rate");
        mPlatform.DeliverContext(7, {{CONTEXT_HRM_HEART_RATE, 72}}, std::nullopt);
        mPlatform.AdvanceTime(periodMs);
        const std::vector<Bytes> sent = mPlatform.TakeSent();
        Require(sent.size() == 1 && sent[0].size() == 18 && sent[0][0] == 0x12 &&
                    sent[0][3] == sensor &&
                    Bytes(sent[0].begin() + 13, sent[0].begin() + 17) == value,
                "a measurement is answered once, with its value");
    }

    void ExpectActivity()
    {
        Ask({0x14, 0x00, 0x00, 0x01});
        Require(mPlatform.TakeSent() == std::vector<Bytes>{{0x14, 0x02, 0x00, 0x01}},
                "a stop is acknowledged");
        Ask({0x23, 0x00, 0x00, 0x01, 0x00});
        Require(mPlatform.TakeSent().size() == 1 && mPlatform.IsSubscribed(23),
                "a started activity is answered at once");
        mPlatform.DeliverContext(23, {{CONTEXT_ACTIVITY_STATUS, 2}}, std::nullopt);
        const std::vector<Bytes> sent = mPlatform.TakeSent();
        Require(sent.size() == 1 && sent[0].size() == 18 && sent[0][0] == 0x23,
                "an update of a started activity is pushed");
    }

    void ExpectSteps()
    {
        if (mHasLackedMemory) {
            return; // then the service asks for its end, and need not have subscribed
        }
        Ask({0x12, 0x00, 0x00, 0x02});
        mPlatform.AdvanceTime(500);
        Require(mPlatform.OpenQueries(2) != 0, "steps are asked for");
        while (mPlatform.OpenQueries(2) != 0) {
            mPlatform.AnswerQuery(2, {{CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, 1000.0}},
                                  std::nullopt);
        }
        const std::vector<Bytes> sent = mPlatform.TakeSent();
        Require(sent.size() == 1 && sent[0].size() == 18 && (sent[0][0] & 0x0F) == 0x02 &&
                    sent[0][3] == 0x02,
                "the newest question for steps is answered");
    }

    ScriptedPlatform mPlatform;
    std::unique_ptr<ScopedTimeZone> mZone;
    std::unique_ptr<FuzzedService> mService = std::make_unique<FuzzedService>(mPlatform);
    Input mInput;
    bool mIsInsideCall = false;
    bool mHasLackedMemory = false;
};

} // namespace

} // namespace ParvaneFuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const bool kAborts = [] {
        testing::UnitTest::GetInstance()->listeners().Append(new ParvaneFuzz::Abort);
        return true;
    }();
    ParvaneFuzz::Script script(ParvaneFuzz::Input(data, size));
    script.Run();
    script.ExpectAGoodDay();
    return kAborts ? 0 : -1;
}
