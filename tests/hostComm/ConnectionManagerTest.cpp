#include "ConnectionManager.h"

#include <cstdlib>
#include <functional>
#include <new>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "LinkTest.h"
#include "LogMatchers.h"
#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

using testing::_;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

class RecordingLinkListener : public ConnectionEventListener
{
public:
    void OnDataReceived(const uint8_t *data, std::size_t size) override
    {
        mReceived.emplace_back(data, data + size);
        EXPECT_EQ(0, data[size]);
        if (mInsideReceived) {
            mInsideReceived();
        }
    }

    void OnServiceTerminated() override
    {
        ++mTerminated;
        if (mInsideTerminated) {
            mInsideTerminated();
        }
    }

    void OnConnectionReleased() override
    {
        ++mReleased;
        if (mInsideReleased) {
            mInsideReleased();
        }
    }

    std::vector<Bytes> mReceived;
    int mTerminated = 0;
    int mReleased = 0;
    std::function<void()> mInsideReceived;
    std::function<void()> mInsideTerminated;
    std::function<void()> mInsideReleased;
};

class ConnectionManagerTest : public LinkTest
{
protected:
    ConnectionManagerTest() { mManager.SetListener(&mListener); }

    void Send(const Bytes &bytes) const
    {
        mManager.SendToHost(bytes.data(), static_cast<int32_t>(bytes.size()));
    }

    static auto InitializeError(const std::string &text)
    {
        return ErrorLine("ConnectionManager: InitializeTALConnection(*)",
                         "TALConnect initialize fail [" + text + "]");
    }

    static auto SendError(const std::string &text)
    {
        return ErrorLine("ConnectionManager: SendToHost(*)",
                         "TALConnect initialize fail [" + text + "]");
    }

    // What a failed allocation of the given size makes the registration say.
    std::vector<LogLine> LogOfFailedAllocation(std::size_t size)
    {
        mPlatform.FailAllocationOfSize(size, size);
        ScriptedPlatform::AsService([this] { mManager.InitializeTALConnection(); });
        EXPECT_TRUE(mPlatform.StopFailingAllocations());
        EXPECT_THAT(mPlatform.PendingTimers(), ElementsAre(5));
        return mPlatform.TakeLog();
    }

    RecordingLinkListener mListener;
};

// The instance.

TEST_F(ConnectionManagerTest, ThereIsOneInstance)
{
    EXPECT_EQ(ConnectionManager::GetInstance(), ConnectionManager::GetInstance());
}

TEST_F(ConnectionManagerTest, LinkStatusKeyIsWatchedOnceForTheProcess)
{
    ConnectionManager::GetInstance();

    EXPECT_THAT(ScriptedPlatform::KeyWatches(),
                ElementsAre(Pair("memory/private/tal/conn_status", nullptr)));
}

// The instance is made in the processes that the tests fork. Death tests run before all others, which make it in this one.
class ConnectionManagerBirthDeathTest : public testing::Test
{
protected:
    void SetUp() override { ASSERT_THAT(ScriptedPlatform::KeyWatches(), IsEmpty()); }

    ScriptedPlatform mPlatform;
};

void LiveWithoutTheWatch(ScriptedPlatform &platform)
{
    platform.PrintLog();
    platform.FailNext("vconf_notify_key_changed", -6);
    ConnectionManager::GetInstance()->InitializeTALConnection();
    std::_Exit(platform.HasNotifications() ? 0 : 1);
}

TEST_F(ConnectionManagerBirthDeathTest, FailedWatchIsLoggedAndTheLinkStillRegisters)
{
    EXPECT_EXIT(LiveWithoutTheWatch(mPlatform), testing::ExitedWithCode(0),
                "mvconf_notify_key_changed FAIL \\[-6\\]");
}

void BeBorn(ScriptedPlatform &platform)
{
    ConnectionManager::GetInstance();
    const std::vector<std::string> calls = platform.TakeCalls();
    const bool asExpected =
        calls ==
            std::vector<std::string>{"vconf_notify_key_changed(memory/private/tal/conn_status)"} &&
        platform.TakeLog().empty();
    std::_Exit(asExpected ? 0 : 1);
}

TEST_F(ConnectionManagerBirthDeathTest, NewInstanceWatchesTheKeyAndDoesNothingElse)
{
    EXPECT_EXIT(BeBorn(mPlatform), testing::ExitedWithCode(0), "");
}

void SearchBeforeAnyConfirmation(ScriptedPlatform &platform)
{
    ConnectionManager *const manager = ConnectionManager::GetInstance();
    for (int i = 0; i < 20; ++i) {
        manager->FindAgentPeer();
    }
    const std::vector<std::string> calls = platform.TakeCallsOf("findPeerAgent");
    std::_Exit(calls == std::vector<std::string>(11, "findPeerAgent(-1)") ? 0 : 1);
}

TEST_F(ConnectionManagerBirthDeathTest, PeerSearchesCountFromZeroBeforeAnyConfirmation)
{
    EXPECT_EXIT(SearchBeforeAnyConfirmation(mPlatform), testing::ExitedWithCode(0), "");
}

void SendBeforeAnyHost(ScriptedPlatform &platform)
{
    platform.PrintLog();
    const uint8_t byte = 1;
    ConnectionManager::GetInstance()->SendToHost(&byte, 1);
    const std::vector<SentMessage> sent = platform.TakeSentMessages();
    std::_Exit(sent == std::vector<SentMessage>{{-1, 143, 1, {1}}} ? 0 : 1);
}

