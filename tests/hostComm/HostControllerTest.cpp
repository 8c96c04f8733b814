#include "HostController.h"

#include <functional>
#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HRMData.h"
#include "LinkTest.h"
#include "LogMatchers.h"
#include "ScriptedPlatform.h"
#include "SensorListData.h"

namespace Parvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class RecordingHostListener : public HostEventListener
{
public:
    void OnRequestEvent(std::shared_ptr<HeaderData> request) override
    {
        mRequests.push_back(std::move(request));
        if (mInsideRequest) {
            mInsideRequest();
        }
    }

    void OnHostServiceTerminated() override { ++mTerminated; }
    void OnHostDisconnected() override { ++mDisconnected; }

    std::vector<std::shared_ptr<HeaderData>> mRequests;
    int mTerminated = 0;
    int mDisconnected = 0;
    std::function<void()> mInsideRequest;
};

class HostControllerTest : public LinkTest
{
protected:
    // Connected to the link, a listener set.
    void Start()
    {
        mController.SetListener(mListener);
        mController.Connect();
        mPlatform.SetKey(kStatusKey, 1);
        mPlatform.ConfirmRegistration(0, kAgent);
        HostConnects();
        mPlatform.Forget();
    }

    static std::shared_ptr<SensorListData> MakeList(std::size_t entries)
    {
        auto list = std::make_shared<SensorListData>();
        list->mMessageType = 1;
        for (std::size_t i = 0; i < entries; ++i) {
            list->mSensorList->push_back(std::make_shared<SensorInfo>());
        }
        return list;
    }

    std::shared_ptr<RecordingHostListener> mListener = std::make_shared<RecordingHostListener>();
    HostController mController;
};

TEST_F(HostControllerTest, NewControllerLeavesTheLinkAlone)
{
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(HostControllerTest, ConnectRegisters)
{
    mController.Connect();

    EXPECT_THAT(mPlatform.TakeCalls(),
                ElementsAre("registerNotifications()", "registerServiceAgent()"));
}

TEST_F(HostControllerTest, NothingIsDeliveredBeforeTheFirstAttemptReturns)
{
    mController.SetListener(mListener);
    mPlatform.OnNextCall("registerServiceAgent", [this] {
        mPlatform.DeliverFromHost({0x02, 0x00, 0x00, 0x03});
    });

    mController.Connect();
    EXPECT_THAT(mListener->mRequests, IsEmpty());

    mPlatform.DeliverFromHost({0x02, 0x00, 0x00, 0x03});
    EXPECT_THAT(mListener->mRequests, SizeIs(1));
}

TEST_F(HostControllerTest, FailedFirstAttemptInstallsTheListenerAllTheSame)
{
    mController.SetListener(mListener);
    mPlatform.FailNext("registerServiceAgent", -1);
    mController.Connect();

    mPlatform.AdvanceTime(5);
    mPlatform.DeliverFromHost({0x02, 0x00, 0x00, 0x03});

    EXPECT_THAT(mListener->mRequests, SizeIs(1));
}

TEST_F(HostControllerTest, ReceivedPacketBecomesARequest)
{
    Start();

    mPlatform.DeliverFromHost({0x73, 0x00, 0x00, 0x01, 0x02});

    ASSERT_THAT(mListener->mRequests, SizeIs(1));
    const auto request = std::dynamic_pointer_cast<SensorData>(mListener->mRequests[0]);
    ASSERT_NE(nullptr, request);
    EXPECT_EQ(3, request->mMessageType);
    EXPECT_EQ(1, request->mCategory);
    EXPECT_EQ(2, request->mDataFormat);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeSent(), IsEmpty());
}

