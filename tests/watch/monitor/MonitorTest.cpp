#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Program.h"
#include "PseudoTerminal.h"
#include "ScriptedService.h"

namespace ParvaneWatch {
namespace {

using nlohmann::json;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/** The reply to observe: the heart rate is on. */
json Reply()
{
    return {{"version", 1},
            {"ok", true},
            {"status",
             {{"time", "2026-01-31T11:34:59.789Z"},
              {"service",
               {{"pid", 11}, {"user", 0}, {"for_ms", 5000}, {"version", PARVANE_WATCH_VERSION}}},
              {"host", nullptr},
              {"link", {{"state", "up"}, {"host_state", "none"}}},
              {"power_locks", json::array()},
              {"preferences", json::object()},
              {"items",
               {{{"item", "heart_rate"},
                 {"source", "manual"},
                 {"subscription",
                  {{"request_id", 7}, {"since", "2026-01-31T11:34:56.789Z"}, {"for_ms", 3000}}},
                 {"last_reading", nullptr}}}}}}};
}

std::string Reading(int rate)
{
    return json({{"event", "reading"},
                 {"time", "2026-01-31T11:35:00.789Z"},
                 {"item", "heart_rate"},
                 {"values", {{"hrm/heart_rate", rate}}}})
        .dump();
}

/** How often a process has been woken up, or has given its processor away. */
int SwitchesOf(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string word; status >> word;) {
        if (word == "voluntary_ctxt_switches:") {
            int count = 0;
            status >> count;
            return count;
        }
    }
    return -1;
}

class MonitorTest : public testing::Test
{
protected:
    [[nodiscard]] std::vector<std::string> Command(std::vector<std::string> more = {}) const
    {
        more.insert(more.begin(), {PARVANE_WATCH_PROGRAM, "--socket", mService.Path(), "monitor"});
        return more;
    }

    static Parvane::ChildProcess::Variables Environment(const std::string &term = "vt100")
    {
        auto environment = Parvane::ChildProcess::OwnEnvironment();
        for (const char *name : {"LINES", "COLUMNS", "LC_ALL", "LC_CTYPE", "LANG"}) {
            environment.erase(name);
        }
        environment["TERM"] = term;
        environment["TZ"] = "XYZ-1";
        return environment;
    }

    void Accept()
    {
        EXPECT_EQ(json::parse(mService.AcceptRequest()),
                  json({{"version", 1}, {"request", "observe"}}));
        mService.Send(Reply().dump());
    }