TEST_F(ConnectionManagerBirthDeathTest, NobodyIsConnectedBeforeAnyHost)
{
    EXPECT_EXIT(SendBeforeAnyHost(mPlatform), testing::ExitedWithCode(0),
                "mIsServiceConnected is false");
}

// Registration.

TEST_F(ConnectionManagerTest, RegistrationHandsOverNotificationsThenTheService)
{
    mManager.InitializeTALConnection();

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("registerNotifications()", "registerServiceAgent()"));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
    EXPECT_THAT(mPlatform.PendingTimers(), IsEmpty());
}

TEST_F(ConnectionManagerTest, InitializeRegisters)
{
    mManager.Initialize();

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("registerNotifications()", "registerServiceAgent()"));
}

TEST_F(ConnectionManagerTest, FirstSixSlotsOfTheNotificationsAreFilled)
{
    mManager.InitializeTALConnection();

    const tal_notifications &slots = mPlatform.Notifications();
    EXPECT_TRUE(slots.registerServiceAgentConfirm != nullptr && slots.dataReceived != nullptr &&
                slots.serviceConnectionIndication != nullptr &&
                slots.serviceTerminated != nullptr && slots.serviceCreateConfirm != nullptr &&
                slots.peerAgent != nullptr);
}

TEST_F(ConnectionManagerTest, NextThreeSlotsReturnTheirArgumentAndTheRestIsNull)
{
    mManager.InitializeTALConnection();

    const tal_notifications &slots = mPlatform.Notifications();
    EXPECT_EQ(7, slots.unused7(7));
    EXPECT_EQ(-8, slots.unused8(-8));
    EXPECT_EQ(9, slots.unused9(9));
    EXPECT_THAT(slots.reserved, Each(nullptr));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ConnectionManagerTest, ServiceIsAnnouncedWithItsFixedIdentity)
{
    mManager.InitializeTALConnection();

    const tal_service_descriptor *const service = mPlatform.Service();
    ASSERT_NE(nullptr, service);
    EXPECT_STREQ("/mirtala/sensor", service->profileId);
    EXPECT_STREQ("sensor_zolt", service->serviceName);
    EXPECT_EQ(4U, service->field8);
    EXPECT_EQ(1U, service->field12);
    EXPECT_EQ(1U, service->channelCount);
    EXPECT_THAT(service->reserved, Each(0U));
}

TEST_F(ConnectionManagerTest, ServiceHasChannel143)
{
    mManager.InitializeTALConnection();

    const tal_channel_descriptor *const channel = mPlatform.Service()->channels;
    ASSERT_NE(nullptr, channel);
    EXPECT_EQ(143U, channel->id);
    EXPECT_EQ(0U, channel->field2);
    EXPECT_EQ(1U, channel->field4);
    EXPECT_THAT(channel->reserved, Each(0U));
}

TEST_F(ConnectionManagerTest, FailedNotificationRegistrationIsLoggedAndRetried)
{
    mPlatform.FailNext("registerNotifications", -1);

    mManager.InitializeTALConnection();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("registerNotifications()", "g_timeout_add(5)"));
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(InitializeError("[InitializeTALConnection]Fail to register notification\n")));
}

TEST_F(ConnectionManagerTest, FailedServiceRegistrationIsLoggedAndRetried)
{
    mPlatform.FailNext("registerServiceAgent", 3);

    mManager.InitializeTALConnection();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("registerNotifications()",
                                                   "registerServiceAgent()", "g_timeout_add(5)"));
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(IsLogLine(6, "ConnectionManager: InitializeTALConnection(*) > "
                                         "\033[0;40;31mTALConnect initialize fail "
                                         "[[InitializeTALConnection]registerServiceAgent failed]"
                                         "\033[0;m")));
}

TEST_F(ConnectionManagerTest, MissingMemoryForTheNotificationsIsLoggedAndRetried)
{
    EXPECT_THAT(LogOfFailedAllocation(sizeof(tal_notifications)),
                ElementsAre(InitializeError("[CreateTALNotification]calloc fail")));
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("g_timeout_add(5)"));
}

TEST_F(ConnectionManagerTest, MissingMemoryForTheChannelIsLoggedAndRetried)
{
    EXPECT_THAT(LogOfFailedAllocation(sizeof(tal_channel_descriptor)),
                ElementsAre(InitializeError("[CreateChannel] ChannelDesc calloc() failed")));
}

TEST_F(ConnectionManagerTest, MissingMemoryForTheServiceIsLoggedAndRetried)
{
    EXPECT_THAT(LogOfFailedAllocation(sizeof(tal_service_descriptor)),
                ElementsAre(InitializeError("[CreateService]ServiceDesc calloc() failed")));
    EXPECT_THAT(mPlatform.TakeCallsOf("registerServiceAgent"), IsEmpty());
}

TEST_F(ConnectionManagerTest, RetriesFollowAfterFiveTenAndFifteenMilliseconds)
{
    mPlatform.FailEvery("registerServiceAgent", -1);
    mManager.InitializeTALConnection();
    mPlatform.AdvanceTime(4);
    EXPECT_THAT(mPlatform.TakeLog(), SizeIs(1));
    mPlatform.AdvanceTime(1);
    EXPECT_THAT(mPlatform.TakeLog(), SizeIs(1));
    mPlatform.AdvanceTime(10);
    EXPECT_THAT(mPlatform.TakeLog(), SizeIs(1));

    EXPECT_THAT(mPlatform.TakeCallsOf("g_timeout_add"),
                ElementsAre("g_timeout_add(5)", "g_timeout_add(10)", "g_timeout_add(15)"));
    EXPECT_THAT(mPlatform.PendingTimers(), ElementsAre(15)); // each fires once
}

