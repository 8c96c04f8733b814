#include <functional>
#include <memory>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <platform/context_manager.h>

#include "LinkTest.h"
#include "LogMatchers.h"
#include "Requests.h"
#include "RunningService.h"
#include "ScriptedPlatform.h"

// Exchanges between host and service, as the bytes that cross the link. The clock begins at
// 1400000000 seconds, whose milliseconds are F6 80 B0 00 in 32 bits.

namespace Parvane {
namespace {

using FlaggedRequest::kMeasureActivity;
using FlaggedRequest::kMeasureHeartRate;
using FlaggedRequest::kMeasureSteps;
using FlaggedRequest::kMeasureWearState;
using FlaggedRequest::kStartActivity;
using FlaggedRequest::kStopActivity;
using Request::kListInOneByte;
using testing::ElementsAre;
using testing::Ge;
using testing::IsEmpty;
using testing::SizeIs;

// A reading packet of the clock's first second, without its value.
Bytes Reading(uint8_t header, uint8_t sensor, const Bytes &value)
{
    Bytes packet = {header, 0x00, 0x0E, sensor, 0x11, 0x00, 0x00,
                    0x00,   0x00, 0xF6, 0x80,   0xB0, 0x00};
    packet.insert(packet.end(), value.begin(), value.end());
    packet.push_back(0x00);
    return packet;
}

class HostExchangeTest : public LinkTest
{
protected:
    HostExchangeTest() { mService = std::make_unique<RunningService>(mPlatform); }

    // The link is confirmed and the host connects.
    void Connect()
    {
        mPlatform.SetKey(kStatusKey, 1);
        mPlatform.ConfirmRegistration(0, kAgent);
        HostConnects();
        mPlatform.Forget();
    }

    void Ask(const Bytes &request) { mPlatform.DeliverFromHost(request); }

    void ReadHeartRate(int value)
    {
        mPlatform.DeliverContext(7, {{CONTEXT_HRM_HEART_RATE, value}});
    }

    void ReadActivity(int status)
    {
        mPlatform.DeliverContext(23, {{CONTEXT_ACTIVITY_STATUS, status}}, 1000);
    }

    static ContextValues Steps(double total)
    {
        return {{CONTEXT_PEDOMETER_CUMULATIVE_TOTAL_STEP_COUNT, total}};
    }

    // The service as it is after the process has ended and begun again.
    void Restart()
    {
        LinkDown();
        mService.reset();
        LeadLinkBack(mPlatform);
        mService = std::make_unique<RunningService>(mPlatform);
    }

