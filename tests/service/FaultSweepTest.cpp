#include <memory>
#include <new>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/context_manager.h>

#include "LinkTest.h"
#include "RunningService.h"
#include "ScriptedPlatform.h"

// One day in one process, with a whole function or one allocation failing, and after it the service
// has to work as if nothing had happened, even where it has asked for its end and nobody ends it.
// The sweeps (CallSweepTest.cpp, AllocationSweepTest.cpp) go through every single call.

namespace Parvane {
namespace {

using testing::ElementsAre;
using testing::SizeIs;

constexpr int kAgent = 5;
constexpr int kConnection = 7;

// A failed registration is retried; a confirmation comes only where there is one.
void Connect(ScriptedPlatform &platform)
{
    platform.ChangeKey(kLinkStatusKey, 1);
    platform.AdvanceTime(100);
    if (platform.HasNotifications()) {
        platform.ConfirmRegistration(0, kAgent);
        platform.IndicateConnection(kAgent, kConnection);
    }
}

void Ask(ScriptedPlatform &platform, const Bytes &request)
{
    if (platform.HasNotifications()) {
        platform.DeliverFromHost(request);
    }
}

// A reading, where the service has managed to subscribe.
void Read(ScriptedPlatform &platform, int item, const ContextValues &values)
{
    if (platform.IsSubscribed(item)) {
        platform.DeliverContext(item, values, 1400000000000);
    }
}

void LiveADay(ScriptedPlatform &platform)
{
    Connect(platform);
    if (platform.HasNotifications()) {
        platform.ReportPeer(kAgent, 8);
    }
    Ask(platform, {0x01});
    Ask(platform, {0x12, 0x00, 0x00, 0x03});
    Ask(platform, {0x12, 0x00, 0x00, 0x04});
    Read(platform, 7, {{CONTEXT_HRM_HEART_RATE, 72}});
    Ask(platform, {0x12, 0x00, 0x00, 0x02});
    platform.AdvanceTime(500);
    if (platform.OpenQueries(2) != 0) {
        platform.AnswerQuery(2, {{CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, 1000.0}});
    }
    Read(platform, 2, {{CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, 1010.0}});
    Ask(platform, {0x13, 0x00, 0x00, 0x01, 0x00});
    Read(platform, 23, {{CONTEXT_ACTIVITY_STATUS, 2}});
    Ask(platform, {0x12, 0x00, 0x00, 0x01});
    Ask(platform, {0x14, 0x00, 0x00, 0x01});
    Ask(platform, {0x02, 0x00, 0x00, 0x09});
    platform.AdvanceTime(15000);
    platform.ChangeKey(kLinkStatusKey, 0);
}

// What is left of a bad day must not spoil the next one.
void ExpectAGoodDay(ScriptedPlatform &platform)
{
    platform.AdvanceTime(60000);
    platform.ChangeKey(kLinkStatusKey, 0);
    Connect(platform);
    platform.Forget();

    Ask(platform, {0x01});
    EXPECT_THAT(platform.TakeSent(),
                ElementsAre(SizeIs(13), SizeIs(25), SizeIs(25), SizeIs(25), SizeIs(25)));
    Ask(platform, {0x12, 0x00, 0x00, 0x03});
    Read(platform, 7, {{CONTEXT_HRM_HEART_RATE, 72}});
    platform.AdvanceTime(15000);
    const std::vector<Bytes> sent = platform.TakeSent();
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_EQ((Bytes{0x42, 0x90, 0x00, 0x00}), Bytes(sent[0].begin() + 13, sent[0].begin() + 17));
}

// Whole functions that never succeed on the day.
class FailingFunctionTest : public testing::TestWithParam<const char *>
{};

TEST_P(FailingFunctionTest, DayWithoutIsFollowedByAGoodOne)
{
    ScriptedPlatform platform;
    LeadLinkBack(platform);
    platform.FailEvery(GetParam(), -5);
    const RunningService service(platform);
    LiveADay(platform);
    platform.SucceedAgain();

    ExpectAGoodDay(platform);
}

INSTANTIATE_TEST_SUITE_P(
    Functions, FailingFunctionTest,
    testing::Values("preference_get_boolean", "preference_set_boolean", "preference_get_int",
                    "preference_set_int", "preference_get_string", "preference_set_string",
                    "preference_is_existing", "context_set_changed_callback",
                    "context_unset_changed_callback", "context_get_context", "context_option_new",
                    "context_option_add_value_int", "context_context_data_get_int",
                    "context_context_data_get_double", "context_context_data_get_timestamp",
                    "vconf_get_int", "bt_initialize", "bt_deinitialize", "bt_adapter_get_address",
                    "power_lock_state", "deregisterNotifications", "deRegisterServiceAgent",
                    "findPeerAgent", "acceptServiceConnection", "terminateServiceConnection",
                    "sendData"),
    [](const auto &function) { return std::string(function.param); });

// No exception may leave a callback: they are noexcept, and the process would end here.
TEST(FailingAllocationTest, DayWithoutMemoryInOnePlaceIsFollowedByAGoodOne)
{
    bool reached = true;
    for (int n = 1; reached; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        ScriptedPlatform platform;
        LeadLinkBack(platform);
        const RunningService service(platform);
        platform.FailAllocation(n);
        LiveADay(platform);
        reached = platform.StopFailingAllocations();
        ExpectAGoodDay(platform);
        if (testing::Test::HasFailure()) {
            return;
        }
        ASSERT_LT(n, 10000);
    }
}

// The first failure ends the service, however many follow.
TEST(FailingAllocationTest, ExitIsAskedForAtMostOnce)
{
    for (int n = 1; n <= 40; ++n) {
        ScriptedPlatform platform;
        LeadLinkBack(platform);
        const RunningService service(platform);
        platform.FailAllocation(n);
        LiveADay(platform);
        platform.StopFailingAllocations();
        EXPECT_LE(platform.TakeCallsOf("app_efl_exit").size(), 1U);
    }
}

} // namespace
} // namespace Parvane