TEST_F(ConnectionManagerTest, RetriesHaveNoEndAndTheirDelayNoBound)
{
    mPlatform.FailEvery("registerNotifications", -1);
    mManager.InitializeTALConnection();

    for (int i = 1; i < 200; ++i) {
        mPlatform.AdvanceTime(int64_t{5} * i);
    }

    EXPECT_THAT(mPlatform.PendingTimers(), ElementsAre(1000));
}

TEST_F(ConnectionManagerTest, SuccessEndsTheRetriesAndTheirDelay)
{
    mPlatform.FailCall("registerServiceAgent", 1, -1);
    mPlatform.FailCall("registerServiceAgent", 2, -1);
    mManager.InitializeTALConnection();
    mPlatform.AdvanceTime(5);
    mPlatform.AdvanceTime(10);
    EXPECT_THAT(mPlatform.PendingTimers(), IsEmpty());
    LinkDown();

    mPlatform.FailNext("registerServiceAgent", -1);
    mPlatform.ChangeKey(kStatusKey, 1);

    EXPECT_THAT(mPlatform.PendingTimers(), ElementsAre(5));
    mPlatform.AdvanceTime(5);
    EXPECT_TRUE(mPlatform.HasNotifications());
}

// A retry does not ask what has become of the link meanwhile.

TEST_F(ConnectionManagerTest, RetryRegistersAgainThoughTheKeyHasRegisteredMeanwhile)
{
    mPlatform.FailNext("registerServiceAgent", -1);
    mManager.InitializeTALConnection();
    LinkUp();
    mPlatform.Forget();

    mPlatform.AdvanceTime(5);

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("registerNotifications()", "registerServiceAgent()"));
    LinkDown(); // the first registration's records are gone by now, the second's are there
    EXPECT_EQ(1, mListener.mReleased);
}

TEST_F(ConnectionManagerTest, RetryRegistersThoughTheKeyIsZero)
{
    mPlatform.FailNext("registerServiceAgent", -1);
    mPlatform.ChangeKey(kStatusKey, 1);
    LinkDown();
    mPlatform.Forget();

    mPlatform.AdvanceTime(5);

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("registerNotifications()", "registerServiceAgent()"));
}

TEST_F(ConnectionManagerTest, FailedRetryLeavesTheRegistrationThatTheKeyMade)
{
    mPlatform.FailNext("registerServiceAgent", -1);
    mManager.InitializeTALConnection();
    ConnectHost();
    mPlatform.FailNext("registerNotifications", -1);

    mPlatform.AdvanceTime(5);
    Send({1, 2});

    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(Bytes{1, 2}));
    LinkDown();
    EXPECT_EQ(1, mListener.mReleased);
}

// A key that changes inside a call of the registration.

TEST_F(ConnectionManagerTest, LinkThatComesUpInsideTheRegistrationRegistersInIt)
{
    mPlatform.OnNextCall("registerServiceAgent", [this] { mPlatform.ChangeKey(kStatusKey, 1); });

    mManager.InitializeTALConnection();

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("registerNotifications()", "registerServiceAgent()",
                            "vconf_get_int(memory/private/tal/conn_status)",
                            "registerNotifications()", "registerServiceAgent()"));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

// The link has the records of both and may look at those of either.
TEST_F(ConnectionManagerTest, RecordsOfARegistrationInsideAnotherStay)
{
    const auto moments = {ScriptedPlatform::Moment::Before, ScriptedPlatform::Moment::After};
    for (const ScriptedPlatform::Moment moment : moments) {
        mPlatform.OnAnyCall(2, moment, [this] { mPlatform.ChangeKey(kStatusKey, 1); });

        ScriptedPlatform::AsService([this] { mManager.InitializeTALConnection(); });

        ASSERT_NE(nullptr, mPlatform.Service());
        EXPECT_STREQ("sensor_zolt", mPlatform.Service()->serviceName);
        mPlatform.ConfirmRegistration(0, kAgent);
        LinkDown();
    }
}

TEST_F(ConnectionManagerTest, LinkThatGoesInsideTheFirstRegistrationIsNotTornDown)
{
    mPlatform.OnNextCall("registerServiceAgent", [this] { LinkDown(); });

    mManager.InitializeTALConnection();

    EXPECT_THAT(mPlatform.TakeCallsOf("deregisterNotifications"), IsEmpty());
    EXPECT_EQ(0, mListener.mReleased);
    LinkDown(); // it counts as registered
    EXPECT_EQ(1, mListener.mReleased);
}

TEST_F(ConnectionManagerTest, LinkThatGoesInsideARenewedRegistrationComesBackWithTheNextChange)
{
    for (int call = 1; call <= 2; ++call) {
        SCOPED_TRACE("call " + std::to_string(call));
        ConnectHost();
        mPlatform.OnAnyCall(call, ScriptedPlatform::Moment::After, [this] { LinkDown(); });

        ScriptedPlatform::AsService([this] { mManager.InitializeTALConnection(); });

        EXPECT_THAT(mPlatform.PendingTimers(), IsEmpty()); // the agent was registered
        LinkDown();
        mPlatform.Forget();
        mPlatform.ChangeKey(kStatusKey, 1);
        EXPECT_THAT(mPlatform.TakeCalls(), Contains("registerServiceAgent()"));
        LinkDown();
    }
}

// What is waiting for its turn until the failed registration has been cleared away.
TEST_F(ConnectionManagerTest, FailedRegistrationIsLoggedBeforeItsRetryIsScheduled)
{
    mPlatform.FailNext("registerServiceAgent", -1);
    std::size_t linesByThen = 0;
    mPlatform.OnNextCall("g_timeout_add", [&] { linesByThen = mPlatform.Log().size(); });

    mManager.InitializeTALConnection();

    EXPECT_EQ(1U, linesByThen);
}