    std::unique_ptr<RunningService> mService;
};

// The sensor list.

TEST_F(HostExchangeTest, ListAfterAFreshStartIsFivePackets)
{
    Connect();

    Ask(kListInOneByte);

    EXPECT_THAT(
        mPlatform.TakeSent(),
        ElementsAre(
            Bytes{0x81, 0x80, 0x0A, 0x03, 0x00, 0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0x0F, 0x04},
            Bytes{0x81, 0x01, 0x15, 0x41, 0x01, 0x01, 0x40, 0x00, 0x00, 0x00, 0x3F, 0x80, 0x00,
                  0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x13, 0x88, 0x00, 0x00, 0x00},
            Bytes{0x81, 0x02, 0x15, 0x42, 0x02, 0x01, 0x48, 0x92, 0x7C, 0x00, 0x3F, 0x80, 0x00,
                  0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x93, 0xE0, 0x00, 0x01, 0x00},
            Bytes{0x81, 0x03, 0x15, 0x43, 0x03, 0x01, 0x43, 0x48, 0x00, 0x00, 0x3F, 0x80, 0x00,
                  0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x3A, 0x98, 0x00, 0x00, 0x00},
            Bytes{0x81, 0x04, 0x15, 0x44, 0x04, 0x01, 0x3F, 0x80, 0x00, 0x00, 0x3F, 0x80, 0x00,
                  0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0xE8, 0x00, 0x00, 0x00}));
}

TEST_F(HostExchangeTest, ListLogsTheTwoTypesThatTheHostCannotAskFor)
{
    Connect();

    Ask(kListInOneByte);

    const LogLine warning = {5, "Parvane",
                             "ParvaneController: GetControllInstanceByType(130) > "
                             "\033[1;40;33mUnknown or Not supported Sensor Type\033[0;m"};
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(warning, warning));
}

TEST_F(HostExchangeTest, ListRepeatsTheFlagsOfItsRequestInEveryPacket)
{
    Connect();

    Ask({0xF1}); // bits 6 and 7 are no part of the flags

    const std::vector<Bytes> sent = mPlatform.TakeSent();
    ASSERT_THAT(sent, SizeIs(5));
    for (const Bytes &packet : sent) {
        EXPECT_EQ(0xB1, packet[0]);
    }
}

TEST_F(HostExchangeTest, ListWithoutBluetoothHasAnAddressOfZeros)
{
    Connect();
    mPlatform.FailNext("bt_initialize", -32508);

    Ask(kListInOneByte);

    EXPECT_EQ((Bytes{0x81, 0x80, 0x0A, 0x03, 0, 0, 0, 0, 0, 0, 0, 0, 0x04}),
              mPlatform.TakeSent().at(0));
}

TEST_F(HostExchangeTest, SecondListIsTheSame)
{
    Connect();
    Ask(kListInOneByte);
    const std::vector<Bytes> first = mPlatform.TakeSent();

    Ask(kListInOneByte);

    EXPECT_EQ(first, mPlatform.TakeSent());
}

// Heart rate.

TEST_F(HostExchangeTest, HeartRateIsAnsweredAfterFifteenSeconds)
{
    Connect();

    Ask(kMeasureHeartRate);
    ReadHeartRate(70);
    ReadHeartRate(72);
    ReadHeartRate(0);
    mPlatform.AdvanceTime(14999);
    EXPECT_THAT(mPlatform.TakeSent(), IsEmpty());
    mPlatform.AdvanceTime(1);

    EXPECT_THAT(mPlatform.TakeSent(),
                ElementsAre(Bytes{0x12, 0x00, 0x0E, 0x03, 0x11, 0x00, 0x00, 0x00, 0x00, 0xF6, 0x80,
                                  0xEA, 0x98, 0x42, 0x90, 0x00, 0x00, 0x00}));
    EXPECT_FALSE(mPlatform.IsSubscribed(7));
}

TEST_F(HostExchangeTest, HeartRateMeasuringAsksThePlatformInItsOrder)
{
    Connect();

    Ask(kMeasureHeartRate);
    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("g_timeout_add(15000)", "context_set_changed_callback(7)",
                            "power_lock_state(2, 16000)"));

    mPlatform.AdvanceTime(15000);
    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("context_unset_changed_callback(7)", "sendData(7, 143, 18)"));
}

TEST_F(HostExchangeTest, HeartRateWithoutReadingIsZero)
{
    Connect();

    Ask(kMeasureHeartRate);
    mPlatform.AdvanceTime(15000);

    EXPECT_THAT(mPlatform.TakeSent(),
                ElementsAre(Bytes{0x12, 0x00, 0x0E, 0x03, 0x11, 0x00, 0x00, 0x00, 0x00, 0xF6, 0x80,
                                  0xEA, 0x98, 0x00, 0x00, 0x00, 0x00, 0x00}));
}

TEST_F(HostExchangeTest, HeartRateCannotBeStarted)
{
    Connect();

    Ask({0x13, 0x00, 0x00, 0x03, 0x00});
    mPlatform.AdvanceTime(60000);

    EXPECT_THAT(mPlatform.TakeSent(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(HostExchangeTest, StopIsAcknowledgedInFourBytes)
{
    Connect();

    Ask({0x14, 0x00, 0x00, 0x03});

    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(Bytes{0x14, 0x02, 0x00, 0x03}));
}

TEST_F(HostExchangeTest, StopOfEverySensorIsAcknowledged)
{
    Connect();

    Ask({0x24, 0xFF, 0xFF, 0x01});
    Ask({0x34, 0xFF, 0xFF, 0x02});
    Ask({0x44, 0xFF, 0xFF, 0x03});
    Ask({0x84, 0xFF, 0xFF, 0x04});

    EXPECT_THAT(mPlatform.TakeSent(),
                ElementsAre(Bytes{0x24, 0x02, 0x00, 0x01}, Bytes{0x34, 0x02, 0x00, 0x02},
                            Bytes{0x04, 0x02, 0x00, 0x03}, Bytes{0x04, 0x02, 0x00, 0x04}));
}

// Worn state.

TEST_F(HostExchangeTest, WornWatchIsReportedAtTheFirstReading)
{
    Connect();

    Ask(kMeasureWearState);
    ReadHeartRate(0);
    ReadHeartRate(-3);

    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(Reading(0x12, 0x04, {0x3F, 0x80, 0x00, 0x00})));
}

TEST_F(HostExchangeTest, UnwornWatchIsReportedAtTheFirstReading)
{
    Connect();

    Ask(kMeasureWearState);
    ReadHeartRate(-3);

    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(Reading(0x12, 0x04, {0x00, 0x00, 0x00, 0x00})));
}

