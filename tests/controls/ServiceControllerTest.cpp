#include "ServiceController.h"

#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ControllerTest.h"
#include "LogMatchers.h"
#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// The base as it is, with no more than it demands.
class BareController : public ServiceController
{
public:
    using ServiceController::mActiveRequest;
    using ServiceController::mLastRequest;
    using ServiceController::mStarted;
    using ServiceController::ServiceController;

    void OnSensorDataUpdated(std::shared_ptr<SensorData> /*data*/) override {}
    std::shared_ptr<SensorInfo> GetSensorInfo() override { return nullptr; }
    void Initialize() override {}
};

// Notes what is called and what the base's fields are then.
class WatchingController : public BareController
{
public:
    using BareController::BareController;

    void MeasureCurrentSensorValue(std::shared_ptr<SensorData> request) override
    {
        Note("MeasureCurrentSensorValue", request);
    }

    void StartSensor(std::shared_ptr<SensorData> request) override { Note("StartSensor", request); }
    void StopSensor(std::shared_ptr<SensorData> request) override { Note("StopSensor", request); }

    std::vector<std::string> mCalls;
    std::shared_ptr<SensorData> mGiven;
    bool mStartedInside = false;
    std::shared_ptr<SensorData> mActiveInside;
    std::shared_ptr<SensorData> mLastInside;

private:
    void Note(const char *name, const std::shared_ptr<SensorData> &request)
    {
        mCalls.emplace_back(name);
        mGiven = request;
        mStartedInside = mStarted;
        mActiveInside = mActiveRequest;
        mLastInside = mLastRequest;
    }
};

class ServiceControllerTest : public ControllerTest
{
protected:
    std::shared_ptr<WatchingController> mController =
        std::make_shared<WatchingController>(mListener);
};