// The link-status key.

TEST_F(ConnectionManagerTest, KeyOneRegisters)
{
    mPlatform.ChangeKey(kStatusKey, 1);

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("vconf_get_int(memory/private/tal/conn_status)",
                            "registerNotifications()", "registerServiceAgent()"));
}

TEST_F(ConnectionManagerTest, KeyOneWhileRegisteredDoesNothing)
{
    LinkUp();
    mPlatform.Forget();

    mPlatform.ChangeKey(kStatusKey, 1);

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("vconf_get_int(memory/private/tal/conn_status)"));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ConnectionManagerTest, KeyZeroWhileNotRegisteredDoesNothing)
{
    mPlatform.ChangeKey(kStatusKey, 0);

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("vconf_get_int(memory/private/tal/conn_status)"));
    EXPECT_EQ(0, mListener.mReleased);
}

TEST_F(ConnectionManagerTest, OtherValuesOfTheKeyDoNothing)
{
    mPlatform.ChangeKey(kStatusKey, 2);
    EXPECT_FALSE(mPlatform.HasNotifications());

    LinkUp();
    mPlatform.ChangeKey(kStatusKey, 2);
    mPlatform.ChangeKey(kStatusKey, -1);
    EXPECT_TRUE(mPlatform.HasNotifications());
    EXPECT_EQ(0, mListener.mReleased);
}

TEST_F(ConnectionManagerTest, KeyThatCannotBeReadIsNeitherOneNorZero)
{
    mPlatform.FailNext("vconf_get_int", -1);
    mPlatform.ChangeKey(kStatusKey, 1);
    EXPECT_FALSE(mPlatform.HasNotifications());

    LinkUp();
    mPlatform.FailNext("vconf_get_int", -1);
    mPlatform.ChangeKey(kStatusKey, 0);
    EXPECT_TRUE(mPlatform.HasNotifications());
    EXPECT_EQ(0, mListener.mReleased);
}

TEST_F(ConnectionManagerTest, LinkComesBackAsOftenAsTheKeySays)
{
    for (int i = 0; i < 3; ++i) {
        ConnectHost();
        Send({1});
        LinkDown();
    }

    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
    EXPECT_EQ(3, mListener.mReleased);
}

// Confirmation of the registration.

TEST_F(ConnectionManagerTest, ConfirmationKeepsTheAgentAndSearchesNobody)
{
    mPlatform.ChangeKey(kStatusKey, 1);
    mPlatform.Forget();

    mPlatform.ConfirmRegistration(0, 12);

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("vconf_get_int(memory/private/tal/conn_status)"));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
    mManager.FindAgentPeer();
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("findPeerAgent(12)"));
}

TEST_F(ConnectionManagerTest, AgentIsKeptWhateverTheResultOfTheConfirmation)
{
    mPlatform.ChangeKey(kStatusKey, 1);

    mPlatform.ConfirmRegistration(-1, 12);
    mPlatform.Forget();
    mManager.FindAgentPeer();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("findPeerAgent(12)"));
}

TEST_F(ConnectionManagerTest, ConfirmationWithoutLinkIsAnError)
{
    mManager.InitializeTALConnection();

    mPlatform.ConfirmRegistration(0, 12); // the key is 0

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(ErrorLine("ConnectionManager: TALNotiOnRegisterServiceAgentConfirm(*)",
                                      "TAL conn is not connected")));
}

TEST_F(ConnectionManagerTest, ConfirmationWithAnUnreadableKeyIsAnError)
{
    mPlatform.ChangeKey(kStatusKey, 1);
    mPlatform.FailNext("vconf_get_int", -6);

    mPlatform.ConfirmRegistration(0, 12);

    EXPECT_THAT(mPlatform.TakeLog(),
                Contains(ErrorLine("ConnectionManager: TALNotiOnRegisterServiceAgentConfirm(*)",
                                   "TAL conn is not connected")));
}

TEST_F(ConnectionManagerTest, ConfirmationBeginsANewPeerSearch)
{
    LinkUp();
    for (int i = 0; i < 15; ++i) {
        mManager.FindAgentPeer();
    }
    mPlatform.ConfirmRegistration(0, kAgent);
    mPlatform.Forget();

    mManager.FindAgentPeer();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("findPeerAgent(5)"));
}

// Connections.

TEST_F(ConnectionManagerTest, IndicationIsAcceptedWithItsArgumentsUnchanged)
{
    LinkUp();
    mPlatform.Forget();
    int peer = 0;
    int detail = 0;

    mPlatform.IndicateConnection(5, 7, &peer, &detail);

    char expected[100];
    std::snprintf(expected, sizeof expected, "acceptServiceConnection(5, 7, %p, %p)",
                  static_cast<void *>(&peer), static_cast<void *>(&detail));
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre(expected));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ConnectionManagerTest, AcceptedConnectionCarriesWhatIsSent)
{
    LinkUp();
    mPlatform.IndicateConnection(5, 33);

    Send({1, 2, 3});

    EXPECT_THAT(mPlatform.TakeSentMessages(), ElementsAre(SentMessage{33, 143, 3, {1, 2, 3}}));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ConnectionManagerTest, ConnectionThatCannotBeAcceptedIsWarnedAbout)
{
    LinkUp();
    mPlatform.FailNext("acceptServiceConnection", -1);

    mPlatform.IndicateConnection(5, 33);

    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(WarningLine("ConnectionManager: TALNotiOnServiceConnectionIndication(*)",
                                "fail to accept service connection")));
    Send({1});
    EXPECT_THAT(mPlatform.TakeSentMessages(), ElementsAre(SentMessage{-1, 143, 1, {1}}));
    EXPECT_THAT(mPlatform.TakeLog(), SizeIs(1));
}