TEST_F(HostExchangeTest, SilentSensorMeansUnwornAfterThreeSeconds)
{
    Connect();

    Ask(kMeasureWearState);
    mPlatform.AdvanceTime(3000);

    EXPECT_THAT(mPlatform.TakeSent(),
                ElementsAre(Bytes{0x12, 0x00, 0x0E, 0x04, 0x11, 0x00, 0x00, 0x00, 0x00, 0xF6, 0x80,
                                  0xBB, 0xB8, 0x00, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_FALSE(mPlatform.IsSubscribed(7));
}

TEST_F(HostExchangeTest, HeartRateAndWornStateShareTheSensor)
{
    Connect();

    Ask(kMeasureHeartRate);
    Ask(kMeasureWearState);
    EXPECT_THAT(mPlatform.TakeCallsOf("context_set_changed_callback"), SizeIs(1));
    ReadHeartRate(72);
    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(Reading(0x12, 0x04, {0x3F, 0x80, 0x00, 0x00})));

    mPlatform.AdvanceTime(3000);
    EXPECT_TRUE(mPlatform.IsSubscribed(7)); // the heart rate goes on
    mPlatform.AdvanceTime(12000);
    EXPECT_FALSE(mPlatform.IsSubscribed(7));
    EXPECT_THAT(mPlatform.TakeSent(), SizeIs(1));
}

// Steps.

TEST_F(HostExchangeTest, FirstQuestionForStepsIsAnsweredHalfASecondLater)
{
    Connect();

    Ask(kMeasureSteps);
    EXPECT_TRUE(mPlatform.IsSubscribed(2));
    EXPECT_EQ(0U, mPlatform.OpenQueries(2));
    mPlatform.AdvanceTime(500);
    EXPECT_EQ(1U, mPlatform.OpenQueries(2));
    mPlatform.AnswerQuery(2, Steps(1000));

    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(Reading(0x12, 0x02, {0x00, 0x00, 0x00, 0x00})));
    EXPECT_EQ("0 0 0 0 0 0", mPlatform.StringPreference("Parvane/data/pedometer/value"));
}

TEST_F(HostExchangeTest, EveryUpdateIsAddedToTheDayAndPushed)
{
    Connect();
    Ask(kMeasureSteps);
    mPlatform.DeliverContext(2, Steps(1000)); // the baseline: 0
    mPlatform.DeliverContext(2, Steps(1010)); // 10 above it
    mPlatform.DeliverContext(2, Steps(1005)); // 5 above it

    EXPECT_THAT(mPlatform.TakeSent(),
                ElementsAre(Reading(0x12, 0x02, {0x00, 0x00, 0x00, 0x00}),
                            Reading(0x12, 0x02, {0x41, 0x20, 0x00, 0x00}),   // 10
                            Reading(0x12, 0x02, {0x41, 0x70, 0x00, 0x00}))); // 15
}

TEST_F(HostExchangeTest, LaterQuestionsForStepsAreAskedAtOnce)
{
    Connect();
    Ask(kMeasureSteps);
    mPlatform.AdvanceTime(500);
    mPlatform.AnswerQuery(2, Steps(1000));
    mPlatform.Forget();

    Ask({0x32, 0x00, 0x00, 0x02});
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("context_get_context(2)"));
    mPlatform.SetTime(1400000000);
    mPlatform.AnswerQuery(2, Steps(1025));

    EXPECT_THAT(mPlatform.TakeSent(),
                ElementsAre(Reading(0x32, 0x02, {0x41, 0xC8, 0x00, 0x00}))); // 25
}

TEST_F(HostExchangeTest, StepsArePushedUnderMeasureOnceEvenAfterAStart)
{
    Connect();

    Ask({0x23, 0x00, 0x00, 0x02, 0x00});
    mPlatform.DeliverContext(2, Steps(1000));

    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(Reading(0x02, 0x02, {0x00, 0x00, 0x00, 0x00})));
}

