#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Program.h"
#include "ScriptedService.h"

namespace ParvaneWatch {
namespace {

using nlohmann::json;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;

const std::string kDone = R"({"version":1,"ok":true})";
const std::string kExample = PARVANE_EXAMPLES "/walk-and-run.csv";

/** parvane-watch play, against a service that a test dictates. */
class PlayCommandTest : public testing::Test
{
protected:
    [[nodiscard]] std::string Script(const std::string &text) const
    {
        std::string path = mService / "s.csv";
        std::ofstream(path) << text;
        return path;
    }

    [[nodiscard]] std::vector<std::string> Command(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(),
                         {PARVANE_WATCH_PROGRAM, "--socket", mService.Path(), "play"});
        return arguments;
    }

    /** Takes the program in, and says what the source of each item is. */
    void AcceptWith(const std::string &source)
    {
        EXPECT_EQ(json::parse(mService.AcceptRequest()), json({{"request", "status"}}));
        json items = json::array();
        for (const char *item : {"gesture", "pedometer", "heart_rate", "activity"}) {
            items.push_back({{"item", item}, {"source", source}});
        }
        const json service = {{"version", PARVANE_WATCH_VERSION}};
        const json status = {{"service", service}, {"items", items}};
        mService.Send(json({{"version", 1}, {"ok", true}, {"status", status}}).dump());
    }

    /** Every request of a playing of the example. */
    std::vector<std::string> RequestsOfExample(const std::string &seed)
    {
        Parvane::Program watch(Command({kExample, "--speed", "100000", "--seed", seed}), {});
        AcceptWith("manual");
        std::vector<std::string> requests;
        for (std::string request = mService.Receive(); !request.empty();
             request = mService.Receive()) {
            requests.push_back(request);
            mService.Send(kDone);
        }
        EXPECT_EQ(watch.ReadOutput(), kExample + ": played, " + std::to_string(requests.size()) +
                                          " values in 1 min 30 s of its time, seed " + seed + "\n");
        EXPECT_EQ(watch.ReadErrors(), "");
        EXPECT_EQ(watch.Wait(), 0);
        return requests;
    }

    ScriptedService mService;
};

TEST_F(PlayCommandTest, TheSameSeedIsTheSameSequenceOfRequests)
{
    const std::vector<std::string> first = RequestsOfExample("7");
    EXPECT_GT(first.size(), 150U);
    EXPECT_EQ(first.front(), R"({"item":"heart_rate","request":"set","value":"off-wrist"})");
    EXPECT_EQ(RequestsOfExample("7"), first);
    EXPECT_NE(RequestsOfExample("8"), first);
}

TEST_F(PlayCommandTest, AScriptThatIsWrongIsToldBeforeTheServiceIsAsked)
{
    const std::string script = Script("t_s,heart_rate\n0,72\n1,fast\n");
    Parvane::Program watch({PARVANE_WATCH_PROGRAM, "--socket", "/nonexistent", "play", script}, {});
    EXPECT_EQ(watch.ReadErrors(), "parvane-watch: " + script +
                                      ":3: heart_rate is 'fast'; allowed: BPM from 0 to 65535, "
                                      "off-wrist, BPM to BPM over SECONDS, and behind a BPM: noise "
                                      "BPM\n");
    EXPECT_EQ(watch.Wait(), 1);
    Parvane::Program missing({PARVANE_WATCH_PROGRAM, "play", "/nonexistent"}, {});
    EXPECT_EQ(missing.ReadErrors(),
              "parvane-watch: cannot read /nonexistent: No such file or directory\n");
    EXPECT_EQ(missing.Wait(), 1);
    Parvane::Program folder({PARVANE_WATCH_PROGRAM, "play", "/"}, {});
    EXPECT_EQ(folder.ReadErrors(), "parvane-watch: cannot read /: Is a directory\n");
    EXPECT_EQ(folder.Wait(), 1);
}

TEST_F(PlayCommandTest, ItemsThatCannotBeSetAreToldBeforeAnyIs)
{
    const std::string script = Script("t_s,heart_rate,steps\n0,72,+1\n");
    Parvane::Program watch(Command({script}), {});
    AcceptWith("replay");
    EXPECT_EQ(watch.ReadErrors(), "parvane-watch: " + script +
                                      " sets what has not the source manual: the service needs "
                                      "heart_rate=manual, pedometer=manual in section [sensors] of "
                                      "its platform.conf\n");
    EXPECT_EQ(watch.Wait(), 1);
}

TEST_F(PlayCommandTest, ARefusalEndsItWithTheServicesWords)
{
    Parvane::Program watch(Command({Script("t_s,gesture\n0,1\n0,2\n")}), {});
    AcceptWith("manual");
    EXPECT_THAT(mService.Receive(), HasSubstr("gesture"));
    mService.Send(R"({"version":1,"ok":false,"error":{"code":"failed","message":"no"}})");
    EXPECT_EQ(watch.ReadErrors(), "parvane-watch: no\n");
    EXPECT_EQ(watch.Wait(), 1);
}

TEST_F(PlayCommandTest, AServiceThatGoesIsExitCodeThree)
{
    Parvane::Program watch(Command({Script("t_s,gesture\n0,1\n0,2\n")}), {});
    AcceptWith("manual");
    EXPECT_THAT(mService.Receive(), HasSubstr("gesture"));
    mService.HangUp();
    EXPECT_THAT(watch.ReadErrors(), HasSubstr("the service closed the connection"));
    EXPECT_EQ(watch.Wait(), 3);
}

TEST_F(PlayCommandTest, ASignalEndsItAtOnceAndSaysHowFarItWas)
{
    Parvane::Program watch(Command({Script("t_s,gesture\n0,1\n0,2\n3600,3\n")}), {});
    AcceptWith("manual");
    EXPECT_THAT(mService.Receive(), HasSubstr("gesture"));
    mService.Send(kDone);
    EXPECT_THAT(mService.Receive(), HasSubstr("gesture"));
    mService.Send(kDone);
    watch.Signal(SIGINT);
    EXPECT_THAT(watch.ReadErrors(), EndsWith(" of 3 values played\n"));
    EXPECT_EQ(watch.ReadOutput(), "");
    EXPECT_EQ(watch.Wait(), -SIGINT);
}

TEST_F(PlayCommandTest, ProgressIsShownOnATerminalAndTheEndInJson)
{
    Parvane::Program watch(Command({Script("t_s,gesture\n1,1\n2,\n"), "--speed", "4", "--json"}),
                           {.mEnvironment = {{"TERM", "xterm"}}, .mErrorsToTerminal = true});
    AcceptWith("manual");
    EXPECT_THAT(mService.Receive(), HasSubstr("gesture"));
    mService.Send(kDone);
    EXPECT_EQ(json::parse(watch.ReadOutput()),
              json({{"values", 1}, {"scenario_ms", 2000}, {"seed", 1}}));
    EXPECT_THAT(watch.ReadErrors(), ContainsRegex("\r\033\\[K[0-9] s of 2 s, 0 of 1 values"));
    EXPECT_EQ(watch.Wait(), 0);
}

} // namespace
} // namespace ParvaneWatch