TEST_F(ConnectionManagerTest, FailedSecondConnectionLeavesTheFirst)
{
    ConnectHost();
    mPlatform.FailNext("acceptServiceConnection", -1);

    mPlatform.IndicateConnection(5, 33);
    Send({1});

    EXPECT_THAT(mPlatform.TakeSentMessages(), ElementsAre(SentMessage{7, 143, 1, {1}}));
}

TEST_F(ConnectionManagerTest, ConfirmedConnectionCarriesWhatIsSent)
{
    LinkUp();
    mPlatform.Forget();

    mPlatform.ConfirmConnection(5, 34, 0);
    Send({9});

    EXPECT_THAT(mPlatform.TakeSentMessages(), ElementsAre(SentMessage{34, 143, 1, {9}}));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("sendData(34, 143, 1)"));
}

TEST_F(ConnectionManagerTest, RefusedConnectionIsWarnedAbout)
{
    LinkUp();

    mPlatform.ConfirmConnection(5, 34, 2);

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(WarningLine("ConnectionManager: TALNotiOnServiceCreateConfirm(*)",
                                        "service connection failed.")));
    Send({1});
    EXPECT_THAT(mPlatform.TakeSentMessages(), ElementsAre(SentMessage{-1, 143, 1, {1}}));
}

// Peer search.

TEST_F(ConnectionManagerTest, PeerSearchNamesTheLocalAgent)
{
    LinkUp();
    mPlatform.Forget();

    mManager.FindAgentPeer();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("findPeerAgent(5)"));
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(WarningLine("ConnectionManager: FindAgentPeer(*)",
                                                             "local Agent ID = [5]")));
}

TEST_F(ConnectionManagerTest, FailedPeerSearchIsAnError)
{
    LinkUp();
    mPlatform.FailNext("findPeerAgent", -1);

    mManager.FindAgentPeer();

    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(WarningLine("ConnectionManager: FindAgentPeer(*)", "local Agent ID = [5]"),
                    ErrorLine("ConnectionManager: FindAgentPeer(*)", "Call find peer failed")));
}

TEST_F(ConnectionManagerTest, PeerFailureIsAnErrorAndSearchesAgain)
{
    LinkUp();
    mPlatform.Forget();

    mPlatform.ReportPeer(kAgent, 8);

    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(
            ErrorLine("ConnectionManager: TALNotiOnPeerAgent(*)", "find peer agent failed : 8"),
            WarningLine("ConnectionManager: FindAgentPeer(*)", "local Agent ID = [5]")));
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("findPeerAgent(5)"));
}

TEST_F(ConnectionManagerTest, PeerFailureThreeSearchesAgainWithoutAnError)
{
    LinkUp();
    mPlatform.Forget();

    mPlatform.ReportPeer(kAgent, 3);

    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(WarningLine("ConnectionManager: FindAgentPeer(*)",
                                                             "local Agent ID = [5]")));
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("findPeerAgent(5)"));
}

TEST_F(ConnectionManagerTest, TwelfthFailureInARowStopsTheSearchAfterItsLine)
{
    LinkUp();
    for (int i = 0; i < 11; ++i) {
        mPlatform.ReportPeer(kAgent, 3);
    }
    EXPECT_THAT(mPlatform.TakeCallsOf("findPeerAgent"), SizeIs(11));
    mPlatform.Forget();

    mPlatform.ReportPeer(kAgent, 3);

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(WarningLine("ConnectionManager: FindAgentPeer(*)",
                                                             "local Agent ID = [5]")));
}

TEST_F(ConnectionManagerTest, FailedSearchesCountToo)
{
    LinkUp();
    mPlatform.FailEvery("findPeerAgent", -1);

    for (int i = 0; i < 20; ++i) {
        mManager.FindAgentPeer();
    }

    EXPECT_THAT(mPlatform.TakeCallsOf("findPeerAgent"), SizeIs(11));
}

TEST_F(ConnectionManagerTest, FoundPeerBeginsTheCountAgain)
{
    LinkUp();
    for (int i = 0; i < 15; ++i) {
        mPlatform.ReportPeer(kAgent, 3);
    }
    mPlatform.Forget();

    mPlatform.ReportPeer(kAgent, 0);
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());

    for (int i = 0; i < 15; ++i) {
        mPlatform.ReportPeer(kAgent, 3);
    }
    EXPECT_THAT(mPlatform.TakeCallsOf("findPeerAgent"), SizeIs(11));
}

// Received data.