TEST_F(HostExchangeTest, StepsArePushedAfterAStopToo)
{
    Connect();
    Ask(kMeasureSteps);
    Ask({0x14, 0x00, 0x00, 0x02});
    mPlatform.Forget();

    mPlatform.DeliverContext(2, Steps(1000));

    EXPECT_THAT(mPlatform.TakeSent(), SizeIs(1));
}

TEST_F(HostExchangeTest, OptInSurvivesARestartWithoutAnyRequest)
{
    Connect();
    Ask(kMeasureSteps);
    mPlatform.DeliverContext(2, Steps(1000));
    mPlatform.DeliverContext(2, Steps(1010));

    Restart();
    EXPECT_TRUE(mPlatform.IsSubscribed(2));
    Connect();
    mPlatform.DeliverContext(2, Steps(1012)); // the new sensor's baseline
    mPlatform.DeliverContext(2, Steps(1017));

    EXPECT_THAT(mPlatform.TakeSent(),
                ElementsAre(Reading(0x02, 0x02, {0x41, 0x20, 0x00, 0x00}),   // 10
                            Reading(0x02, 0x02, {0x41, 0x70, 0x00, 0x00}))); // 15
}

TEST_F(HostExchangeTest, WithoutOptInARestartSubscribesToNothing)
{
    Restart();

    EXPECT_FALSE(mPlatform.IsSubscribed(2));
}

// Activity.

TEST_F(HostExchangeTest, ActivityIsAnsweredAtOnceWithoutTheSensor)
{
    Connect();

    Ask(kMeasureActivity);

    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(Reading(0x12, 0x01, {0x00, 0x00, 0x00, 0x00})));
    EXPECT_FALSE(mPlatform.IsSubscribed(23));
}

TEST_F(HostExchangeTest, StartedActivityIsAnsweredAtOnceAndThenFollowed)
{
    Connect();

    Ask(kStartActivity);
    ReadActivity(2);
    ReadActivity(3);

    EXPECT_THAT(mPlatform.TakeSent(),
                ElementsAre(Reading(0x13, 0x01, {0x00, 0x00, 0x00, 0x00}),
                            Bytes{0x13, 0x00, 0x0E, 0x01, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                  0x03, 0xE8, 0x3F, 0x80, 0x00, 0x00, 0x00},
                            Bytes{0x13, 0x00, 0x0E, 0x01, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                                  0x03, 0xE8, 0x40, 0x00, 0x00, 0x00, 0x00}));
}

TEST_F(HostExchangeTest, StoppedActivityIsAcknowledgedAndNoLongerFollowed)
{
    Connect();
    Ask(kStartActivity);
    ReadActivity(3);
    mPlatform.Forget();

    Ask(kStopActivity);
    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(Bytes{0x14, 0x02, 0x00, 0x01}));
    EXPECT_FALSE(mPlatform.IsSubscribed(23));

    Ask(kMeasureActivity); // the last value is still known
    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(Reading(0x12, 0x01, {0x40, 0x00, 0x00, 0x00})));
}

// What is no request.

TEST_F(HostExchangeTest, UnknownSensorsGetNoReply)
{
    Connect();

    for (const uint8_t id : {uint8_t{0}, uint8_t{5}, uint8_t{0x43}, uint8_t{255}}) {
        for (const uint8_t command : {uint8_t{2}, uint8_t{3}, uint8_t{4}}) {
            Ask({command, 0x00, 0x00, id, 0x00});
        }
    }

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), SizeIs(24)); // the id, then the type, each time
}

