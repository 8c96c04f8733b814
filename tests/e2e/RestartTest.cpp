#include <csignal>

#include "Requests.h"
#include "ServiceFixture.h"

using Parvane::Request::kMeasureSteps;
using Parvane::Request::kStopActivity;

namespace {

// Ten steps every 100 ms; the first reading is the baseline.
const std::vector<std::string> kWalk = {"0,,0,0,0,,,,,",     "100,,10,10,0,,,,,",
                                        "200,,20,20,0,,,,,", "300,,30,30,0,,,,,",
                                        "400,,40,40,0,,,,,", "500,,50,50,0,,,,,"};

constexpr const char *kAlreadyRunning = "APP_ERROR_ALREADY_RUNNING";

} // namespace

/** What a service manager does to the service: ends it, kills it, and starts it again at once. */
class RestartTest : public ServiceFixture
{
protected:
    RestartTest() : mRecording(WriteRecording(kWalk)) {}

    void Start() { StartService({{"PARVANE_TRACE", mRecording}}); }

    /** Opts in to steps and receives pushes until some are counted; the last total. */
    float CountSteps() const
    {
        const Host host(LinkPath());
        host.Send(kMeasureSteps);
        float total = -1.0F;
        for (int pushes = 0; pushes < 8; ++pushes) {
            const auto packet = host.Receive();
            if (!packet) {
                return -1.0F;
            }
            total = ValueOf(*packet);
        }
        return total;
    }

    /** The total that the service pushes without being asked. */
    float PushedTotal() const
    {
        const Host host(LinkPath());
        const auto packet = host.Receive();
        return packet ? ValueOf(*packet) : -1.0F;
    }

    bool Answers() const { return Host(LinkPath()).Ask(kStopActivity, 1).size() == 1; }

    std::string mRecording;
};

TEST_F(RestartTest, OrderlyEndAndStartLoseNoTotalAndLeaveNoSocket)
{
    Start();
    float total = 0.0F;
    for (int round = 0; round < 3; ++round) {
        const float counted = CountSteps();
        EXPECT_GT(counted, total);
        total = counted;

        ASSERT_EQ(StopService(), 0);
        EXPECT_FALSE(std::filesystem::exists(LinkPath()));
        Start();

        EXPECT_GE(PushedTotal(), total);
    }
}

TEST_F(RestartTest, KillAndStartLeaveNoSocketThatHindersTheNext)
{
    Start();
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(Answers());
        mService->Signal(SIGKILL);
        ASSERT_EQ(mService->WaitForEnd(), -SIGKILL);
        EXPECT_TRUE(std::filesystem::exists(LinkPath())); // nobody was left to remove it

        Start();
        ASSERT_TRUE(mService->HasLogged("app_create"));
    }
    EXPECT_TRUE(Answers());
}

TEST_F(RestartTest, KillAndStartKeepTheTotalThatWasCountedBefore)
{
    Start();
    ASSERT_GT(CountSteps(), 0.0F);
    ASSERT_EQ(StopService(), 0); // what was counted so far is on the disk, whatever comes
    Start();
    const float kept = PushedTotal();
    ASSERT_GT(kept, 0.0F);

    mService->Signal(SIGKILL);
    ASSERT_EQ(mService->WaitForEnd(), -SIGKILL);
    Start();

    EXPECT_GE(PushedTotal(), kept);
}

TEST_F(RestartTest, OneOfTwoThatStartAtOnceServesAndTheOtherGoes)
{
    for (int round = 0; round < 5; ++round) {
        Process first({PARVANE_PROGRAM}, BaseEnvironment(), mFolder.Path());
        Process second({PARVANE_PROGRAM}, BaseEnvironment(), mFolder.Path());
        const auto isRefused = [](const Process &process) {
            return process.StandardError().find(kAlreadyRunning) != std::string::npos;
        };
        ASSERT_TRUE(Eventually([&] { return isRefused(first) || isRefused(second); }));

        Process &loser = isRefused(first) ? first : second;
        Process &winner = isRefused(first) ? second : first;
        EXPECT_EQ(loser.WaitForEnd(), 0);
        EXPECT_TRUE(Answers());
        EXPECT_FALSE(isRefused(winner));
        winner.Signal(SIGTERM);
        EXPECT_EQ(winner.WaitForEnd(), 0);
        EXPECT_FALSE(std::filesystem::exists(LinkPath()));
    }
}

TEST_F(RestartTest, StartDuringTheEndOfTheOneBeforeNeverMakesTwo)
{
    Start();
    ASSERT_TRUE(Answers());

    mService->Signal(SIGTERM);
    Process next({PARVANE_PROGRAM}, BaseEnvironment(), mFolder.Path());

    EXPECT_EQ(mService->WaitForEnd(), 0);
    // Whether the lock was free in time is chance: it serves, or it goes and says why.
    ASSERT_TRUE(Eventually([&] {
        const std::string log = next.StandardError();
        return log.find("app_create") != std::string::npos ||
               log.find(kAlreadyRunning) != std::string::npos;
    }));
    if (next.StandardError().find(kAlreadyRunning) == std::string::npos) {
        EXPECT_TRUE(Answers());
    } else {
        EXPECT_EQ(next.WaitForEnd(), 0);
        EXPECT_FALSE(std::filesystem::exists(LinkPath()));
    }
}