TEST_F(ServiceControllerTest, NewControllerIsStoppedAndHasNoRequests)
{
    EXPECT_FALSE(mController->mStarted);
    EXPECT_EQ(nullptr, mController->mActiveRequest);
    EXPECT_EQ(nullptr, mController->mLastRequest);
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(ServiceControllerTest, BaseIsOfTypeZero)
{
    EXPECT_EQ(SensorType(0), mController->GetSensorType());
}

TEST_F(ServiceControllerTest, OperationsOfTheBaseDoNothing)
{
    BareController bare(mListener);

    bare.OnSensorDataChanged(MakeRequest(2));
    bare.OnHostServiceTerminated();
    bare.OnHostDisconnected();
    bare.MeasureCurrentSensorValue(MakeRequest(2));
    bare.StartSensor(MakeRequest(3));
    bare.StopSensor(MakeRequest(4));

    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
    EXPECT_THAT(mPlatform.TakeLog(), IsEmpty());
    EXPECT_FALSE(bare.mStarted);
}

TEST_F(ServiceControllerTest, MeasureOnceMeasures)
{
    const auto request = MakeRequest(2);

    mController->ProcessReqeust(request);

    EXPECT_THAT(mController->mCalls, ElementsAre("MeasureCurrentSensorValue"));
    EXPECT_EQ(request, mController->mGiven);
    EXPECT_EQ(request, mController->mLastRequest);
    EXPECT_FALSE(mController->mStarted);
    EXPECT_EQ(nullptr, mController->mActiveRequest);
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(ServiceControllerTest, MeasuringSeesThePreviousRequestAsTheLast)
{
    const auto first = MakeRequest(2);
    const auto second = MakeRequest(2);
    mController->ProcessReqeust(first);
    EXPECT_EQ(nullptr, mController->mLastInside);

    mController->ProcessReqeust(second);

    EXPECT_EQ(first, mController->mLastInside);
    EXPECT_EQ(second, mController->mLastRequest);
}

TEST_F(ServiceControllerTest, StartStartsThenMeasures)
{
    const auto request = MakeRequest(3);

    mController->ProcessReqeust(request);

    EXPECT_THAT(mController->mCalls, ElementsAre("StartSensor", "MeasureCurrentSensorValue"));
    EXPECT_TRUE(mController->mStarted);
    EXPECT_EQ(request, mController->mActiveRequest);
    EXPECT_EQ(nullptr, mController->mLastRequest);
    EXPECT_THAT(mPlatform.TakeCalls(), IsEmpty());
}

TEST_F(ServiceControllerTest, StartIsInForceWhenItMeasures)
{
    const auto request = MakeRequest(3);

    mController->ProcessReqeust(request);

    EXPECT_TRUE(mController->mStartedInside); // seen by MeasureCurrentSensorValue
    EXPECT_EQ(request, mController->mActiveInside);
    EXPECT_EQ(request, mController->mGiven);
}

TEST_F(ServiceControllerTest, StartIsNotYetInForceWhileTheSensorStarts)
{
    class Starter : public WatchingController
    {
    public:
        using WatchingController::WatchingController;

        void MeasureCurrentSensorValue(std::shared_ptr<SensorData> /*request*/) override {}
    };
    Starter controller(mListener);
    const auto request = MakeRequest(3);

    controller.ProcessReqeust(request);

    EXPECT_THAT(controller.mCalls, ElementsAre("StartSensor"));
    EXPECT_FALSE(controller.mStartedInside);
    EXPECT_EQ(nullptr, controller.mActiveInside);
    EXPECT_EQ(request, controller.mGiven);
}

TEST_F(ServiceControllerTest, SecondStartMeasuresAgainAndStartsNothing)
{
    const auto second = MakeRequest(3);
    mController->ProcessReqeust(MakeRequest(3));

    mController->ProcessReqeust(second);

    EXPECT_THAT(mController->mCalls, ElementsAre("StartSensor", "MeasureCurrentSensorValue",
                                                 "MeasureCurrentSensorValue"));
    EXPECT_EQ(second, mController->mActiveRequest);
}

TEST_F(ServiceControllerTest, StopStopsAndSendsTheRequestBack)
{
    mController->ProcessReqeust(MakeRequest(3));
    mController->mCalls.clear();
    const auto request = MakeRequest(4);

    mController->ProcessReqeust(request);

    EXPECT_THAT(mController->mCalls, ElementsAre("StopSensor"));
    EXPECT_TRUE(mController->mStartedInside);
    EXPECT_EQ(request, mController->mGiven);
    EXPECT_FALSE(mController->mStarted);
    EXPECT_EQ(request, mController->mActiveRequest);
    EXPECT_THAT(mListener->mSent, ElementsAre(request));
}

TEST_F(ServiceControllerTest, AcknowledgementIsTheRequestWithTheReplysCode)
{
    const auto request = MakeRequest(4, 2, 9);

    mController->ProcessReqeust(request);

    const auto reply = mListener->TakeOnly<SensorData>();
    ASSERT_NE(nullptr, reply);
    EXPECT_EQ(4, reply->mMessageType);
    EXPECT_EQ(0, reply->mHeaderCode);
    EXPECT_EQ(2, reply->mMessageFlags);
    EXPECT_EQ(9, reply->mCategory);
    EXPECT_EQ(5000, reply->mTimestamp);
    EXPECT_EQ(SensorType(0), reply->GetSensorType());
}

TEST_F(ServiceControllerTest, StopWhileStoppedIsAcknowledgedAndStopsNothing)
{
    mController->ProcessReqeust(MakeRequest(4));

    EXPECT_THAT(mController->mCalls, IsEmpty());
    EXPECT_THAT(mListener->mSent, SizeIs(1));
    EXPECT_FALSE(mController->mStarted);
}

TEST_F(ServiceControllerTest, StopWithoutListenerIsNotAcknowledged)
{
    WatchingController controller(nullptr);
    controller.ProcessReqeust(MakeRequest(3));

    controller.ProcessReqeust(MakeRequest(4));

    EXPECT_FALSE(controller.mStarted);
    EXPECT_THAT(mListener->mSent, IsEmpty());
}

TEST_F(ServiceControllerTest, StartAfterStopStartsAgain)
{
    mController->ProcessReqeust(MakeRequest(3));
    mController->ProcessReqeust(MakeRequest(4));

    mController->ProcessReqeust(MakeRequest(3));

    EXPECT_THAT(mController->mCalls,
                ElementsAre("StartSensor", "MeasureCurrentSensorValue", "StopSensor", "StartSensor",
                            "MeasureCurrentSensorValue"));
    EXPECT_TRUE(mController->mStarted);
}

TEST_F(ServiceControllerTest, MeasureOnceWhileStartedChangesNothingElse)
{
    const auto start = MakeRequest(3);
    mController->ProcessReqeust(start);
    mController->mCalls.clear();

    mController->ProcessReqeust(MakeRequest(2));

    EXPECT_THAT(mController->mCalls, ElementsAre("MeasureCurrentSensorValue"));
    EXPECT_TRUE(mController->mStarted);
    EXPECT_EQ(start, mController->mActiveRequest);
}

TEST_F(ServiceControllerTest, OptionIsAnUnknownCommand)
{
    mController->ProcessReqeust(MakeRequest(3));
    mController->mCalls.clear();

    mController->ProcessReqeust(MakeRequest(5));

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(LogLine{6, "Parvane",
                                    "ServiceController: ProcessReqeust(66) > "
                                    "\033[0;40;31mError Unknown commend\033[0;m"}));
    EXPECT_THAT(mController->mCalls, IsEmpty());
    EXPECT_THAT(mListener->mSent, IsEmpty());
    EXPECT_TRUE(mController->mStarted);
}

TEST_F(ServiceControllerTest, AnyOtherCommandIsUnknown)
{
    for (const int command : {0, 1, 6, -1, 258}) {
        mController->ProcessReqeust(MakeRequest(command));
        EXPECT_THAT(mPlatform.TakeLog(),
                    ElementsAre(ErrorLine("ServiceController: ProcessReqeust(66)",
                                          "Error Unknown commend")));
    }
    EXPECT_THAT(mController->mCalls, IsEmpty());
    EXPECT_EQ(nullptr, mController->mLastRequest);
    EXPECT_EQ(nullptr, mController->mActiveRequest);
}

TEST_F(ServiceControllerTest, NullRequestIsAnErrorThatNamesTheActivitySensor)
{
    mController->ProcessReqeust(nullptr);

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(LogLine{6, "Parvane",
                                    "ServiceController: ProcessReqeust(43) > \033[0;40;31m"
                                    "Activity is requested but the data is NULL point\033[0;m"}));
    EXPECT_THAT(mController->mCalls, IsEmpty());
    EXPECT_THAT(mListener->mSent, IsEmpty());
}

TEST_F(ServiceControllerTest, EndReleasesListenerAndRequests)
{
    auto last = MakeRequest(2);
    auto active = MakeRequest(3);
    const std::weak_ptr<RecordingControlListener> listener = mListener;
    const std::weak_ptr<SensorData> lastRequest = last;
    const std::weak_ptr<SensorData> activeRequest = active;
    auto controller = std::make_unique<BareController>(mListener);
    controller->ProcessReqeust(std::move(last));
    controller->ProcessReqeust(std::move(active));
    mController.reset();
    mListener.reset();
    EXPECT_FALSE(listener.expired() || lastRequest.expired() || activeRequest.expired());

    controller.reset();

    EXPECT_TRUE(listener.expired());
    EXPECT_TRUE(lastRequest.expired());
    EXPECT_TRUE(activeRequest.expired());
}

} // namespace
} // namespace Parvane