    ScriptedService mService;
};

TEST_F(MonitorTest, InAPipeEachEventIsALineUntilTheServiceEnds)
{
    Parvane::Program monitor(Command(), {.mEnvironment = {{"TZ", "XYZ-1"}}});
    Accept();
    EXPECT_EQ(monitor.ReadLine(), "12:34:59  service     process 11 is observed");
    mService.Send(Reading(72));
    EXPECT_EQ(monitor.ReadLine(), "12:35:00  heart rate  72 /min");
    mService.Send(R"({"end":"service-ended"})");
    EXPECT_EQ(monitor.ReadOutput(), "");
    EXPECT_EQ(monitor.ReadErrors(), "parvane-watch: the service has ended\n");
    EXPECT_EQ(monitor.Wait(), 3);
}

TEST_F(MonitorTest, JsonIsPassedThrough)
{
    Parvane::Program monitor(Command({"--json"}), {});
    Accept();
    EXPECT_EQ(json::parse(monitor.ReadLine()), Reply());
    mService.Send(Reading(72));
    EXPECT_EQ(json::parse(monitor.ReadLine()), json::parse(Reading(72)));
    mService.HangUp();
    EXPECT_EQ(monitor.ReadErrors(), "parvane-watch: the service has gone\n");
    EXPECT_EQ(monitor.Wait(), 3);
}

TEST_F(MonitorTest, APipeThatClosesATimeThatPassesAndASignalEndTheLines)
{
    Parvane::Program piped(Command(), {});
    Accept();
    piped.ReadLine();
    piped.CloseOutput();
    EXPECT_EQ(piped.Wait(), 0) << "without another event";
    EXPECT_EQ(piped.ReadErrors(), "");

    Parvane::Program timed(Command({"--for", "3"}), {}); // which bounds the first answer, too
    Accept();
    EXPECT_EQ(timed.Wait(), 0);

    Parvane::Program interrupted(Command({"--plain"}), {});
    Accept();
    interrupted.ReadLine();
    interrupted.Signal(SIGINT);
    EXPECT_EQ(interrupted.Wait(), -SIGINT);
}

TEST_F(MonitorTest, TheTimeHoldsForAServiceThatDoesNotAnswer)
{
    Parvane::Program timed(Command({"--for", "1"}), {});
    mService.AcceptRequest();
    EXPECT_EQ(timed.Wait(), 3);
    // What was left when it asked.
    EXPECT_THAT(timed.ReadErrors(), ContainsRegex("no answer on .* within (1 s|[0-9]{1,3} ms)\n$"));
}

TEST_F(MonitorTest, ARefusalIsAFailure)
{
    Parvane::Program monitor(Command(), {});
    mService.AcceptRequest();
    mService.Send(R"({"version":1,"ok":false,"error":{"code":"unknown-request","message":"no"}})");
    EXPECT_EQ(monitor.ReadErrors(), "parvane-watch: no\n");
    EXPECT_EQ(monitor.Wait(), 1);
}

TEST_F(MonitorTest, LinesCostNoWakeUpWhileNothingHappens)
{
    Parvane::PseudoTerminal monitor(Command({"--plain"}), Environment());
    Accept();
    ASSERT_TRUE(monitor.Shows("process 11 is observed"));
    bool hasSlept = false; // for two seconds on end, once it has come to rest
    for (int i = 0; i < 15 && !hasSlept; ++i) {
        const int before = SwitchesOf(monitor.Pid());
        std::this_thread::sleep_for(std::chrono::seconds(2));
        hasSlept = SwitchesOf(monitor.Pid()) == before;
    }
    EXPECT_TRUE(hasSlept);
}

TEST_F(MonitorTest, TheScreenIsKeptUpToDate)
{
    Parvane::PseudoTerminal monitor(Command(), Environment());
    Accept();
    ASSERT_TRUE(
        monitor.Becomes(ContainsRegex("^Parvane: process 11, user 0, running for [0-9]+ s\n")));
    EXPECT_TRUE(monitor.Becomes(ContainsRegex(
        "\nheart rate  -\n  on since 12:34:56 \\([0-9]+ s\\) by request 7, source manual\n")));
    EXPECT_TRUE(monitor.Shows("q quit"));
    for (const int rate : {60, 95, 130}) {
        mService.Send(Reading(rate));
    }
    ASSERT_TRUE(monitor.Shows("heart rate  130 /min")) << monitor.Screen();
    EXPECT_TRUE(monitor.Shows("_=#\n"));
    for (int i = 0; i < 2; ++i) {
        const std::string old = monitor.Screen();
        EXPECT_TRUE(monitor.Becomes(Not(HasSubstr(old.substr(0, old.find('\n')))))) << "it grows";
    }

    monitor.Type("?");
    ASSERT_TRUE(monitor.Shows("l  take the accessory link down, or bring it up"));
    EXPECT_TRUE(monitor.Becomes(Not(HasSubstr("heart rate  130"))));
    monitor.Type("?h12");
    ASSERT_TRUE(monitor.Shows("heart rate in beats per minute: 12_"));
    monitor.Type("\033");
    monitor.Type("q");
    EXPECT_EQ(monitor.WaitForEnd(), 0);
}

TEST_F(MonitorTest, ScreensOfOtherSizesAreUsed)
{
    Parvane::PseudoTerminal monitor(Command(), Environment());
    Accept();
    ASSERT_TRUE(monitor.Shows("q quit"));
    monitor.Resize(40, 100);
    ASSERT_TRUE(monitor.Becomes(EndsWith("? help  q quit\n"))) << "on the last line";
    EXPECT_TRUE(monitor.Becomes(StartsWith("Parvane: process 11, user 0")));
    monitor.Resize(5, 20);
    ASSERT_TRUE(monitor.Shows("h rate  w worn"));
    monitor.Type("q");
    EXPECT_EQ(monitor.WaitForEnd(), 0);
}

TEST_F(MonitorTest, AScreenThatShowsNothingNewCostsAWakeUpEachSecond)
{
    Parvane::PseudoTerminal monitor(Command(), Environment());
    Accept();
    ASSERT_TRUE(monitor.Shows("q quit"));
    const auto begin = std::chrono::steady_clock::now();
    const int before = SwitchesOf(monitor.Pid());
    const auto seconds = [begin] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    };
    int switches = 0;
    while (seconds() < 3.5 || (seconds() < 30 && switches < 3)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        switches = SwitchesOf(monitor.Pid()) - before;
    }
    EXPECT_GE(switches, 3);
    // Some more when the timer fires within the last millisecond.
    EXPECT_LE(switches, 2 * seconds() + 1);
}