TEST_F(HostControllerTest, UnknownCommandsReachNobodyAndGetNoReply)
{
    Start();

    for (const int command : {0, 5, 6, 15}) {
        mPlatform.DeliverFromHost({static_cast<uint8_t>(command), 0, 0, 1, 1});
    }
    mPlatform.DeliverFromHost({});

    EXPECT_THAT(mListener->mRequests, IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(HostControllerTest, ShortPacketsAreReadWithTheirLength)
{
    Start();

    mPlatform.DeliverFromHost({0x02});
    mPlatform.DeliverFromHost({0x03, 0x09, 0x09});

    ASSERT_THAT(mListener->mRequests, SizeIs(2));
    EXPECT_EQ(0, dynamic_cast<const SensorData &>(*mListener->mRequests[0]).mCategory);
    EXPECT_EQ(0, dynamic_cast<const SensorData &>(*mListener->mRequests[1]).mCategory);
    EXPECT_EQ(0, dynamic_cast<const SensorData &>(*mListener->mRequests[1]).mDataFormat);
}

TEST_F(HostControllerTest, WithoutListenerEverythingIsDroppedInSilence)
{
    Start();
    mController.SetListener(nullptr);

    mPlatform.DeliverFromHost({0x02, 0x00, 0x00, 0x03});
    mPlatform.ReportServiceTerminated(kConnection);
    LinkDown();

    EXPECT_THAT(mListener->mRequests, IsEmpty());
    EXPECT_EQ(0, mListener->mTerminated);
    EXPECT_EQ(0, mListener->mDisconnected);
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
}

TEST_F(HostControllerTest, EndOfTheHostsServiceIsPassedOn)
{
    Start();

    mPlatform.ReportServiceTerminated(kConnection);

    EXPECT_EQ(1, mListener->mTerminated);
    EXPECT_EQ(0, mListener->mDisconnected);
}

TEST_F(HostControllerTest, TeardownIsPassedOnAsADisconnection)
{
    Start();

    LinkDown();

    EXPECT_EQ(1, mListener->mDisconnected);
    EXPECT_EQ(0, mListener->mTerminated);
}

TEST_F(HostControllerTest, ListIsSentHeaderFirst)
{
    Start();

    mController.SendResponse(MakeList(3));

    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(SizeIs(13), SizeIs(25), SizeIs(25), SizeIs(25)));
    EXPECT_THAT(mPlatform.TakeCalls(), ElementsAre("sendData(7, 143, 13)", "sendData(7, 143, 25)",
                                                   "sendData(7, 143, 25)", "sendData(7, 143, 25)"));
}

TEST_F(HostControllerTest, EmptyListIsSentAsItsHeader)
{
    Start();

    mController.SendResponse(MakeList(0));

    EXPECT_THAT(mPlatform.TakeSent(),
                ElementsAre(Bytes{0x81, 0x80, 0x0A, 0x03, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(HostControllerTest, ReadingIsSentAsOnePacket)
{
    Start();
    auto reading = std::make_shared<HRMData>(0, 72, 0);
    reading->mMessageType = 2;
    reading->mCategory = 3;
    reading->mTimestamp = 1000;

    mController.SendResponse(reading);

    EXPECT_THAT(mPlatform.TakeSent(),
                ElementsAre(Bytes{0x02, 0x00, 0x0E, 0x03, 0x11, 0x00, 0x00, 0x00, 0x00, 0x00, 0x0F,
                                  0x42, 0x40, 0x42, 0x90, 0x00, 0x00, 0x00}));
}

TEST_F(HostControllerTest, RecordWithUnknownCommandIsWarnedAboutAndNotSent)
{
    Start();
    auto record = std::make_shared<SensorData>();
    record->mMessageType = 7;

    mController.SendResponse(record);

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(WarningLine("HostController: SendResponse(*)",
                                                             "dataList is NULL or empty")));
}

TEST_F(HostControllerTest, FailedPacketDoesNotHoldUpTheNext)
{
    Start();
    mPlatform.FailCall("sendData", 2, 3);

    mController.SendResponse(MakeList(2));

    EXPECT_THAT(mPlatform.TakeSent(), SizeIs(3));
    EXPECT_THAT(mPlatform.TakeLog(), ElementsAre(WarningLine("ConnectionManager: SendToHost(*)",
                                                             "network failure error")));
}

TEST_F(HostControllerTest, WithoutConnectionEveryPacketIsTriedAndLogged)
{
    mController.SendResponse(MakeList(2));

    EXPECT_THAT(mPlatform.TakeSent(), SizeIs(3));
    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(testing::_, testing::_,
                            ErrorLine("ConnectionManager: SendToHost(*)",
                                      "TALConnect initialize fail "
                                      "[[SendToHost]mIsServiceConnected is false]")));
}

TEST_F(HostControllerTest, LinkMayGoDownInTheMiddleOfAList)
{
    Start();
    mPlatform.OnNextCall("sendData", [this] { LinkDown(); });

    mController.SendResponse(MakeList(2));

    EXPECT_THAT(
        mPlatform.TakeCallsOf("sendData"),
        ElementsAre("sendData(7, 143, 13)", "sendData(-1, 143, 25)", "sendData(-1, 143, 25)"));
    EXPECT_EQ(1, mListener->mDisconnected);
}

TEST_F(HostControllerTest, ListenerMayAnswerInsideItsRequest)
{
    Start();
    mListener->mInsideRequest = [this] { mController.SendResponse(mListener->mRequests.back()); };

    mPlatform.DeliverFromHost({0x14, 0x00, 0x00, 0x03});

    EXPECT_THAT(mPlatform.TakeSent(), ElementsAre(Bytes{0x14, 0x02, 0x00, 0x03}));
}

TEST_F(HostControllerTest, ListenerMayWithdrawInsideItsRequest)
{
    Start();
    const std::weak_ptr<RecordingHostListener> canary = mListener;
    RecordingHostListener *const listener = mListener.get();
    listener->mInsideRequest = [this, listener] {
        mController.SetListener(nullptr);
        EXPECT_EQ(1U, listener->mRequests.size()); // still there, held by the call
    };
    mListener.reset();

    mPlatform.DeliverFromHost({0x02, 0x00, 0x00, 0x03});

    EXPECT_TRUE(canary.expired());
}

TEST_F(HostControllerTest, PacketIsDroppedWhenMemoryHasRunOut)
{
    Start();
    mPlatform.FailAllocation(2); // the first one is the link's copy

    mPlatform.DeliverFromHost({0x02, 0x00, 0x00, 0x03});

    EXPECT_TRUE(mPlatform.StopFailingAllocations());
    EXPECT_THAT(mListener->mRequests, IsEmpty());
}

} // namespace
} // namespace Parvane
