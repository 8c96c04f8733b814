#include "Requests.h"
#include "ServiceFixture.h"

using Parvane::Request::kActivityStopped;
using Parvane::Request::kListSensors;
using Parvane::Request::kStopActivity;
using ::testing::ElementsAre;

/** Hosts that come, go, push in and stop reading. */
class LinkTest : public ServiceFixture
{};

TEST_F(LinkTest, RequestThatIsSentBeforeTheServiceIsReadyIsAnswered)
{
    StartService();
    const Host host(LinkPath()); // connects at the first moment at which there is a socket

    EXPECT_THAT(host.Ask(kStopActivity, 1), ElementsAre(kActivityStopped));
}

TEST_F(LinkTest, HostCanGoAndComeBackAgainAndAgain)
{
    StartService();
    for (int visit = 0; visit < 50; ++visit) {
        const Host host(LinkPath());
        ASSERT_THAT(host.Ask(kStopActivity, 1), ElementsAre(kActivityStopped)) << visit;
    }
    EXPECT_EQ(StopService(), 0);
}

TEST_F(LinkTest, RequestsOfAHostThatLeavesAtOnceAreServed)
{
    StartService({{"PARVANE_TRACE", WriteRecording({"0,,7,7,0,,,,,", "100,,8,8,0,,,,,"})}});
    {
        const Host host(LinkPath());
        host.Send({0x02, 0x00, 0x00, 0x02}); // opts in to steps
    }
    const Host next(LinkPath());

    EXPECT_TRUE(next.Receive().has_value());
}

TEST_F(LinkTest, SecondHostIsClosedAndTheFirstNoticesNothing)
{
    StartService();
    const Host first(LinkPath());
    ASSERT_THAT(first.Ask(kStopActivity, 1), ElementsAre(kActivityStopped));

    const Host second(LinkPath());

    EXPECT_TRUE(second.IsClosed());
    EXPECT_THAT(first.Ask(kStopActivity, 1), ElementsAre(kActivityStopped));
}

TEST_F(LinkTest, HostsThatAreRefusedAgainAndAgainAreOneLineOfTheLog)
{
    StartService();
    const Host first(LinkPath());
    ASSERT_THAT(first.Ask(kStopActivity, 1), ElementsAre(kActivityStopped));
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(Host(LinkPath()).IsClosed());
    }
    EXPECT_EQ(StopService(), 0);

    const std::string log = mService->StandardError();
    const std::size_t line = log.find("platform: accessory link: a second host is refused\n");
    ASSERT_NE(line, std::string::npos);
    EXPECT_EQ(log.find("refused", line + 50), std::string::npos);
}

TEST_F(LinkTest, ActivityStaysStartedOverALinkDropUntilStopped)
{
    StartService({{"PARVANE_TRACE", WriteRecording({"0,,,,,,,,2,", "100,,,,,,,,3,"})}});
    {
        const Host host(LinkPath());
        ASSERT_EQ(host.Ask({0x03, 0x00, 0x00, 0x01, 0x00}, 3).size(), 3U);
    }
    const Host host(LinkPath());
    // Started in name only: the sensor went with the link, so a start brings its one answer.
    ASSERT_EQ(host.Ask({0x03, 0x00, 0x00, 0x01, 0x00}, 1).size(), 1U);
    ASSERT_EQ(host.Receive(std::chrono::milliseconds(500)), std::nullopt);

    EXPECT_THAT(host.Ask(kStopActivity, 1), ElementsAre(kActivityStopped));
    EXPECT_EQ(host.Ask({0x03, 0x00, 0x00, 0x01, 0x00}, 4).size(), 4U);
}

TEST_F(LinkTest, HostThatDoesNotReadHoldsNothingUp)
{
    StartService();
    const Host host(LinkPath());
    // Far more answers than the link's queue takes.
    for (int request = 0; request < 2000; ++request) {
        ASSERT_TRUE(Eventually([&] { return host.TrySend(kListSensors); }));
    }
    ASSERT_TRUE(mService->HasLogged("Buffer full"));
    while (host.Receive(std::chrono::milliseconds(300))) {
    }

    EXPECT_THAT(host.Ask(kStopActivity, 1), ElementsAre(kActivityStopped));
}

TEST_F(LinkTest, LinkStatusKeyTakesTheLinkDownAndTheNextHostBringsItUp)
{
    StartService();
    const std::filesystem::path key = mRunDirectory / "memory/private/tal/conn_status";
    const Host host(LinkPath());
    ASSERT_THAT(host.Ask(kStopActivity, 1), ElementsAre(kActivityStopped));
    ASSERT_EQ(ReadFile(key).substr(0, 1), "1");

    WriteFile(key, "0");

    EXPECT_TRUE(host.IsClosed());
    const Host next(LinkPath());
    EXPECT_THAT(next.Ask(kStopActivity, 1), ElementsAre(kActivityStopped));
    EXPECT_EQ(ReadFile(key).substr(0, 1), "1");
}
