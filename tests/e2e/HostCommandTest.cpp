#include <csignal>
#include <map>

#include "Bridge.h"
#include "Gateway.h"
#include "ServiceFixture.h"

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::EndsWith;
using ::testing::HasSubstr;

namespace {

const std::vector<std::string> kRun = {"0,150,0,0,0,,,,3,", "200,151,5,0,5,,,,3,",
                                       "400,152,10,0,10,,,,3,"};

} // namespace

/** The phone's command against the real service. */
class HostCommandTest : public ServiceFixture
{
protected:
    std::unique_ptr<Process> StartHost(const std::vector<std::string> &arguments) const
    {
        std::vector<std::string> command = {PARVANE_HOST_PROGRAM, "--socket",
                                            PhoneSocket(LinkPath())};
        Environment environment = BaseEnvironment();
        if (const Gateway *gateway = Gateway::Of(mRunDirectory)) {
            command = {PARVANE_HOST_PROGRAM, "--link", gateway->Target().mAddress};
            environment["PARVANE_TOKEN"] = gateway->Target().mToken;
            environment["PARVANE_FINGERPRINT"] = gateway->Target().mFingerprint;
        }
        command.insert(command.end(), arguments.begin(), arguments.end());
        environment["XDG_STATE_HOME"] = mFolder.Path() / "phone";
        return std::make_unique<Process>(command, environment, mFolder.Path());
    }

    std::unique_ptr<Process> RunHost(const std::vector<std::string> &arguments, int status) const
    {
        auto host = StartHost(arguments);
        EXPECT_EQ(host->WaitForEnd(std::chrono::seconds(40)), status) << host->StandardError();
        return host;
    }

    void StartServiceOnRun()
    {
        StartService({{"PARVANE_TRACE", WriteRecording(kRun)}});
        ASSERT_TRUE(mService->HasLogged("app_service"));
    }
};

TEST_F(HostCommandTest, ListNamesTheSensorsAndTheAddress)
{
    StartServiceOnRun();

    const std::string text = RunHost({"list"}, 0)->StandardOutput();

    EXPECT_THAT(text, HasSubstr("AA:BB:CC:DD:EE:0F"));
    for (const char *sensor : {"activity", "steps", "hr", "wear"}) {
        EXPECT_THAT(text, HasSubstr(sensor));
    }
}

TEST_F(HostCommandTest, WornStateStepsAndActivityAreMeasured)
{
    StartServiceOnRun();

    EXPECT_THAT(RunHost({"--json", "measure", "wear"}, 0)->StandardOutput(),
                AllOf(HasSubstr("\"worn\":true"), EndsWith("}\n")));
    EXPECT_THAT(RunHost({"--json", "measure", "steps"}, 0)->StandardOutput(),
                ContainsRegex("\"sensor\":\"steps\".*\"value\":[0-9]+"));
    EXPECT_THAT(RunHost({"--json", "measure", "activity"}, 0)->StandardOutput(),
                ContainsRegex("\"sensor\":\"activity\".*\"value\":0"));
}

TEST_F(HostCommandTest, StepsAreExactAsLongAsTheServiceRuns)
{
    const Environment walk = {{"PARVANE_TRACE", WriteRecording(kRun)}, {"PARVANE_LOOP", "0"}};
    StartService(walk);
    ASSERT_TRUE(mService->HasLogged("app_service"));
    for (int link = 0; link < 2; ++link) {
        EXPECT_THAT(RunHost({"measure", "steps"}, 0)->StandardOutput(),
                    ContainsRegex("^steps: [0-9,]+ since [0-9:]+, exact\n$"));
    }
    ASSERT_EQ(StopService(), 0);
    StartService(walk);
    ASSERT_TRUE(mService->HasLogged("app_service"));

    EXPECT_THAT(RunHost({"measure", "steps"}, 0)->StandardOutput(),
                ContainsRegex("^steps: at least [0-9,]+ today\n$"));
    EXPECT_THAT(RunHost({"today"}, 0)->StandardOutput(),
                ContainsRegex("^[0-9-]+: at least [0-9,]+ steps?, as of [0-9:]+\n$"));
}

TEST_F(HostCommandTest, HeartRateIsMeasuredWhileStepsArePushed)
{
    StartServiceOnRun();
    RunHost({"measure", "steps"}, 0);

    EXPECT_THAT(RunHost({"measure", "hr"}, 0)->StandardOutput(), ContainsRegex("15[012] bpm"));
}

TEST_F(HostCommandTest, WatchFollowsTheActivityAndStopsItAtTheEnd)
{
    StartServiceOnRun();
    const auto watch = StartHost({"watch", "activity"});
    ASSERT_TRUE(
        Eventually([&] { return watch->StandardOutput().find("running") != std::string::npos; }));

    watch->Signal(SIGINT);

    EXPECT_EQ(watch->WaitForEnd(), 0);
    // Nothing follows a stop: the service has ended the subscription.
    const Host host(LinkPath());
    EXPECT_EQ(host.Receive(std::chrono::milliseconds(700)), std::nullopt);
}

TEST_F(HostCommandTest, WatchOutlivesTheService)
{
    StartServiceOnRun();
    const auto watch = StartHost({"watch", "activity"});
    ASSERT_TRUE(
        Eventually([&] { return watch->StandardOutput().find("running") != std::string::npos; }));
    ASSERT_EQ(StopService(), 0);
    const std::size_t before = watch->StandardOutput().size();

    StartServiceOnRun();

    EXPECT_TRUE(Eventually(
        [&] { return watch->StandardOutput().find("running", before) != std::string::npos; }));
    watch->Signal(SIGTERM);
    EXPECT_EQ(watch->WaitForEnd(), 0);
}

TEST_F(HostCommandTest, SecondHostIsToldThatTheLinkIsTaken)
{
    StartServiceOnRun();
    const Host first(LinkPath());
    ASSERT_EQ(first.Ask({0x04, 0x00, 0x00, 0x01}, 1).size(), 1U);

    EXPECT_THAT(RunHost({"list"}, 3)->StandardError(),
                ContainsRegex("another (host|phone) is connected"));
}
