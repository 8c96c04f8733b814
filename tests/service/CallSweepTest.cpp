#include <map>
#include <optional>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "LogMatchers.h"
#include "Sweep.h"

// Every failure, everywhere: each scenario is lived through again and again, each time with another
// call of the platform failing, with every code that has a meaning there and one that has none.

namespace Parvane {
namespace {

using testing::Contains;
using testing::IsEmpty;
using testing::Not;

constexpr int kUndocumented = -7777;

MATCHER_P2(FailsWith, call, code, "")
{
    return arg.mCall == call && arg.mCode == code;
}

std::string NameOf(const std::string &call)
{
    return call.substr(0, call.find('('));
}

std::vector<int> CodesOf(const std::string &function)
{
    static const std::map<std::string, std::vector<int>> documented = {
        {"service_app_main", {-22, -12, -1, -2, -114}},
        {"preference_get_boolean", {-126}},
        {"preference_set_boolean", {-126}},
        {"preference_get_int", {-126}},
        {"preference_set_int", {-126}},
        {"preference_get_string", {-126}},
        {"preference_set_string", {-126}},
        {"preference_is_existing", {-126}},
        {"bt_initialize", {-32508}},
        {"bt_adapter_get_address", {-32511, -22, -32510, -12, -32508}},
        {"sendData", {1, 2, 3, 4, 5}},
    };
    std::vector<int> codes = {kUndocumented};
    const auto known = documented.find(function);
    if (known != documented.end()) {
        codes.insert(codes.end(), known->second.begin(), known->second.end());
    }
    return codes;
}

// A failure of these changes nothing that the host gets.
bool IsUnseenByTheHost(const std::string &function)
{
    static const std::set<std::string> unseen = {"preference_set_boolean",
                                                 "preference_set_int",
                                                 "preference_set_string",
                                                 "context_unset_changed_callback",
                                                 "context_option_new",
                                                 "context_option_add_value_int",
                                                 "bt_deinitialize",
                                                 "power_lock_state",
                                                 "deregisterNotifications",
                                                 "deRegisterServiceAgent",
                                                 "findPeerAgent",
                                                 "terminateServiceConnection",
                                                 "sendData"};
    return unseen.count(function) != 0;
}

// The link is up in the end, and the host connected.
bool LeavesTheHostThere(const Scenario &scenario)
{
    static const std::set<std::string> others = {"Start", "LinkDropAndReturn", "LowMemory",
                                                 "LowBattery"};
    return others.count(scenario.mName) == 0;
}

// While these fail there is no way between the service and the host. One failure alone is got over:
// a registration is tried again, and a connection that was not accepted is there all the same.
bool CutsTheHostOff(const std::string &function)
{
    static const std::set<std::string> cutting = {"registerNotifications", "registerServiceAgent",
                                                  "acceptServiceConnection"};
    return cutting.count(function) != 0;
}

struct ExpectedLine
{
    int mPriority = 6;
    std::string mPlace; // "File: Function(12)"; "(*)" is any line number
    std::string mMessage;
};

std::string WithCode(const std::string &message, int code)
{
    return message + " [" + std::to_string(code) + "]";
}

ExpectedLine StoreLine(const char *function, const std::string &message)
{
    return {6, std::string("PedometerController: ") + function + "(*)", message};
}

// The start or the end of a subscription, by the item that the call names.
ExpectedLine SubscriptionLine(const std::string &call, int code)
{
    static const std::map<std::string, std::pair<const char *, const char *>> places = {
        {"1", {"ContextGestureSensor: Start(48)", "ContextGestureSensor: Stop(57)"}},
        {"2", {"ContextPedometerSensor: Start(59)", "ContextPedometerSensor: Stop(74)"}},
        {"7", {"ContextHRMSensor: Start(44)", "ContextHRMSensor: Stop(53)"}},
        {"23", {"ContextActivitySensor: Start(50)", "ContextActivitySensor: Stop(62)"}},
    };
    const std::size_t begin = call.find('(') + 1;
    const auto &[start, stop] = places.at(call.substr(begin, call.find_first_of(",)") - begin));
    const std::string function = NameOf(call);
    return {6, function == "context_set_changed_callback" ? start : stop,
            WithCode(function + " FAIL", code)};
}

std::string AddressMessage(const std::string &function, int code)
{
    static const std::map<int, const char *> labels = {{-32511, "BT_ERROR_NOT_INITIALIZED"},
                                                       {-22, "BT_ERROR_INVALID_PARAMETER"},
                                                       {-32510, "BT_ERROR_NOT_ENABLED"},
                                                       {-12, "BT_ERROR_OUT_OF_MEMORY"},
                                                       {-32508, "BT_ERROR_OPERATION_FAILED"}};
    const auto known = labels.find(code);
    const char *const unknown = function == "bt_initialize" ? "Undefined Error" : "BT_ERROR_NONE";
    return "Get BT MacAddress Fail [[GetDiviceBluetoothMacAddress](" + function + ")" +
           (known == labels.end() ? unknown : known->second) + "]";
}

const char *SendMessage(int code)
{
    static const char *const messages[] = {"invalid argument error", "invalid service connection",
                                           "network failure error", "Buffer full", "Buffer full"};
    return code >= 1 && code <= 5 ? messages[code - 1] : "Unknown error";
}

ExpectedLine LinkLine(int priority, const char *function, const std::string &message)
{
    return {priority, std::string("ConnectionManager: ") + function + "(*)", message};
}

// The first line after a failed call; none where a failure is nobody's concern.
// NOLINTNEXTLINE(readability-function-*): a table of calls and their lines
std::optional<ExpectedLine> ExpectedFirstLine(const std::string &call, int code)
{
    const std::string function = NameOf(call);
    if (function == "preference_get_boolean" && code != -126) {
        return StoreLine("IsHostRequested", "Failed to get First host requested");
    }
    if (function == "preference_set_boolean") {
        return StoreLine("SetHostRequestedStatus",
                         "Failed to save the status value..[" + std::to_string(code) + "]");
    }
    if (function == "preference_get_string") {
        return StoreLine("RestorePedometerData",
                         "Failed to get saved value..[" + std::to_string(code) + "]");
    }
    if (function == "preference_get_int") {
        return StoreLine("RestorePedometerData",
                         "Failed to get time value..[" + std::to_string(code) + "]");
    }
    if (function == "preference_set_string" || function == "preference_set_int") {
        return StoreLine("SavePedometerData",
                         "Failed to save value..[" + std::to_string(code) + "]");
    }
    if (function == "context_set_changed_callback" ||
        function == "context_unset_changed_callback") {
        return SubscriptionLine(call, code);
    }
    if (function == "context_get_context") {
        return ExpectedLine{6, "ContextPedometerSensor: GetCurrentSensorData(157)",
                            WithCode("context_get_context FAIL", code)};
    }
    if (function == "context_option_new") {
        return ExpectedLine{6, "ContextActivitySensor: CreateFilterOption(*)",
                            "context_option_new FAIL"};
    }
    if (function == "context_option_add_value_int") {
        return ExpectedLine{6, "ContextActivitySensor: CreateFilterOption(*)",
                            WithCode("context_option_add_value_int FAIL", code)};
    }
    if (function == "bt_initialize" || function == "bt_adapter_get_address") {
        return ExpectedLine{6, "DeviceManager: GetDiviceBluetoothMacAddress(133)",
                            AddressMessage(function, code)};
    }
    if (function == "bt_deinitialize") {
        return ExpectedLine{6, "DeviceManager: Deinitialize(*)",
                            WithCode("bt_deinitialize FAIL", code)};
    }
    if (function == "power_lock_state") {
        return ExpectedLine{6, "HRMController: MeasureCurrentSensorValue(*)",
                            "Setting the keep power is failed, the HRM sensor value may have "
                            "dealy to deliver to the host"};
    }
    if (function == "vconf_notify_key_changed") {
        return LinkLine(6, "ConnectionManager", WithCode("vconf_notify_key_changed FAIL", code));
    }
    if (function == "registerNotifications") {
        return LinkLine(6, "InitializeTALConnection",
                        "TALConnect initialize fail "
                        "[[InitializeTALConnection]Fail to register notification\n]");
    }
    if (function == "registerServiceAgent") {
        return LinkLine(6, "InitializeTALConnection",
                        "TALConnect initialize fail "
                        "[[InitializeTALConnection]registerServiceAgent failed]");
    }
    if (function == "terminateServiceConnection" || function == "deRegisterServiceAgent" ||
        function == "deregisterNotifications") {
        return LinkLine(6, "TerminateTALConnection", WithCode(function + " FAIL", code));
    }
    if (function == "acceptServiceConnection") {
        return LinkLine(5, "TALNotiOnServiceConnectionIndication",
                        "fail to accept service connection");
    }
    if (function == "findPeerAgent") {
        return LinkLine(6, "FindAgentPeer", "Call find peer failed");
    }
    if (function == "sendData") {
        return LinkLine(5, "SendToHost", SendMessage(code));
    }
    return std::nullopt;
}

void ExpectLine(const LogLine &line, const ExpectedLine &expected)
{
    EXPECT_THAT(line,
                expected.mPriority == 5
                    ? testing::Matcher<LogLine>(WarningLine(expected.mPlace, expected.mMessage))
                    : testing::Matcher<LogLine>(ErrorLine(expected.mPlace, expected.mMessage)));
}

// The framework's own failure: its line, if the code has one, and the result.
void ExpectFrameworkLines(const LifeRecord &record, int code)
{
    static const std::map<int, std::pair<const char *, const char *>> texts = {
        {-22, {"(106)", "APP_ERROR_INVALID_PARAMETER"}},
        {-12, {"(108)", "APP_ERROR_OUT_OF_MEMORY"}},
        {-1, {"(110)", "APP_ERROR_INVALID_CONTEXT"}},
        {-2, {"(112)", "APP_ERROR_NO_SUCH_FILE"}},
        {-114, {"(114)", "APP_ERROR_ALREADY_RUNNING"}}};
    std::vector<testing::Matcher<LogLine>> lines;
    const auto known = texts.find(code);
    if (known != texts.end()) {
        lines.push_back(ErrorLine(std::string("ParvaneMain: main") + known->second.first,
                                  known->second.second));
    }
    lines.push_back(ErrorLine("ParvaneMain: main(116)", WithCode("app running is failed =", code)));
    EXPECT_THAT(record.mLog, testing::ElementsAreArray(lines));
}

void ExpectWhatItMustLog(const LifeRecord &record)
{
    for (const FailedCall &failed : record.mFailedCalls) {
        const auto expected = ExpectedFirstLine(failed.mCall, failed.mCode);
        if (!expected) {
            continue;
        }
        SCOPED_TRACE(failed.mCall);
        if (failed.mLogLines >= record.mLog.size()) {
            ADD_FAILURE() << "nothing was logged";
            continue;
        }
        ExpectLine(record.mLog[failed.mLogLines], *expected);
    }
}

// It has gone on, or ended because the scenario ends it, and serves as a fresh one.
void ExpectHealth(const LifeRecord &record, const Reference &reference)
{
    EXPECT_TRUE(record.mWasRun);
    EXPECT_EQ(reference.mReplies.empty(), record.mHasEnded);
    if (!record.mHasEnded) {
        EXPECT_EQ(FreshReplies(), record.mReplies);
    }
}

class CallSweepTest : public testing::TestWithParam<Scenario>
{
protected:
    CallSweepTest() : mReference(ReferenceOf(GetParam()))
    {
        FreshReplies(); // known before the process is multiplied
        for (const std::string &call : mReference.mCalls) {
            if (ScriptedPlatform::CanFail(call)) {
                mCalls.push_back(call);
                mLastCut = CutsTheHostOff(NameOf(call)) ? mCalls.size() - 1 : mLastCut;
            }
        }
    }

