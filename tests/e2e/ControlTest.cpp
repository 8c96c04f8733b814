#include <algorithm>
#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "PseudoTerminal.h"
#include "Requests.h"
#include "ServiceFixture.h"

using nlohmann::json;
using Parvane::Request::kActivityStopped;
using Parvane::Request::kMeasureHeartRate;
using Parvane::Request::kStartActivity;
using Parvane::Request::kStopActivity;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

namespace {

/** How a run of the command ended, and what it said. */
struct Said
{
    int mStatus = -1;
    std::string mOutput;
    std::string mError;
};

/** Connects to a socket as another user and reads; what happens, as an exit status. */
int ConnectAsNobody(const std::string &path)
{
    constexpr uid_t kNobody = 65534;
    constexpr int kConnected = 1;
    constexpr int kClosed = 2;
    const pid_t child = fork();
    if (child == 0) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        if (setuid(kNobody) != 0 ||
            connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
            _exit(0);
        }
        char byte = 0;
        _exit(recv(fd, &byte, 1, 0) > 0 ? kConnected : kClosed);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

/** What parvane-watch shows of a running service, and does to it. */
class ControlTest : public ServiceFixture
{
protected:
    std::filesystem::path ControlPath() const { return mRunDirectory / "control.sock"; }

    /** Starts the service, and waits for it to serve. */
    void StartAndWait(const Environment &more = {})
    {
        StartService(more);
        ASSERT_TRUE(mService->HasLogged("app_service"));
    }

    Said Watch(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), PARVANE_WATCH_PROGRAM);
        Process watch(arguments, BaseEnvironment(), mFolder.Path());
        const int status = watch.WaitForEnd().value_or(-1);
        return {status, watch.StandardOutput(), watch.StandardError()};
    }

    json Status() const
    {
        const Said said = Watch({"status", "--json"});
        EXPECT_EQ(said.mStatus, 0) << said.mError;
        return json::parse(said.mOutput, nullptr, false);
    }

    json Item(const std::string &name) const
    {
        const json status = Status();
        for (const json &item : status.at("items")) {
            if (item.at("item") == name) {
                return item;
            }
        }
        ADD_FAILURE() << name;
        return {};
    }

    /** The line of the human status that begins with `label`. */
    std::string StatusLine(const std::string &label) const
    {
        const std::string output = "\n" + Watch({"status"}).mOutput;
        const auto begin = output.find("\n" + label);
        return begin == std::string::npos
                   ? ""
                   : output.substr(begin + 1, output.find('\n', begin + 1) - begin - 1);
    }
};

TEST_F(ControlTest, StatusSaysWhatKeepsTheHeartRateSensorOnAndSinceWhen)
{
    StartAndWait({{"PARVANE_TRACE", WriteRecording({"0,70,,,,,,,,", "100,72,,,,,,,,"})}});
    EXPECT_EQ(StatusLine("heart rate"), "heart rate  off, source replay, no readings");
    const Host host(LinkPath());
    host.Send(kMeasureHeartRate);
    ASSERT_TRUE(Eventually([this] { return Item("heart_rate").at("delivered") > 0; }));

    EXPECT_THAT(StatusLine("heart rate"),
                MatchesRegex("heart rate  on since [0-9:]+ \\([0-9]+ s\\) by request 1, source "
                             "replay, last 7[02] /min 0\\.[0-9] s ago, [0-9]+ readings?"));
    const json status = Status();
    EXPECT_EQ(status.at("items").at(2).at("subscription").at("request_id"), 1);
    EXPECT_EQ(status.at("power_locks").size(), 1U);
    EXPECT_EQ(status.at("host").at("pid"), getpid());
    EXPECT_EQ(status.at("host").at("user"), geteuid());
    EXPECT_EQ(status.at("link").at("packets_in"), 1);
    EXPECT_EQ(status.at("link").at("bytes_in"), 4);
    EXPECT_EQ(status.at("service").at("pid"), mService->Pid());
    EXPECT_EQ(status.at("directories").at("state"), mStateDirectory.string());
    EXPECT_THAT(status.at("time").get<std::string>(),
                MatchesRegex("[0-9]+-[0-9]+-[0-9]+T[0-9]+:[0-9]+:[0-9]+\\.[0-9]+Z"));
}