TEST_F(HostExchangeTest, UnknownCommandsGetNoReplyAndNoLine)
{
    Connect();

    for (const int command : {0, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}) {
        Ask({static_cast<uint8_t>(command), 0x00, 0x00, 0x03, 0x01});
    }
    Ask({});

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(HostExchangeTest, ShortPacketsNameSensorZero)
{
    Connect();

    for (const Bytes &request : {Bytes{0x02}, Bytes{0x03, 0x00}, Bytes{0x04, 0x00, 0x00}}) {
        Ask(request);
        EXPECT_THAT(
            mPlatform.TakeLog(),
            ElementsAre(WarningLine("DeviceManager: GetSensorTypeById(219)", "unknown sensor id 0"),
                        WarningLine("ParvaneController: GetControllInstanceByType(130)",
                                    "Unknown or Not supported Sensor Type")));
    }
    EXPECT_THAT(mPlatform.TakeSent(), IsEmpty());
}

TEST_F(HostExchangeTest, StartWithoutItsLastByteIsServed)
{
    Connect();

    Ask({0x13, 0x00, 0x00, 0x01});

    EXPECT_THAT(mPlatform.TakeSent(), SizeIs(1));
    EXPECT_TRUE(mPlatform.IsSubscribed(23));
}

TEST_F(HostExchangeTest, LongPacketsAreReadToTheirFifthByte)
{
    Connect();
    Bytes request(4096, 0xFF);
    request[0] = 0x14;
    request[3] = 0x03;

    Ask(request);

    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(Bytes{0x14, 0x02, 0x00, 0x03}));
}

// The link.

TEST_F(HostExchangeTest, LinkThatGoesDownStopsTheActivityAndKeepsTheSteps)
{
    Connect();
    Ask(kStartActivity);
    Ask(kMeasureSteps);

    LinkDown();

    EXPECT_FALSE(mPlatform.IsSubscribed(23));
    EXPECT_TRUE(mPlatform.IsSubscribed(2));
}

TEST_F(HostExchangeTest, LinkThatComesBackServesAgain)
{
    Connect();
    LinkDown();
    LinkUp();
    HostConnects();
    mPlatform.Forget();

    Ask(kMeasureActivity);

    EXPECT_THAT(
        mPlatform.TakeSentMessages(),
        ElementsAre(SentMessage{7, 143, 18, Reading(0x12, 0x01, {0x00, 0x00, 0x00, 0x00})}));
}

TEST_F(HostExchangeTest, HostThatComesBackStopsTheActivityBeforeItStartsItAgain)
{
    Connect();
    Ask(kStartActivity);
    LinkDown();
    ConnectHost();

    Ask(kStartActivity); // answered, but still started from before
    EXPECT_FALSE(mPlatform.IsSubscribed(23));
    Ask(kStopActivity);
    Ask(kStartActivity);

    EXPECT_TRUE(mPlatform.IsSubscribed(23));
    EXPECT_THAT(mPlatform.TakeSent(), SizeIs(3));
}

TEST_F(HostExchangeTest, ReplyOfAnOpenPeriodIsTriedThoughTheLinkIsDown)
{
    Connect();
    Ask(kMeasureHeartRate);
    ReadHeartRate(72);
    LinkDown();
    mPlatform.Forget();

    mPlatform.AdvanceTime(15000);

    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(ErrorLine("ConnectionManager: SendToHost(*)",
                                                           "TALConnect initialize fail "
                                                           "[[SendToHost]mIsServiceConnected is "
                                                           "false]")));
    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("context_unset_changed_callback(7)", "sendData(-1, 143, 18)"));
}

TEST_F(HostExchangeTest, ReplyOfAnOpenPeriodReachesTheHostThatIsBackInTime)
{
    Connect();
    Ask(kMeasureHeartRate);
    ReadHeartRate(72);
    LinkDown();
    ConnectHost();

    mPlatform.AdvanceTime(15000);

    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(SizeIs(18)));
}

TEST_F(HostExchangeTest, EndOfTheHostsServiceChangesNothing)
{
    Connect();
    Ask(kStartActivity);
    mPlatform.Forget();

    mPlatform.ReportServiceTerminated(kConnection);
    ReadActivity(2);

    EXPECT_THAT(mPlatform.TakeSent(), SizeIs(1));
}

TEST_F(HostExchangeTest, FailedFirstRegistrationIsRetriedAndThenServes)
{
    mService.reset();
    LeadLinkBack(mPlatform);
    mPlatform.FailNext("registerServiceAgent", -1);
    mService = std::make_unique<RunningService>(mPlatform);
    mPlatform.AdvanceTime(5);
    Connect();

    Ask(kMeasureActivity);

    EXPECT_THAT(mPlatform.TakeSent(), SizeIs(1));
}

// One thing inside another.