    const Reference &mReference;
    std::vector<std::string> mCalls;
    std::size_t mLastCut = 0; // the last call whose failure cuts the host off, if there is one
};

TEST_P(CallSweepTest, HealthyLifeIsFollowedByTheRepliesOfAFreshService)
{
    EXPECT_THAT(FreshReplies(), Not(IsEmpty()));
    if (!mReference.mReplies.empty()) {
        EXPECT_EQ(FreshReplies(), mReference.mReplies);
    }
    if (LeavesTheHostThere(GetParam())) {
        EXPECT_EQ(5U, mReference.mList.size());
    }
}

TEST_P(CallSweepTest, EachCallMayFailWithEachCode)
{
    Sweep sweep("failures of calls", GetParam().mName);
    for (std::size_t i = 0; i < mCalls.size(); ++i) {
        for (const int code : CodesOf(NameOf(mCalls[i]))) {
            Disturbance disturbance;
            disturbance.mBegin = [&](ScriptedPlatform &platform) {
                platform.FailAnyCall(static_cast<int>(i) + 1, code);
            };
            const auto check = [&](const LifeRecord &record) {
                EXPECT_THAT(record.mFailedCalls, Contains(FailsWith(mCalls[i], code)));
                if (NameOf(mCalls[i]) == "service_app_main") {
                    EXPECT_FALSE(record.mWasRun);
                    ExpectFrameworkLines(record, code);
                    return "";
                }
                ExpectWhatItMustLog(record);
                if (IsUnseenByTheHost(NameOf(mCalls[i]))) {
                    EXPECT_EQ(mReference.mSent, SentOf(record));
                }
                if (LeavesTheHostThere(GetParam())) {
                    EXPECT_EQ(mReference.mList, ListOf(record));
                }
                ExpectHealth(record, mReference);
                return "";
            };
            const std::string point =
                std::to_string(i + 1) + " " + mCalls[i] + " -> " + std::to_string(code);
            if (!sweep.Point(point, GetParam(), disturbance, check)) {
                return;
            }
        }
    }
}

TEST_P(CallSweepTest, EachCallAndAllAfterItMayFail)
{
    Sweep sweep("calls with all after them failing", GetParam().mName);
    for (std::size_t i = 1; i < mCalls.size(); ++i) { // the first one runs the main loop
        Disturbance disturbance;
        disturbance.mBegin = [i](ScriptedPlatform &platform) {
            platform.FailAnyCallFrom(static_cast<int>(i) + 1, kUndocumented);
        };
        disturbance.mEnd = [](ServiceLife &life) { life.Platform().SucceedAgain(); };
        const auto check = [&](const LifeRecord &record) {
            ExpectWhatItMustLog(record);
            if (LeavesTheHostThere(GetParam()) && i > mLastCut) {
                EXPECT_EQ(mReference.mList, ListOf(record));
            }
            ExpectHealth(record, mReference);
            return "";
        };
        if (!sweep.Point("from " + std::to_string(i + 1) + " " + mCalls[i] + " on", GetParam(),
                         disturbance, check)) {
            return;
        }
    }
}

TEST_P(CallSweepTest, LogThatFailsChangesNothing)
{
    Disturbance disturbance;
    disturbance.mBegin = [](ScriptedPlatform &platform) { platform.FailLog(-1); };
    Sweep sweep("lives without a log", GetParam().mName);
    sweep.Point("log fails", GetParam(), disturbance, [&](const LifeRecord &record) {
        EXPECT_EQ(mReference.mCalls, record.mCalls);
        EXPECT_EQ(mReference.mSent, SentOf(record));
        EXPECT_EQ(mReference.mReplies, record.mReplies);
        return "";
    });
}

INSTANTIATE_TEST_SUITE_P(Lives, CallSweepTest, testing::ValuesIn(Scenarios()),
                         [](const auto &scenario) { return scenario.param.mName; });

} // namespace
} // namespace Parvane