TEST_F(ControlTest, ARecordingIsPausedJumpedInAndExchangedWhileItPlays)
{
    const std::string recording = WriteRecording({"0,70,500,,,,,,,", "600000,71,900,,,,,,,"});
    StartAndWait({{"PARVANE_TRACE", recording}});
    std::filesystem::copy_file(PARVANE_RECORDING, mFolder.Path() / "other.csv");
    const auto values = [this](const char *item) {
        return Item(item).value("/last_reading/values"_json_pointer, json());
    };
    const std::string made = mFolder.Path() / "made.csv";
    Process recorder({PARVANE_WATCH_PROGRAM, "record", "--on", "hr,steps", made}, BaseEnvironment(),
                     mFolder.Path());
    ASSERT_TRUE(Eventually([&] { return Item("pedometer").at("kept_by").size() == 1; }));

    EXPECT_THAT(Watch({"replay", "pause"}).mOutput,
                HasSubstr(" of 1200 s, speed 1, over and over, paused\n"));
    EXPECT_THAT(Watch({"replay", "seek", "600"}).mOutput, HasSubstr(".csv at 600 s of"));
    EXPECT_NE(values("heart_rate"), json({{"hrm/heart_rate", 71}})); // which is due, and waits
    Watch({"replay", "resume"});
    EXPECT_TRUE(Eventually([&] { return values("heart_rate") == json({{"hrm/heart_rate", 71}}); }));
    Watch({"replay", "seek", "0"});
    EXPECT_TRUE(Eventually([&] {
        return values("pedometer") == json({{"pedometer/total_steps", 500.0}});
    })) << values("pedometer");
    const std::string restart = ",500" + std::string(11, ',') + "1\n";
    EXPECT_TRUE(Eventually([&] { return ReadFile(made).find(restart) != std::string::npos; }))
        << ReadFile(made);

    EXPECT_THAT(Watch({"replay", "list"}).mOutput, HasSubstr("/other.csv\n"));
    EXPECT_THAT(Watch({"replay", "open", "other.csv"}).mOutput, HasSubstr("other.csv at 0 s of"));
    const Said unknown = Watch({"replay", "open", "/etc/passwd"});
    EXPECT_EQ(unknown.mStatus, 1);
    EXPECT_THAT(unknown.mError, HasSubstr("there is no such recording"));
    EXPECT_THAT(StatusLine("replay"), HasSubstr("other.csv at "));
}

TEST_F(ControlTest, ItemsThatCannotHaveReadingsSayWhy)
{
    const std::filesystem::path file = mFolder.Path() / "platform.conf";
    WriteFile(file, "[sensors]\nheart_rate=ble\ngesture=manual\n");
    StartAndWait({{"PARVANE_PLATFORM_CONF", file.string()},
                  {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + (mFolder.Path() / "none").string()}});

    const std::string log = mService->StandardError();
    EXPECT_THAT(log, HasSubstr(" W platform: pedometer: no source configured\n"));
    EXPECT_THAT(log, HasSubstr(" W platform: activity: no source configured\n"));
    EXPECT_THAT(log, HasSubstr(" W platform: heart rate: source ble has no system bus\n"));
    EXPECT_THAT(log, ::testing::Not(HasSubstr("platform: gesture: ")));
    EXPECT_EQ(StatusLine("pedometer"), "pedometer   off, no source configured, no readings");
    EXPECT_EQ(StatusLine("heart rate"),
              "heart rate  off, source ble has no system bus, no readings");
    EXPECT_EQ(Item("activity").at("problem"), "no source configured");
    EXPECT_EQ(Item("gesture").at("problem"), nullptr);
}

