#include "ServiceLife.h"

#include <bit>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string_view>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/context_manager.h>

#include "Allocation.h"
#include "LinkTest.h"
#include "LogMatchers.h"

namespace Parvane {

namespace {

using testing::Contains;

constexpr int64_t kReadingMillis = 1400000000000;

// Later than every scenario, so that the day's steps begin anew.
constexpr int64_t kHealthySeconds = 1500000000;
// More than any scenario counts, so that they are above every baseline.
constexpr double kHealthySteps[] = {200000.0, 200010.0, 200030.0};

constexpr std::size_t kReadingSize = 18;
constexpr std::size_t kValueOffset = 13;

std::string Hex(const Bytes &bytes)
{
    constexpr const char *kDigits = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : bytes) {
        text += kDigits[byte >> 4U];
        text += kDigits[byte & 0x0FU];
        text += ' ';
    }
    return text;
}

float ValueOf(const Bytes &packet)
{
    uint32_t bits = 0;
    for (std::size_t i = 0; i < sizeof bits; ++i) {
        bits = (bits << 8U) | packet.at(kValueOffset + i);
    }
    return std::bit_cast<float>(bits);
}

// "File: Function(12) > COLOUR text RESET" under the service's tag, colour and priority in accord.
bool IsWellFormed(const LogLine &line)
{
    const std::string_view text = line.mText;
    const char *const colour = line.mPriority == 4   ? "\033[1;35m"
                               : line.mPriority == 5 ? "\033[1;40;33m"
                                                     : "\033[0;40;31m";
    constexpr std::string_view kHeadEnd = ") > ";
    const std::size_t head = text.find(kHeadEnd);
    return line.mTag == "Parvane" && line.mPriority >= 4 && line.mPriority <= 6 &&
           head != std::string_view::npos && text.find(": ") < head &&
           text.substr(head + kHeadEnd.size()).starts_with(colour) && text.ends_with("\033[0;m");
}

// A value of the store is six numbers, a blank between two of them, whatever has happened.
bool IsWholeValue(const std::string &text)
{
    std::size_t numbers = 0;
    std::size_t begin = 0;
    while (begin <= text.size()) {
        const std::size_t end = std::min(text.find(' ', begin), text.size());
        const std::string field = text.substr(begin, end - begin);
        if (field.empty() || field.find_first_not_of("0123456789+-.e") != std::string::npos) {
            return false;
        }
        ++numbers;
        begin = end + 1;
    }
    return numbers == 6;
}

// Whatever state the service is in, it ends up registered, connected and at rest.
void Recover(ServiceLife &life)
{
    life.Wait(60000); // periods end, retries succeed
    life.AnswerSteps(0.0);
    life.ChangeLinkStatus(0);
    life.BringUpLink();
    life.Ask({0x04, 0x00, 0x00, 0x01});
    life.Ask({0x03, 0x00, 0x00, 0x01, 0x00});
    life.ReadActivity(2);
    life.Ask({0x04, 0x00, 0x00, 0x01});
    life.Platform().TakeSent();
    life.Platform().SetTime(kHealthySeconds);
}

// What the host gets for healthy requests. Totals of steps depend on what was counted before, so
// the growth of the growth stands for them: it is that of the readings alone.
std::vector<std::string> Replies(ServiceLife &life)
{
    std::vector<std::string> replies;
    const auto take = [&life, &replies](const std::string &question) {
        for (const Bytes &packet : life.Platform().TakeSent()) {
            replies.push_back(question + ": " + Hex(packet));
        }
    };
    life.Ask({0x11});
    take("list");
    life.Ask({0x12, 0x00, 0x00, 0x03});
    life.ReadHeartRate(72);
    life.Wait(15000);
    take("heart rate");
    life.Ask({0x12, 0x00, 0x00, 0x04});
    life.ReadHeartRate(70);
    life.Wait(3000);
    take("worn");
    life.Ask({0x12, 0x00, 0x00, 0x04});
    life.Wait(3000);
    take("not worn");
    life.Ask({0x13, 0x00, 0x00, 0x01, 0x00});
    life.ReadActivity(3);
    life.Ask({0x12, 0x00, 0x00, 0x01});
    life.Ask({0x14, 0x00, 0x00, 0x01});
    life.Ask({0x12, 0x00, 0x00, 0x01});
    take("activity");
    life.Ask({0x13, 0x00, 0x00, 0x04, 0x00});
    life.Ask({0x14, 0x00, 0x00, 0x03});
    take("refused and stopped");
    std::vector<float> totals;
    for (const double steps : kHealthySteps) {
        life.Ask({0x12, 0x00, 0x00, 0x02});
        life.Wait(500);
        life.AnswerSteps(steps);
        for (Bytes &packet : life.Platform().TakeSent()) {
            if (packet.size() == kReadingSize) {
                totals.push_back(ValueOf(packet));
                packet.resize(kValueOffset);
            }
            replies.push_back("steps: " + Hex(packet));
        }
    }
    if (totals.size() == 3) {
        const float growth = (totals[2] - totals[1]) - (totals[1] - totals[0]);
        replies.push_back("steps grow: " + std::to_string(growth));
    }
    return replies;
}

} // namespace

