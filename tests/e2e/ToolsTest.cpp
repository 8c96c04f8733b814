#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Program.h"
#include "Requests.h"
#include "ServiceFixture.h"

using nlohmann::json;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

/** What parvane-watch tells of a running service's settings, and plays to it. */
class ToolsTest : public ServiceFixture
{
protected:
    void SetUp() override
    {
        WriteFile(Configuration(), "[sensors]\nheart_rate=manual\npedometer=manual\n"
                                   "activity=manual\ngesture=manual\n[log]\nlevel=info\n");
        StartService({{"PARVANE_PLATFORM_CONF", Configuration()}, {"PARVANE_SPEED", "2.5"}});
        ASSERT_TRUE(mService->HasLogged("app_service"));
    }

    std::string Configuration() const { return mFolder.Path() / "platform.conf"; }

    /** What parvane-watch prints; it has to succeed, and to be silent otherwise. */
    std::string Watch(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), PARVANE_WATCH_PROGRAM);
        Process watch(arguments, BaseEnvironment(), mFolder.Path());
        EXPECT_EQ(watch.WaitForEnd(), 0);
        EXPECT_EQ(watch.StandardError(), "");
        return watch.StandardOutput();
    }

    json Values(const std::string &item) const
    {
        const json status = json::parse(Watch({"status", "--json"}));
        for (const json &entry : status.at("items")) {
            if (entry.at("item") == item) {
                return entry.at("last_reading").at("values");
            }
        }
        return {};
    }
};

TEST_F(ToolsTest, TheConfigurationIsToldWithFileAndLine)
{
    const std::string text = Watch({"config"});
    EXPECT_THAT(text,
                HasSubstr("\nheart_rate=manual                       " + Configuration() + ":2\n"));
    EXPECT_THAT(text, HasSubstr("\nspeed=2.5                               PARVANE_SPEED\n"));
    EXPECT_THAT(text, HasSubstr("\nperiod_ms=1000                          default\n"));
    EXPECT_THAT(text, ContainsRegex("\nstate=" + mStateDirectory.string() + " +STATE_DIRECTORY\n"));

    const json config = json::parse(Watch({"config", "--json"}));
    EXPECT_EQ(config.at("link_socket"), LinkPath().string());
    EXPECT_EQ(config.at("file"), json({{"path", Configuration()}, {"read", true}}));
}

TEST_F(ToolsTest, TheLogIsChangedWhileTheServiceRuns)
{
    EXPECT_EQ(Watch({"log"}), "level       info\ntags        any\n");
    Watch({"log", "warning"});
    Watch({"set", "hr", "61"});
    Watch({"log", "auto"});
    Watch({"set", "hr", "62"});
    EXPECT_TRUE(mService->HasLogged("sets the heart rate to 62"));
    EXPECT_THAT(mService->StandardError(), HasSubstr("sets the log to"));
    EXPECT_THAT(mService->StandardError(), Not(HasSubstr("sets the heart rate to 61")));
}

TEST_F(ToolsTest, TheExampleIsPlayed)
{
    const Host host(LinkPath());
    ASSERT_EQ(host.Ask({0x02, 0x00, 0x00, 0x02}, 1).size(), 1U); // opts in to steps
    ASSERT_EQ(host.Ask(Parvane::Request::kStartActivity, 1).size(), 1U);
    const std::string script = PARVANE_SOURCE_FOLDER "/examples/walk-and-run.csv";
    EXPECT_THAT(Watch({"play", script, "--speed", "1000"}), HasSubstr(script + ": played, "));
    // 30 s of 110 and 40 s of 160 steps a minute.
    EXPECT_EQ(Values("pedometer").at("pedometer/total_steps"), 55 + 106);
    EXPECT_TRUE(mService->HasLogged("sets the heart rate to 120"));
    EXPECT_EQ(Values("activity").at("activity/status"), 1);
}

TEST(TerminalLogTest, ATerminalGetsWarningsOnly)
{
    const TemporaryFolder folder;
    const std::string state = folder.Path() / "state";
    const std::string run = folder.Path() / "run";
    Parvane::Program service({PARVANE_PROGRAM}, {.mEnvironment = {{"STATE_DIRECTORY", state},
                                                                  {"RUNTIME_DIRECTORY", run}},
                                                 .mErrorsToTerminal = true});
    const auto watch = [&](const std::string &command) {
        Process program({PARVANE_WATCH_PROGRAM, command}, {{"RUNTIME_DIRECTORY", run}},
                        folder.Path());
        return program.WaitForEnd() == 0;
    };
    ASSERT_TRUE(Eventually([&] { return watch("log"); }));
    ASSERT_TRUE(watch("quit"));
    EXPECT_THAT(service.ReadErrors(), Not(HasSubstr(" I ")));
    EXPECT_EQ(service.Wait(), 0);
}