TEST_F(ControlTest, StatusShowsThePreferencesOfTheService)
{
    StartAndWait({{"PARVANE_TRACE", WriteRecording({"0,,7,7,0,,,,,", "100,,8,8,0,,,,,"})}});
    const Host host(LinkPath());
    host.Send({0x02, 0x00, 0x00, 0x02}); // opts in to steps
    ASSERT_TRUE(host.Receive().has_value());

    EXPECT_EQ(Status().at("preferences").at("Parvane/data/pedometer/requested"), true);
}

TEST_F(ControlTest, ARecordingTurnsItsItemsOnUntilItIsKilled)
{
    StartAndWait({{"PARVANE_TRACE", WriteRecording({"0,70,,,,,,,,", "100,72,,,,,,,,"})}});
    const std::string file = mFolder.Path() / "made.csv";
    Process recorder({PARVANE_WATCH_PROGRAM, "record", "--on", "hr", file}, BaseEnvironment(),
                     mFolder.Path());
    ASSERT_TRUE(recorder.HasLogged("parvane-watch: on while this records: heart rate\n"));
    ASSERT_TRUE(Eventually([&] { return ReadFile(file).find(",72,") != std::string::npos; }));
    EXPECT_THAT(
        StatusLine("heart rate"),
        MatchesRegex("heart rate  on since [0-9:]+ \\([0-9]+ s\\) by process [0-9]+, which "
                     "records, source replay, last 7[02] /min 0\\.[0-9] s ago, no readings"));

    recorder.Signal(SIGKILL);
    ASSERT_EQ(recorder.WaitForEnd(), -SIGKILL);
    EXPECT_TRUE(Eventually([this] { return Item("heart_rate").at("kept_by").empty(); }));
    EXPECT_THAT(Watch({"record", "--on", "steps", file + ".2"}).mError,
                HasSubstr("pedometer cannot be turned on: the recording has no reading of it"));
}

TEST_F(ControlTest, WhoObservesIsToldWhatHappensAndBringsNoLogLine)
{
    StartAndWait({{"PARVANE_TRACE", WriteRecording({"0,70,,,,,,,,", "100,72,,,,,,,,"})}});
    const std::string log = mService->StandardError();
    const Host observer(ControlPath());
    const std::string request = R"({"request":"observe"})";
    const auto next = [&observer] {
        const Bytes message = observer.Receive().value_or(Bytes{'0'});
        return json::parse(message.begin(), message.end());
    };
    observer.Send({request.begin(), request.end()});
    EXPECT_EQ(next().at("status").at("host"), nullptr);
    EXPECT_EQ(mService->StandardError(), log);

    const Host host(LinkPath());
    host.Send(kMeasureHeartRate);
    bool isOn = false;
    bool isKept = false;
    json event = next();
    for (; event.value("event", "") != "reading"; event = next()) {
        ASSERT_TRUE(event.contains("event")) << event;
        isOn =
            isOn || (event.at("event") == "item" && event.at("item").at("item") == "heart_rate" &&
                     event.at("item").at("subscription").is_object());
        isKept = isKept || (event.at("event") == "power_locks" && !event.at("power_locks").empty());
    }
    EXPECT_TRUE(isOn) << "before its first reading";
    EXPECT_TRUE(isKept);
    EXPECT_EQ(event.at("item"), "heart_rate");

    ASSERT_EQ(Watch({"link", "down"}).mStatus, 0);
    while (event.at("event") != "link" || event.at("link").at("state") != "down") {
        event = next();
        ASSERT_TRUE(event.contains("event")) << event;
    }
    EXPECT_TRUE(event.at("link").at("set_by").is_number());
    ASSERT_EQ(StopService(), 0);
    for (event = next(); event.contains("event"); event = next()) {
    }
    EXPECT_EQ(event, json({{"end", "service-ended"}}));
}

