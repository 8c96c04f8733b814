#pragma once

#include <functional>
#include <string>
#include <vector>

#include <platform/service_app.h>

#include "ParvaneController.h"
#include "ScriptedPlatform.h"

/** The main() of ParvaneMain.cpp. */
extern "C" int ParvaneMain(int argc, char **argv);

namespace Parvane {

/**
 * The running service as a scenario leads it: every event that the platform can deliver.
 *
 * An event that the platform cannot deliver now is left out: nothing comes once the service has
 * asked for its end, no reading without a subscription and no packet without a registration. So the
 * same scenario can be lived through whatever fails.
 */
class ServiceLife
{
public:
    static constexpr int kAgent = 5;
    static constexpr int kConnection = 7;
    static constexpr int kActivityItem = 23;
    static constexpr int kGestureItem = 1;
    static constexpr int kHeartRateItem = 7;
    static constexpr int kPedometerItem = 2;

    ServiceLife(ScriptedPlatform &platform, const service_app_callbacks &callbacks, void *cell);

    ScriptedPlatform &Platform() { return mPlatform; }
    ParvaneController &Controller();
    bool HasEnded() const { return mPlatform.ExitRequests() != 0; }

    // The framework.

    void Create();
    void Launch();
    void RunLowOnMemory();
    void RunLowOnBattery();

    // The accessory link.

    void ChangeLinkStatus(int value);

    /** The registration is confirmed; without the link-status key the service has to say so. */
    void Confirm(int result = 0);
    void ConnectHost(int connectionId = kConnection);
    void ConfirmConnection(int connectionId, int result);
    void ReportPeer(int status);
    void EndHostService();

    /** The link is there, the registration is confirmed, the host has connected. */
    void BringUpLink();
    void Ask(const Bytes &request);

    // Sensors and time.

    void Read(int item, const ContextValues &values);
    void ReadHeartRate(int heartRate);
    void ReadActivity(int status);
    void ReadGesture(int action);
    void ReadSteps(double total);

    /** A callback of the subscription that reports an error and has no data. */
    void FailReading(int item);

    /** Answers every open question for steps. */
    void AnswerSteps(double total);
    void Wait(int64_t milliseconds);

private:
    ScriptedPlatform &mPlatform;
    service_app_callbacks mCallbacks;
    void *mCell;
};

/** What happens to the service between its start and, unless it has asked for it, its end. */
struct Scenario
{
    const char *mName;

    /** What the platform has before the service starts; may be empty. */
    std::function<void(ScriptedPlatform &)> mPrepare;
    std::function<void(ServiceLife &)> mLive;
};

/** Shows a scenario in the name of a test. */
void PrintTo(const Scenario &scenario, std::ostream *stream);

const std::vector<Scenario> &Scenarios();

/** What disturbs one life, and what is to be seen of it afterwards. Every part may be empty. */
struct Disturbance
{
    /** Before the service starts. */
    std::function<void(ScriptedPlatform &)> mBegin;

    /** When the main loop begins, before the framework creates the service. */
    std::function<void(ServiceLife &)> mStart;

    /** When the scenario is over; from here on the platform is sound. */
    std::function<void(ServiceLife &)> mEnd;

    /** When the service is to serve again, before its replies are looked at. */
    std::function<void(ServiceLife &)> mRepair;
};

/** What a life has left behind. */
struct LifeRecord
{
    bool mWasRun = false;            // the framework has run the main loop
    bool mHasEnded = false;          // the service asked for its end
    std::vector<std::string> mCalls; // of the scenario alone, as the next three
    std::vector<Bytes> mSent;
    int mHookableCalls = 0;
    int mAllocations = 0;
    std::vector<Bytes> mList; // what a wish for the sensors gets right after it, nothing cured yet
    int mExitRequests = 0;    // of everything, as the rest
    std::vector<FailedCall> mFailedCalls;
    std::vector<LogLine> mLog;
    std::vector<std::string> mReplies; // to the healthy requests after it
};

/**
 * One life of the service: start, scenario, the same healthy requests at the end, terminate.
 *
 * Fails the test if the program's exit status is not 0 or a line of its log is malformed. To be
 * called once in a process, whose singletons and handlers it leaves used.
 */
LifeRecord Live(const Scenario &scenario, const Disturbance &disturbance);

} // namespace Parvane