TEST_F(HostExchangeTest, FirstReadingsInsideTheSubscriptionsDoNoHarm)
{
    Connect();
    mPlatform.DeliverDuringSubscription(7, {{CONTEXT_HRM_HEART_RATE, 72}});
    Ask(kMeasureWearState);
    // The reply answers the last request, which is not there before the first one's call returns.
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(WarningLine("HostController: SendResponse(*)",
                                                             "dataList is NULL or empty")));
    mPlatform.AdvanceTime(3000);

    mPlatform.DeliverDuringSubscription(7, {{CONTEXT_HRM_HEART_RATE, 72}});
    Ask(kMeasureHeartRate);
    mPlatform.AdvanceTime(15000);

    mPlatform.DeliverDuringSubscription(2, Steps(1000));
    Ask(kMeasureSteps);

    mPlatform.DeliverDuringSubscription(23, {{CONTEXT_ACTIVITY_STATUS, 2}}, 1000);
    Ask(kStartActivity);
    EXPECT_THAT(mPlatform.TakeSent(), SizeIs(Ge(3U)));
}

TEST_F(HostExchangeTest, HeartRateReadInsideTheSubscriptionIsTheAnswer)
{
    Connect();
    mPlatform.DeliverDuringSubscription(7, {{CONTEXT_HRM_HEART_RATE, 72}});

    Ask(kMeasureHeartRate);
    mPlatform.AdvanceTime(15000);

    const std::vector<Bytes> sent = mPlatform.TakeSent();
    ASSERT_THAT(sent, SizeIs(1));
    EXPECT_EQ(0x42, sent[0][13]);
    EXPECT_EQ(0x90, sent[0][14]);
}

TEST_F(HostExchangeTest, HostMayStopTheActivityInsideAnUpdate)
{
    Connect();
    Ask(kStartActivity);
    mPlatform.Forget();
    mPlatform.OnNextCall("sendData", [this] { Ask(kStopActivity); });

    ReadActivity(2);

    EXPECT_FALSE(mPlatform.IsSubscribed(23));
    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(SizeIs(18), Bytes{0x14, 0x02, 0x00, 0x01}));
}

TEST_F(HostExchangeTest, HostMayAskForTheListInsideAReading)
{
    Connect();
    Ask(kMeasureWearState);
    mPlatform.OnNextCall("context_context_data_get_int", [this] { Ask(kListInOneByte); });

    ReadHeartRate(72);

    EXPECT_THAT(mPlatform.TakeSent(), SizeIs(6));
}

TEST_F(HostExchangeTest, LinkMayGoDownInsideAnUpdate)
{
    Connect();
    Ask(kStartActivity);
    mPlatform.OnNextCall("sendData", [this] { LinkDown(); });

    ReadActivity(2);

    EXPECT_FALSE(mPlatform.IsSubscribed(23));
    EXPECT_FALSE(mPlatform.HasNotifications());
}

TEST_F(HostExchangeTest, LinkMayGoDownInsideAReadingOfASharedSensor)
{
    Connect();
    Ask(kMeasureHeartRate);
    Ask(kMeasureWearState);
    mPlatform.OnNextCall("sendData", [this] { LinkDown(); });

    ReadHeartRate(72);
    mPlatform.AdvanceTime(15000);

    EXPECT_FALSE(mPlatform.IsSubscribed(7));
    EXPECT_THAT(mPlatform.TakeSent(), SizeIs(2));
}

TEST_F(HostExchangeTest, LinkMayGoDownInTheMiddleOfAList)
{
    Connect();
    mPlatform.OnNextCall("sendData", [this] { LinkDown(); });

    Ask(kListInOneByte);

    EXPECT_THAT(mPlatform.TakeCallsOf("sendData"), SizeIs(5));
    ConnectHost();
    Ask(kListInOneByte);
    EXPECT_THAT(mPlatform.TakeSent(), SizeIs(5));
}

TEST_F(HostExchangeTest, HostMayAskAgainInsideTheReplyToItsQuestion)
{
    Connect();
    mPlatform.OnNextCall("sendData", [this] { Ask(kMeasureActivity); });

    Ask(kMeasureActivity);

    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(SizeIs(18), SizeIs(18)));
}

TEST_F(HostExchangeTest, LogThatFailsChangesNothing)
{
    Connect();
    mPlatform.FailLog(-1);

    Ask(kListInOneByte);

    EXPECT_THAT(mPlatform.TakeSent(), SizeIs(5));
}

} // namespace
} // namespace Parvane