TEST_F(ControlTest, WhatCrossesTheLinkIsCapturedFromWithin)
{
    StartAndWait();
    const std::string file = mFolder.Path() / "link.pcapng";
    Process capture({PARVANE_WATCH_PROGRAM, "capture", "--until-quiet", "1", file},
                    BaseEnvironment(), mFolder.Path());
    ASSERT_TRUE(Eventually([&file] { return std::filesystem::exists(file); }));
    const std::string log = mService->StandardError();

    const Host host(LinkPath());
    const Bytes acknowledged = host.Ask(kStopActivity, 1).front();
    ASSERT_EQ(capture.WaitForEnd(), 0) << capture.StandardError();
    EXPECT_EQ(mService->StandardError().find("control", log.size()), std::string::npos);

    const std::string content = ReadFile(file);
    const auto at = [&content](const Bytes &packet, char direction) {
        return content.find(std::string(packet.begin(), packet.end()) + std::string("\2\0\4\0", 4) +
                            direction);
    };
    const std::size_t request =
        content.find(std::string(kStopActivity.begin(), kStopActivity.end()) +
                     std::string("\1\0", 2)); // and a comment: a link begins
    EXPECT_NE(request, std::string::npos);
    EXPECT_GT(at(acknowledged, '\1'), request);
    EXPECT_NE(at(acknowledged, '\1'), std::string::npos);
}

TEST_F(ControlTest, RefusedAndQueuedOutMessagesAreCounted)
{
    StartAndWait();
    const Host host(LinkPath());
    ASSERT_THAT(host.Ask(kStopActivity, 1), ElementsAre(kActivityStopped));
    ASSERT_TRUE(Host(LinkPath()).IsClosed());
    for (int request = 0; request < 2000; ++request) {
        ASSERT_TRUE(Eventually([&] { return host.TrySend({0x01, 0x00, 0x00, 0x00}); }));
    }
    ASSERT_TRUE(mService->HasLogged("Buffer full"));

    const json link = Status().at("link");
    EXPECT_EQ(link.at("refused_hosts"), 1);
    EXPECT_GT(link.at("queue_full"), 0);
    EXPECT_GT(link.at("packets_out"), 100);
}

TEST_F(ControlTest, LinkGoesDownForTheHostAndComesBackForTheNext)
{
    StartAndWait();
    const std::filesystem::path key = mRunDirectory / "memory/private/tal/conn_status";
    const Host host(LinkPath());
    ASSERT_THAT(host.Ask(kStopActivity, 1), ElementsAre(kActivityStopped));

    EXPECT_EQ(Watch({"link", "down"}).mStatus, 0);
    EXPECT_TRUE(host.IsClosed());
    EXPECT_EQ(ReadFile(key), "0\n");
    EXPECT_THAT(StatusLine("link"), HasSubstr("down, key 0, host state none"));
    const Host next(LinkPath());
    next.Send(kStopActivity);
    EXPECT_EQ(Status().at("host"), nullptr);
    EXPECT_EQ(ReadFile(key), "0\n");

    EXPECT_EQ(Watch({"link", "up"}).mStatus, 0);
    EXPECT_EQ(next.Receive(), kActivityStopped);
    EXPECT_EQ(ReadFile(key), "1\n");
    EXPECT_EQ(StopService(), 0);
}

TEST_F(ControlTest, LowMemoryLowBatteryAndQuitEachEndTheServiceInOrder)
{
    const std::vector<std::vector<std::string>> commands = {
        {"memory", "low"}, {"battery", "low"}, {"quit"}};
    for (const auto &command : commands) {
        StartAndWait();
        const Said said = Watch(command);
        EXPECT_EQ(said.mStatus, 0) << said.mError;
        EXPECT_EQ(mService->WaitForEnd(), 0) << command.front();
        EXPECT_THAT(mService->StandardError(), HasSubstr("app_terminate"));
        EXPECT_FALSE(std::filesystem::exists(ControlPath()));
    }
}