TEST_F(MonitorTest, AServiceThatGoesIsAwaitedOnTheScreen)
{
    Parvane::PseudoTerminal monitor(Command(), Environment());
    Accept();
    ASSERT_TRUE(monitor.Shows("running for"));
    mService.HangUp();
    ASSERT_TRUE(monitor.Shows("the service has gone")) << monitor.Screen();
    Accept();
    mService.Send(Reading(72));
    ASSERT_TRUE(monitor.Shows("72 /min"));
    EXPECT_TRUE(monitor.Becomes(Not(HasSubstr("has gone"))));
}

TEST_F(MonitorTest, AfterMissedMessagesTheStatusIsAskedForAnew)
{
    Parvane::PseudoTerminal monitor(Command(), Environment());
    Accept();
    ASSERT_TRUE(monitor.Shows("running for"));
    mService.Send(R"({"event":"missed","count":12})");
    Accept();
    mService.Send(Reading(72));
    ASSERT_TRUE(monitor.Shows("72 /min"));
}

/** One way in which the screen ends. */
struct Way
{
    std::string mName;
    std::string mKeys;
    int mSignal = 0;
    std::string mMessage;
    int mStatus = 0;
};

class MonitorEndTest : public MonitorTest, public testing::WithParamInterface<Way>
{};

TEST_P(MonitorEndTest, TheTerminalIsAsItWas)
{
    for (const char *const term : {"vt100", "xterm"}) {
        Parvane::PseudoTerminal monitor(Command(), Environment(term));
        Accept();
        ASSERT_TRUE(monitor.Shows("q quit"));
        EXPECT_FALSE(monitor.IsAsItWas());
        if (GetParam().mSignal != 0) {
            monitor.Signal(GetParam().mSignal);
        }
        monitor.Type(GetParam().mKeys);
        if (!GetParam().mMessage.empty()) {
            mService.Send(GetParam().mMessage);
        }
        EXPECT_EQ(monitor.WaitForEnd(), GetParam().mStatus) << term;
        EXPECT_TRUE(monitor.IsAsItWas()) << term;
        if (std::string(term) == "xterm") {
            const auto left = monitor.Output().rfind("\033[?1049l");
            const auto entered = monitor.Output().rfind("\033[?1049h");
            ASSERT_NE(entered, std::string::npos);
            ASSERT_NE(left, std::string::npos);
            EXPECT_GT(left, entered);
            EXPECT_GT(monitor.Output().rfind("\033[?25h"), monitor.Output().rfind("\033[?25l"));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Ways, MonitorEndTest,
                         testing::Values(Way{"Quit", "q", 0, "", 0},
                                         Way{"CtrlC", "\003", 0, "", -SIGINT},
                                         Way{"SigTerm", "", SIGTERM, "", -SIGTERM},
                                         Way{"SigHup", "", SIGHUP, "", -SIGHUP},
                                         Way{"Exception", "", 0, "this is no message", 1}),
                         [](const auto &instance) { return instance.param.mName; });

TEST_F(MonitorTest, ATimeEndsTheScreenToo)
{
    Parvane::PseudoTerminal monitor(Command({"--for", "3"}), Environment());
    Accept();
    EXPECT_EQ(monitor.WaitForEnd(), 0);
    EXPECT_TRUE(monitor.IsAsItWas());
}

TEST_F(MonitorTest, ATerminalThatIsNotKnownIsSaid)
{
    for (const char *const term : {"no-such-terminal", "dumb", ""}) {
        Parvane::PseudoTerminal monitor(Command(), Environment(term));
        Accept();
        EXPECT_EQ(monitor.WaitForEnd(), 1) << term;
        EXPECT_THAT(monitor.Output(),
                    HasSubstr("parvane-watch: the terminal's type '" + std::string(term) + "'"));
        EXPECT_TRUE(monitor.IsAsItWas());
    }
}

TEST_F(MonitorTest, WithoutAServiceThereIsNoScreen)
{
    Parvane::PseudoTerminal monitor(
        {PARVANE_WATCH_PROGRAM, "--socket", mService / "none", "monitor"}, Environment());
    EXPECT_EQ(monitor.WaitForEnd(), 3);
    EXPECT_THAT(monitor.Output(), StartsWith("parvane-watch: cannot connect to"));
}

} // namespace
} // namespace ParvaneWatch