ServiceLife::ServiceLife(ScriptedPlatform &platform, const service_app_callbacks &callbacks,
                         void *cell)
    : mPlatform(platform), mCallbacks(callbacks), mCell(cell)
{}

ParvaneController &ServiceLife::Controller()
{
    return **static_cast<std::shared_ptr<ParvaneController> *>(mCell);
}

void ServiceLife::Create()
{
    ScriptedPlatform::AsService([this] { EXPECT_TRUE(mCallbacks.create(mCell)); });
}

void ServiceLife::Launch()
{
    if (!HasEnded()) {
        ScriptedPlatform::AsService([this] { mCallbacks.app_control(nullptr, mCell); });
    }
}

void ServiceLife::RunLowOnMemory()
{
    if (!HasEnded()) {
        ScriptedPlatform::AsService([this] { mCallbacks.low_memory(mCell); });
    }
}

void ServiceLife::RunLowOnBattery()
{
    if (!HasEnded()) {
        ScriptedPlatform::AsService([this] { mCallbacks.low_battery(mCell); });
    }
}

void ServiceLife::ChangeLinkStatus(int value)
{
    if (!HasEnded()) {
        mPlatform.ChangeKey(kLinkStatusKey, value);
    }
}

void ServiceLife::Confirm(int result)
{
    if (HasEnded() || !mPlatform.HasNotifications()) {
        return;
    }
    const std::size_t failures = mPlatform.FailedCalls().size();
    mPlatform.ConfirmRegistration(result, kAgent);
    if (mPlatform.FailedCalls().size() != failures) {
        EXPECT_THAT(mPlatform.Log(),
                    Contains(ErrorLine("ConnectionManager: TALNotiOnRegisterServiceAgentConfirm(*)",
                                       "TAL conn is not connected")));
    }
}

void ServiceLife::ConnectHost(int connectionId)
{
    if (!HasEnded() && mPlatform.HasNotifications()) {
        mPlatform.IndicateConnection(kAgent, connectionId);
    }
}

void ServiceLife::ConfirmConnection(int connectionId, int result)
{
    if (!HasEnded() && mPlatform.HasNotifications()) {
        mPlatform.ConfirmConnection(kAgent, connectionId, result);
    }
}

void ServiceLife::ReportPeer(int status)
{
    if (!HasEnded() && mPlatform.HasNotifications()) {
        mPlatform.ReportPeer(kAgent, status);
    }
}

void ServiceLife::EndHostService()
{
    if (!HasEnded() && mPlatform.HasNotifications()) {
        mPlatform.ReportServiceTerminated(kConnection);
    }
}

void ServiceLife::BringUpLink()
{
    ChangeLinkStatus(1);
    Wait(100); // a failed registration is tried again
    Confirm();
    ConnectHost();
}

void ServiceLife::Ask(const Bytes &request)
{
    if (!HasEnded() && mPlatform.HasNotifications()) {
        mPlatform.DeliverFromHost(request);
    }
}

void ServiceLife::Read(int item, const ContextValues &values)
{
    if (!HasEnded() && mPlatform.IsSubscribed(item)) {
        mPlatform.DeliverContext(item, values, kReadingMillis);
    }
}

void ServiceLife::ReadHeartRate(int heartRate)
{
    Read(kHeartRateItem, {{CONTEXT_HRM_HEART_RATE, heartRate}});
}

void ServiceLife::ReadActivity(int status)
{
    Read(kActivityItem, {{CONTEXT_ACTIVITY_STATUS, status}, {CONTEXT_ACTIVITY_ACCURACY, 2}});
}

void ServiceLife::ReadGesture(int action)
{
    Read(kGestureItem, {{CONTEXT_MOTION_ACTION, action}});
}

void ServiceLife::ReadSteps(double total)
{
    Read(kPedometerItem, {{CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, total},
                          {CONTEXT_PEDOMETER_CUMULATIVE_DISTANCE, total * 0.75},
                          {CONTEXT_PEDOMETER_CUMULATIVE_WALK_STEP_COUNT, total}});
}