TEST_F(ControlTest, ASourceThatIsNotManualCannotBeSet)
{
    StartAndWait({{"PARVANE_TRACE", WriteRecording({"0,70,,,,,,,,"})}});
    const Said said = Watch({"set", "hr", "72"});
    EXPECT_EQ(said.mStatus, 1);
    EXPECT_EQ(said.mError,
              "parvane-watch: heart_rate has the source replay; only the source manual can be set "
              "(heart_rate=manual in section [sensors] of platform.conf)\n");
}

TEST_F(ControlTest, AServiceThatIsNotThereIsExitCodeThree)
{
    const Said said = Watch({"status"});
    EXPECT_EQ(said.mStatus, 3);
    EXPECT_THAT(said.mError, HasSubstr("is the watch service running?"));
}

TEST_F(ControlTest, SocketOfAKilledServiceDoesNotKeepTheNextFromServing)
{
    StartAndWait();
    mService->Signal(SIGKILL);
    ASSERT_EQ(mService->WaitForEnd(), -SIGKILL);
    ASSERT_TRUE(std::filesystem::exists(ControlPath()));
    EXPECT_EQ(Watch({"status"}).mStatus, 3);

    StartAndWait();
    EXPECT_EQ(Status().at("service").at("pid"), mService->Pid());
}

TEST_F(ControlTest, AnotherUserIsRefused)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "another user can be played by root only";
    }
    StartAndWait();
    EXPECT_EQ(ConnectAsNobody(ControlPath()), 0);

    for (const auto &path : {mFolder.Path(), mRunDirectory, ControlPath()}) {
        std::filesystem::permissions(path, std::filesystem::perms::all);
    }
    EXPECT_EQ(ConnectAsNobody(ControlPath()), 2);
    EXPECT_TRUE(mService->HasLogged("control: a client of user 65534 is refused"));
}

TEST_F(ControlTest, ARecordingHasEveryReadingAndEndsWithTheService)
{
    StartAndWait({{"PARVANE_TRACE", WriteRecording({"0,,,,,,,,2,", "100,,,,,,,,3,"})}});
    const std::string file = (mFolder.Path() / "recorded.csv").string();
    Process record({PARVANE_WATCH_PROGRAM, "record", file}, BaseEnvironment(), mFolder.Path());
    ASSERT_TRUE(mService->HasLogged("records"));
    const Host host(LinkPath());
    ASSERT_EQ(host.Ask(kStartActivity, 4).size(), 4U);
    const int delivered = Item("activity").at("delivered");

    EXPECT_EQ(Watch({"quit"}).mStatus, 0);
    EXPECT_EQ(record.WaitForEnd(), 0) << record.StandardError();

    const std::string text = ReadFile(file);
    EXPECT_THAT(text, HasSubstr("\nt_ms,heart_rate,"));
    EXPECT_GE(std::count(text.begin(), text.end(), '\n') - 4, delivered);
    EXPECT_THAT(text, HasSubstr(",2,,,,,\n"));
    EXPECT_THAT(text, HasSubstr(",3,,,,,\n"));

    StartAndWait({{"PARVANE_TRACE", file}});
}

/** A service all of whose items are manual, by its configuration. */
class ManualControlTest : public ControlTest
{
protected:
    void StartManual()
    {
        const std::filesystem::path file = mFolder.Path() / "platform.conf";
        WriteFile(file, "[sensors]\nheart_rate=manual\npedometer=manual\nactivity=manual\n"
                        "gesture=manual\n");
        StartAndWait({{"PARVANE_PLATFORM_CONF", file.string()}});
    }
};

