#include <algorithm>
#include <csignal>

#include "Requests.h"
#include "ServiceFixture.h"

using Parvane::Request::kMeasureSteps;

namespace {

// The recording counts ten steps every 100 ms; the first reading is the baseline.
const std::vector<std::string> kWalk = {"0,,0,0,0,,,,,",     "100,,10,10,0,,,,,",
                                        "200,,20,20,0,,,,,", "300,,30,30,0,,,,,",
                                        "400,,40,40,0,,,,,", "500,,50,50,0,,,,,"};

} // namespace

/** Steps: opted in for good, pushed, summed and kept. */
class StepsTest : public ServiceFixture
{
protected:
    /** Receives pushes until one counts more than `steps`; its value. */
    static float ReceiveMoreThan(const Host &host, float steps)
    {
        float value = -1.0F;
        while (value <= steps) {
            const auto packet = host.Receive();
            if (!packet) {
                return -1.0F;
            }
            value = ValueOf(*packet);
        }
        return value;
    }
};

TEST_F(StepsTest, FirstRequestOptsInAndEveryUpdateIsPushed)
{
    StartService({{"PARVANE_TRACE", WriteRecording(kWalk)}});
    const Host host(LinkPath());

    host.Send(kMeasureSteps);

    const auto first = host.Receive();
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(Bytes(first->begin(), first->begin() + 5), (Bytes{0x02, 0x00, 0x0E, 0x02, 0x11}));
    EXPECT_GT(ReceiveMoreThan(host, 100.0F), 100.0F);
}

TEST_F(StepsTest, TotalAndOptInSurviveARestart)
{
    const std::string recording = WriteRecording(kWalk);
    StartService({{"PARVANE_TRACE", recording}});
    {
        const Host host(LinkPath());
        host.Send(kMeasureSteps);
        ASSERT_GT(ReceiveMoreThan(host, 200.0F), 200.0F);
    }
    ASSERT_EQ(StopService(), 0);

    StartService({{"PARVANE_TRACE", recording}});
    const Host host(LinkPath());
    const auto push = host.Receive(); // nobody has asked this time

    ASSERT_TRUE(push.has_value());
    EXPECT_EQ(push->front(), 0x02);
    EXPECT_GT(ValueOf(*push), 200.0F);
}

TEST_F(StepsTest, WhatTheHostHasSeenSurvivesAKill)
{
    const std::string recording = WriteRecording(kWalk);
    StartService({{"PARVANE_TRACE", recording}});
    float seen = 0.0F;
    {
        const Host host(LinkPath());
        host.Send(kMeasureSteps);
        seen = ReceiveMoreThan(host, 100.0F);
    }
    mService->Signal(SIGKILL);
    ASSERT_EQ(mService->WaitForEnd(), -SIGKILL);

    StartService({{"PARVANE_TRACE", recording}});
    const Host host(LinkPath());
    const auto push = host.Receive();

    ASSERT_TRUE(push.has_value());
    EXPECT_GE(ValueOf(*push), seen);
}

TEST_F(StepsTest, SecondRequestIsAnsweredWithoutTheDelay)
{
    StartService({{"PARVANE_TRACE", WriteRecording({"0,,7,7,0,,,,,", "600000,,8,8,0,,,,,"})}});
    const Host host(LinkPath());
    ASSERT_EQ(host.Ask(kMeasureSteps, 1).size(), 1U);
    // A busy machine may hold one of them up, but not each.
    const auto quick = [&host](uint8_t id) {
        const auto begin = std::chrono::steady_clock::now();
        const auto answers = host.Ask({id, 0x00, 0x00, 0x02}, 1);
        EXPECT_EQ(answers.at(0).front(), id);
        return std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(400);
    };
    const std::vector<uint8_t> ids = {0x32, 0x42, 0x52, 0x62, 0x72};
    EXPECT_TRUE(std::any_of(ids.begin(), ids.end(), quick));
}
