#include "ServiceFixture.h"

using ::testing::ElementsAre;

namespace {

const Bytes kListRequest = {0x01, 0x00, 0x00, 0x00};
const Bytes kStopRequest = {0x04, 0x00, 0x00, 0x01};
const Bytes kStopReply = {0x04, 0x02, 0x00, 0x01};

} // namespace

/** Hosts that come, go, push in and stop reading. */
class LinkTest : public ServiceFixture
{};

TEST_F(LinkTest, RequestThatIsSentBeforeTheServiceIsReadyIsAnswered)
{
    StartService();
    const Host host(LinkPath()); // connects at the first moment at which there is a socket

    EXPECT_THAT(host.Ask(kStopRequest, 1), ElementsAre(kStopReply));
}

TEST_F(LinkTest, HostCanGoAndComeBackAgainAndAgain)
{
    StartService();
    for (int visit = 0; visit < 50; ++visit) {
        const Host host(LinkPath());
        ASSERT_THAT(host.Ask(kStopRequest, 1), ElementsAre(kStopReply)) << visit;
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
    ASSERT_THAT(first.Ask(kStopRequest, 1), ElementsAre(kStopReply));

    const Host second(LinkPath());

    EXPECT_TRUE(second.IsClosed());
    EXPECT_THAT(first.Ask(kStopRequest, 1), ElementsAre(kStopReply));
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

    EXPECT_THAT(host.Ask(kStopRequest, 1), ElementsAre(kStopReply));
    EXPECT_EQ(host.Ask({0x03, 0x00, 0x00, 0x01, 0x00}, 4).size(), 4U);
}

TEST_F(LinkTest, HostThatDoesNotReadHoldsNothingUp)
{
    StartService();
    const Host host(LinkPath());
    // Far more answers than the link's queue takes.
    for (int request = 0; request < 2000; ++request) {
        ASSERT_TRUE(Eventually([&] { return host.TrySend(kListRequest); }));
    }
    ASSERT_TRUE(mService->HasLogged("Buffer full"));
    while (host.Receive(std::chrono::milliseconds(300))) {
    }

    EXPECT_THAT(host.Ask(kStopRequest, 1), ElementsAre(kStopReply));
}

TEST_F(LinkTest, LinkStatusKeyTakesTheLinkDownAndTheNextHostBringsItUp)
{
    StartService();
    const std::filesystem::path key = mRunDirectory / "memory/private/tal/conn_status";
    const Host host(LinkPath());
    ASSERT_THAT(host.Ask(kStopRequest, 1), ElementsAre(kStopReply));
    ASSERT_EQ(ReadFile(key).substr(0, 1), "1");

    WriteFile(key, "0");

    EXPECT_TRUE(host.IsClosed());
    const Host next(LinkPath());
    EXPECT_THAT(next.Ask(kStopRequest, 1), ElementsAre(kStopReply));
    EXPECT_EQ(ReadFile(key).substr(0, 1), "1");
}