TEST_F(ConnectionManagerTest, ReceivedBytesReachTheListenerWithTheirLength)
{
    ConnectHost();

    mPlatform.DeliverFromHost({0x14, 0x00, 0x00, 0x03});

    EXPECT_THAT(mListener.mReceived, ElementsAre(Bytes{0x14, 0x00, 0x00, 0x03}));
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(ConnectionManagerTest, ConnectionAndChannelOfReceivedDataAreIgnored)
{
    LinkUp();

    mPlatform.DeliverFromHost({1}, 99, 1);

    EXPECT_THAT(mListener.mReceived, ElementsAre(Bytes{1}));
}

TEST_F(ConnectionManagerTest, EmptyMessageReachesTheListener)
{
    ConnectHost();

    mPlatform.DeliverFromHost({});

    EXPECT_THAT(mListener.mReceived, ElementsAre(Bytes{}));
}

TEST_F(ConnectionManagerTest, MessageOfNegativeLengthIsDropped)
{
    ConnectHost();
    const uint8_t byte = 2;

    mPlatform.Notifications().dataReceived(7, 143, -1, &byte);
    mPlatform.Notifications().dataReceived(7, 143, -2147483647 - 1, &byte);

    EXPECT_THAT(mListener.mReceived, IsEmpty());
}

TEST_F(ConnectionManagerTest, MessageWithoutBytesIsDropped)
{
    ConnectHost();

    mPlatform.Notifications().dataReceived(7, 143, 4, nullptr);
    mPlatform.Notifications().dataReceived(7, 143, 1, nullptr);

    EXPECT_THAT(mListener.mReceived, IsEmpty());
}

TEST_F(ConnectionManagerTest, MessageWithoutListenerIsDropped)
{
    ConnectHost();
    mManager.SetListener(nullptr);

    mPlatform.DeliverFromHost({0x14, 0x00, 0x00, 0x03});

    EXPECT_THAT(mListener.mReceived, IsEmpty());
}

TEST_F(ConnectionManagerTest, MessageIsDroppedWhenMemoryHasRunOut)
{
    ConnectHost();

    mPlatform.FailAllocation(1);
    mPlatform.DeliverFromHost({0x14, 0x00, 0x00, 0x03});
    EXPECT_TRUE(mPlatform.StopFailingAllocations());

    EXPECT_THAT(mListener.mReceived, IsEmpty());
    mPlatform.DeliverFromHost({0x24, 0x00, 0x00, 0x03});
    EXPECT_THAT(mListener.mReceived, SizeIs(1));
}

TEST_F(ConnectionManagerTest, ListenerThatRunsOutOfMemoryEndsAtTheLink)
{
    ConnectHost();
    mListener.mInsideReceived = [] { throw std::bad_alloc(); };
    mPlatform.TakeLog();

    mPlatform.DeliverFromHost({1});
    mListener.mInsideReceived = nullptr;
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(ErrorLine("ConnectionManager: TALNotiOnDataReceived(*)",
                                      "packet dropped [std::bad_alloc]")));
    mPlatform.DeliverFromHost({2});

    EXPECT_THAT(mListener.mReceived, ElementsAre(Bytes{1}, Bytes{2}));
}

TEST_F(ConnectionManagerTest, ListenerMayTearTheLinkDownInsideAMessage)
{
    ConnectHost();
    mListener.mInsideReceived = [this] { LinkDown(); };

    mPlatform.DeliverFromHost({1});

    EXPECT_EQ(1, mListener.mReleased);
    EXPECT_FALSE(mPlatform.HasNotifications());
}

// End of the host's service.

TEST_F(ConnectionManagerTest, EndOfTheHostsServiceIsReportedAndChangesNothing)
{
    ConnectHost();

    mPlatform.ReportServiceTerminated(kConnection);

    EXPECT_EQ(1, mListener.mTerminated);
    EXPECT_EQ(0, mListener.mReleased);
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    Send({1}); // still connected
    EXPECT_THAT(mPlatform.TakeSentMessages(), ElementsAre(SentMessage{7, 143, 1, {1}}));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ConnectionManagerTest, ListenerThatRunsOutOfMemoryInsideTheEndOfTheServiceEndsAtTheLink)
{
    ConnectHost();
    mListener.mInsideTerminated = [] { throw std::bad_alloc(); };

    mPlatform.Notifications().serviceTerminated(7);

    EXPECT_EQ(1, mListener.mTerminated);
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(ErrorLine("ConnectionManager: TALNotiOnServiceTerminated(*)",
                                      "link event dropped [std::bad_alloc]")));
}

TEST_F(ConnectionManagerTest, EndOfTheHostsServiceWithoutListenerIsNothing)
{
    ConnectHost();
    mManager.SetListener(nullptr);

    mPlatform.ReportServiceTerminated(kConnection);

    EXPECT_EQ(0, mListener.mTerminated);
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

// Teardown.

TEST_F(ConnectionManagerTest, TeardownEndsConnectionThenAgentThenNotifications)
{
    ConnectHost();

    LinkDown();

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("vconf_get_int(memory/private/tal/conn_status)",
                            "terminateServiceConnection(7)", "deRegisterServiceAgent(5)",
                            "deregisterNotifications()"));
    EXPECT_EQ(1, mListener.mReleased);
    EXPECT_EQ(0, mListener.mTerminated);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ConnectionManagerTest, TeardownWithoutConnectionEndsNone)
{
    LinkUp();
    mPlatform.Forget();

    LinkDown();

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre(_, "deRegisterServiceAgent(5)", "deregisterNotifications()"));
    EXPECT_EQ(1, mListener.mReleased);
}

TEST_F(ConnectionManagerTest, TeardownBeforeTheConfirmationEndsNoAgent)
{
    mPlatform.ChangeKey(kStatusKey, 1);
    mPlatform.Forget();

    LinkDown();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre(_, "deregisterNotifications()"));
    EXPECT_EQ(1, mListener.mReleased);
}

TEST_F(ConnectionManagerTest, TeardownForgetsConnectionAndAgent)
{
    ConnectHost();
    LinkDown();
    mPlatform.Forget();

    mManager.TerminateTALConnection();

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("deregisterNotifications()"));
    EXPECT_EQ(2, mListener.mReleased);
}