void ServiceLife::FailReading(int item)
{
    if (!HasEnded() && mPlatform.IsSubscribed(item)) {
        ScriptedPlatform::CallContext(mPlatform.SubscriptionOf(item), nullptr, -5);
    }
}

void ServiceLife::AnswerSteps(double total)
{
    // Those that are open now: an answer may lead to another question.
    for (std::size_t open = mPlatform.OpenQueries(kPedometerItem);
         open > 0 && !HasEnded() && mPlatform.OpenQueries(kPedometerItem) > 0; --open) {
        mPlatform.AnswerQuery(kPedometerItem,
                              {{CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, total}});
    }
}

void ServiceLife::Wait(int64_t milliseconds)
{
    // Step by step: nothing fires once the service has asked for its end.
    constexpr int64_t kStep = 5;
    if (milliseconds > 1000) {
        for (int64_t left = milliseconds; left > 0 && !HasEnded(); left -= 500) {
            mPlatform.AdvanceTime(std::min<int64_t>(left, 500));
        }
        return;
    }
    for (int64_t left = milliseconds; left > 0 && !HasEnded(); left -= kStep) {
        mPlatform.AdvanceTime(std::min(left, kStep));
    }
}

void PrintTo(const Scenario &scenario, std::ostream *stream)
{
    *stream << scenario.mName;
}

namespace {

/** Whatever has failed, no line of the log and no stored total is made of parts. */
void ExpectWhole(const std::vector<LogLine> &log, const std::optional<std::string> &total)
{
    for (const LogLine &line : log) {
        EXPECT_TRUE(IsWellFormed(line)) << testing::PrintToString(line);
    }
    if (total && total != "damaged 1e") {
        EXPECT_TRUE(IsWholeValue(*total)) << *total;
    }
}

// What the host gets from a service that has gone on, as it is and then cured.
void LookAtHealth(ServiceLife &life, const Disturbance &disturbance, LifeRecord &record)
{
    life.Ask({0x11});
    record.mList = life.Platform().TakeSent();
    Recover(life);
    if (disturbance.mRepair) {
        disturbance.mRepair(life);
    }
    record.mReplies = Replies(life);
}

} // namespace

LifeRecord Live(const Scenario &scenario, const Disturbance &disturbance)
{
    LifeRecord record;
    ScriptedPlatform platform;
    if (scenario.mPrepare) {
        scenario.mPrepare(platform);
    }
    const int allocationsBefore = Allocation::Count();
    const auto loop = [&](const service_app_callbacks &callbacks, void *cell) {
        ServiceLife life(platform, callbacks, cell);
        record.mWasRun = true;
        if (disturbance.mStart) {
            disturbance.mStart(life);
        }
        life.Create();
        scenario.mLive(life);
        record.mAllocations = Allocation::Count() - allocationsBefore;
        record.mHookableCalls = platform.HookableCallCount();
        record.mCalls = platform.TakeCalls();
        record.mSent = platform.TakeSent();
        if (disturbance.mEnd) {
            disturbance.mEnd(life);
        }
        if (!life.HasEnded()) {
            LookAtHealth(life, disturbance, record);
        }
        record.mHasEnded = life.HasEnded();
        // A started controller lives by its own parts, as long as the process.
        static auto *const forever =
            new std::shared_ptr<ParvaneController>(life.Controller().shared_from_this());
        EXPECT_NE(nullptr, *forever);
        ScriptedPlatform::AsService([&] { callbacks.terminate(cell); });
        return 0;
    };
    platform.SetMainLoop(loop);
    if (disturbance.mBegin) {
        disturbance.mBegin(platform);
    }
    int status = -1;
    ScriptedPlatform::AsService([&status] {
        char name[] = "parvane";
        char *arguments[] = {name, nullptr};
        status = ParvaneMain(1, arguments);
    });
    EXPECT_EQ(0, status);
    if (!record.mWasRun) {
        record.mHasEnded = platform.ExitRequests() != 0;
        platform.StopFailingAllocations();
    }
    if (!record.mWasRun || record.mHasEnded) {
        platform.SucceedAgain(); // what was to fail later does not any more
    }
    record.mExitRequests = platform.ExitRequests();
    record.mFailedCalls = platform.FailedCalls();
    record.mLog = platform.TakeLog();
    ExpectWhole(record.mLog, platform.StringPreference("Parvane/data/pedometer/value"));
    return record;
}

} // namespace Parvane