TEST_F(ManualControlTest, TheKeysOfTheMonitorAreTheHandsOfTheCommand)
{
    StartManual();
    Environment environment = BaseEnvironment();
    environment["TERM"] = "vt100";
    Parvane::PseudoTerminal monitor({PARVANE_WATCH_PROGRAM, "monitor"}, environment);
    ASSERT_TRUE(monitor.Shows("q quit")) << monitor.Output();
    monitor.Type("h60\r");
    EXPECT_TRUE(monitor.Shows("done, and shown once the item is on"));
    const Host host(LinkPath());
    host.Send(kMeasureHeartRate);
    ASSERT_TRUE(monitor.Shows("by request 1, source manual"));
    EXPECT_TRUE(monitor.Shows("power lock  state "));
    monitor.Type("h72\r");
    EXPECT_TRUE(monitor.Shows("heart rate  72 /min"));
    monitor.Type("w");
    EXPECT_TRUE(monitor.Shows("heart rate  off wrist"));
    EXPECT_TRUE(mService->HasLogged("sets the heart rate to off-wrist"));
    monitor.Type("g3\r");
    EXPECT_TRUE(monitor.Shows("nobody has heard it: the item is off"));
    monitor.Type("s");
    EXPECT_TRUE(monitor.Shows("steps to add: "));
    monitor.Type("\033");
    EXPECT_TRUE(
        monitor.Becomes(testing::Not(testing::ContainsRegex("steps to add|nobody has heard"))))
        << "taken back, and nothing done";
    monitor.Type("l");
    EXPECT_TRUE(monitor.Shows("link        down by process"));
    monitor.Type("l");
    EXPECT_TRUE(monitor.Shows("link        up by process"));
    monitor.Type("my");
    EXPECT_TRUE(monitor.Shows("the service has gone; this waits for its return"));
    EXPECT_EQ(mService->WaitForEnd(), 0);
    StartManual();
    ASSERT_TRUE(monitor.Shows("Parvane: process " + std::to_string(mService->Pid())));
    monitor.Type("q");
    EXPECT_EQ(monitor.WaitForEnd(), 0) << monitor.Screen();
    EXPECT_TRUE(monitor.IsAsItWas());
}

TEST_F(ManualControlTest, ActivityThatIsSetReachesTheHost)
{
    StartManual();
    ASSERT_EQ(Watch({"set", "activity", "walking"}).mStatus, 0);
    const Host host(LinkPath());
    ASSERT_EQ(host.Ask(kStartActivity, 1).size(), 1U);
    ASSERT_TRUE(Eventually([this] { return Item("activity").at("delivered") > 0; }));

    ASSERT_EQ(Watch({"set", "activity", "running"}).mStatus, 0);
    EXPECT_TRUE(Eventually([&] {
        const auto packet = host.Receive();
        return packet && ValueOf(*packet) == 2.0F;
    }));
    EXPECT_THAT(StatusLine("activity"), HasSubstr("source manual, last running "));
}

TEST_F(ManualControlTest, StepsThatAreAddedReachTheHost)
{
    StartManual();
    const Host host(LinkPath());
    ASSERT_EQ(host.Ask({0x02, 0x00, 0x00, 0x02}, 1).size(), 1U);
    ASSERT_TRUE(Eventually([this] { return Item("pedometer").at("delivered") > 0; }));

    ASSERT_EQ(Watch({"set", "steps", "+10"}).mStatus, 0);
    EXPECT_TRUE(Eventually([&] {
        const auto packet = host.Receive();
        return packet && ValueOf(*packet) == 10.0F;
    }));
}

TEST_F(ManualControlTest, OffTheWristIsNotWornForTheHost)
{
    StartManual();
    ASSERT_EQ(Watch({"set", "hr", "off-wrist"}).mStatus, 0);
    const Host host(LinkPath());
    const auto packets = host.Ask({0x02, 0x00, 0x00, 0x04}, 1);
    ASSERT_EQ(packets.size(), 1U);
    EXPECT_EQ(ValueOf(packets.front()), 0.0F);

    ASSERT_EQ(Watch({"set", "hr", "72"}).mStatus, 0);
    // A request during the measuring period of the one before is ignored.
    ASSERT_TRUE(Eventually([this] { return Item("heart_rate").at("subscription").is_null(); }));
    const auto worn = host.Ask({0x02, 0x00, 0x00, 0x04}, 1);
    ASSERT_EQ(worn.size(), 1U);
    EXPECT_EQ(ValueOf(worn.front()), 1.0F);
}