TEST_F(ConnectionManagerTest, TeardownGoesOnWhateverFails)
{
    ConnectHost();
    mPlatform.FailNext("terminateServiceConnection", -1);
    mPlatform.FailNext("deRegisterServiceAgent", -2);
    mPlatform.FailNext("deregisterNotifications", -3);

    LinkDown();

    EXPECT_THAT(mPlatform.TakeCalls(), SizeIs(4));
    EXPECT_EQ(1, mListener.mReleased);
    mPlatform.ChangeKey(kStatusKey, 1);
    EXPECT_TRUE(mPlatform.HasNotifications());
    mPlatform.Forget();
    Send({1});
    EXPECT_THAT(mPlatform.TakeSentMessages(), ElementsAre(SentMessage{-1, 143, 1, {1}}));
}

TEST_F(ConnectionManagerTest, FailuresOfATeardownAreLoggedWithTheirCodes)
{
    ConnectHost();
    mPlatform.FailNext("terminateServiceConnection", -11);
    mPlatform.FailNext("deRegisterServiceAgent", -12);
    mPlatform.FailNext("deregisterNotifications", -13);

    LinkDown();

    const char *const place = "ConnectionManager: TerminateTALConnection(*)";
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(ErrorLine(place, "terminateServiceConnection FAIL [-11]"),
                            ErrorLine(place, "deRegisterServiceAgent FAIL [-12]"),
                            ErrorLine(place, "deregisterNotifications FAIL [-13]")));
}

TEST_F(ConnectionManagerTest, TeardownWithoutListenerIsComplete)
{
    ConnectHost();
    mManager.SetListener(nullptr);

    LinkDown();

    EXPECT_FALSE(mPlatform.HasNotifications());
    EXPECT_EQ(0, mListener.mReleased);
}

TEST_F(ConnectionManagerTest, ListenerHearsOfTheTeardownWhenItIsDone)
{
    ConnectHost();
    mListener.mInsideReleased = [this] {
        EXPECT_FALSE(mPlatform.HasNotifications());
        Send({1});
    };

    LinkDown();

    EXPECT_THAT(mPlatform.TakeSentMessages(), ElementsAre(SentMessage{-1, 143, 1, {1}}));
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(SendError("[SendToHost]mIsServiceConnected is false")));
}

TEST_F(ConnectionManagerTest, PacketInsideATeardownGoesToTheConnectionThatEnds)
{
    ConnectHost();
    mPlatform.OnNextCall("terminateServiceConnection", [this] { Send({1}); });
    mPlatform.OnNextCall("deRegisterServiceAgent", [this] {
        Send({2});
        mPlatform.ReportPeer(kAgent, 3);
    });
    mPlatform.OnNextCall("deregisterNotifications", [this] {
        Send({3});
        mPlatform.ReportPeer(kAgent, 3);
    });

    LinkDown();

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("vconf_get_int(memory/private/tal/conn_status)",
                            "terminateServiceConnection(7)", "sendData(7, 143, 1)",
                            "deRegisterServiceAgent(5)", "sendData(-1, 143, 1)", "findPeerAgent(5)",
                            "deregisterNotifications()", "sendData(-1, 143, 1)",
                            "findPeerAgent(-1)"));
    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(WarningLine("ConnectionManager: FindAgentPeer(*)", "local Agent ID = [5]"),
                    WarningLine("ConnectionManager: FindAgentPeer(*)", "local Agent ID = [-1]")));
}

TEST_F(ConnectionManagerTest, TeardownInsideATeardownDoesItsStepsAgain)
{
    ConnectHost();
    mPlatform.OnNextCall("terminateServiceConnection", [this] { LinkDown(); });

    LinkDown();

    const char *const key = "vconf_get_int(memory/private/tal/conn_status)";
    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre(key, "terminateServiceConnection(7)", key,
                            "terminateServiceConnection(7)", "deRegisterServiceAgent(5)",
                            "deregisterNotifications()", "deregisterNotifications()"));
    EXPECT_EQ(2, mListener.mReleased);
}

// The link goes on reading the descriptor of the agent that it was given last.
TEST_F(ConnectionManagerTest, RecordsOfARegistrationInsideTheEndOfTheAgentStay)
{
    ConnectHost();
    int looks = 0;
    mPlatform.OnNextCall("deRegisterServiceAgent", [this, &looks] {
        LinkDown();
        mPlatform.ChangeKey(kStatusKey, 1);
        mPlatform.OnNextCall("deregisterNotifications", [this, &looks] {
            ++looks;
            ASSERT_NE(nullptr, mPlatform.Service());
            EXPECT_STREQ("sensor_zolt", mPlatform.Service()->serviceName);
            EXPECT_EQ(143, mPlatform.Service()->channels->id);
        });
    });

    LinkDown();

    EXPECT_EQ(1, looks);
}

TEST_F(ConnectionManagerTest, AgentAndHostThatComeInsideATeardownStay)
{
    ConnectHost();
    mPlatform.OnNextCall("deregisterNotifications", [this] {
        mPlatform.ConfirmRegistration(0, 9);
        mPlatform.IndicateConnection(9, 8);
    });
    LinkDown();
    mPlatform.ChangeKey(kStatusKey, 1);
    mPlatform.Forget();

    Send({1}); // the connection is known, but not established
    LinkDown();

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(SendError("[SendToHost]mIsServiceConnected is false")));
    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("sendData(8, 143, 1)", "vconf_get_int(memory/private/tal/conn_status)",
                            "terminateServiceConnection(8)", "deRegisterServiceAgent(9)",
                            "deregisterNotifications()"));
}

TEST_F(ConnectionManagerTest, ListenerMayRegisterAgainInsideTheTeardown)
{
    ConnectHost();
    mListener.mInsideReleased = [this] { ConnectHost(); };

    LinkDown();
    Send({1});

    EXPECT_THAT(mPlatform.TakeSentMessages(), ElementsAre(SentMessage{7, 143, 1, {1}}));
    mListener.mInsideReleased = nullptr;
    LinkDown();
    EXPECT_EQ(2, mListener.mReleased);
}

TEST_F(ConnectionManagerTest, ListenerThatRunsOutOfMemoryInsideTheTeardownEndsAtTheKey)
{
    ConnectHost();
    mListener.mInsideReleased = [] { throw std::bad_alloc(); };

    LinkDown();

    EXPECT_EQ(1, mListener.mReleased);
    EXPECT_FALSE(mPlatform.HasNotifications());
}

// Sending.

TEST_F(ConnectionManagerTest, MessageGoesOutOnChannel143)
{
    ConnectHost();

    Send({0x14, 0x02, 0x00, 0x03});

    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("sendData(7, 143, 4)"));
    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(Bytes{0x14, 0x02, 0x00, 0x03}));
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(ConnectionManagerTest, MessageWithoutConnectionIsLoggedAndSentAllTheSame)
{
    Send({1, 2});

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(IsLogLine(6, "ConnectionManager: SendToHost(*) > "
                                         "\033[0;40;31mTALConnect initialize fail "
                                         "[[SendToHost]mIsServiceConnected is false]\033[0;m")));
    EXPECT_THAT(mPlatform.TakeSentMessages(), ElementsAre(SentMessage{-1, 143, 2, {1, 2}}));
}

TEST_F(ConnectionManagerTest, MessageAfterATeardownGoesToConnectionMinusOne)
{
    ConnectHost();
    LinkDown();
    mPlatform.Forget();

    Send({1});

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(SendError("[SendToHost]mIsServiceConnected is false")));
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("sendData(-1, 143, 1)"));
}

TEST_F(ConnectionManagerTest, NullMessageIsLoggedAndSentAllTheSame)
{
    ConnectHost();

    mManager.SendToHost(nullptr, 4);

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(SendError("[SendToHost]Invalid parameter: str is NULL")));
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("sendData(7, 143, 4)"));
}

TEST_F(ConnectionManagerTest, FirstFaultOfAMessageIsTheOneThatIsLogged)
{
    mManager.SendToHost(nullptr, 70000);

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(SendError("[SendToHost]Invalid parameter: str is NULL")));
}

TEST_F(ConnectionManagerTest, LongestMessageIsNoFault)
{
    ConnectHost();

    Send(Bytes(65531, 0x55));

    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("sendData(7, 143, 65531)"));
}

TEST_F(ConnectionManagerTest, TooLongAMessageIsLoggedTwiceAndSentAllTheSame)
{
    ConnectHost();

    Send(Bytes(65532, 0x55));

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(ErrorLine("ConnectionManager: SendToHost(*)",
                                      "Message goes over max size(65532) but input size (65532)\n"),
                            SendError("[SendToHost]message size limit exceed")));
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("sendData(7, 143, 65532)"));
}

TEST_F(ConnectionManagerTest, NegativeSizeIsNotOverTheLimit)
{
    ConnectHost();
    const uint8_t byte = 0;

    mManager.SendToHost(&byte, -1);

    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("sendData(7, 143, -1)"));
}

TEST_F(ConnectionManagerTest, FailuresOfTheLinkAreWarningsAndNothingIsRetried)
{
    ConnectHost();
    const std::pair<int, const char *> expected[] = {{1, "invalid argument error"},
                                                     {2, "invalid service connection"},
                                                     {3, "network failure error"},
                                                     {4, "Buffer full"},
                                                     {5, "Buffer full"},
                                                     {6, "Unknown error"},
                                                     {-1, "Unknown error"}};
    for (const auto &[code, text] : expected) {
        mPlatform.FailNext("sendData", code);
        Send({1});
        EXPECT_THAT(mPlatform.TakeLog(),
                    ElementsAre(WarningLine("ConnectionManager: SendToHost(*)", text)));
        EXPECT_THAT(mPlatform.TakeCalls(), SizeIs(1));
        EXPECT_THAT(mPlatform.PendingTimers(), IsEmpty());
    }
}

TEST_F(ConnectionManagerTest, LinkMayGoDownWhileAMessageIsBeingSent)
{
    ConnectHost();
    mPlatform.OnNextCall("sendData", [this] { LinkDown(); });

    Send({1});
    Send({2});

    EXPECT_THAT(mPlatform.TakeSentMessages(),
                ElementsAre(SentMessage{7, 143, 1, {1}}, SentMessage{-1, 143, 1, {2}}));
}

TEST_F(ConnectionManagerTest, TraceShowsPositionsInDecimalAndBytesInHexadecimal)
{
    const auto trace = [](const Bytes &bytes) {
        std::string text;
        ConnectionManager::AppendTrace(text, bytes.data(), static_cast<int32_t>(bytes.size()));
        return text;
    };
    EXPECT_EQ("00 14 01 02 02 ff ", trace({0x14, 0x02, 0xFF}));
    EXPECT_EQ("", trace({}));
    EXPECT_EQ("00 a5 01 a5 02 a5 03 a5 04 a5 05 a5 06 a5 07 a5 08 a5 09 a5 10 a5 ",
              trace(Bytes(11, 0xA5)));

    Bytes longest(102, 0x5A);
    longest.back() = 0xC7;
    EXPECT_THAT(trace(longest), testing::EndsWith(" 98 5a 99 5a 100 5a 101 c7 "));
}

} // namespace
} // namespace Parvane
