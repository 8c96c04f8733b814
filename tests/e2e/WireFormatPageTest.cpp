#include "Requests.h"
#include "ServiceFixture.h"

namespace Asked = Parvane::FlaggedRequest;

namespace {

const std::filesystem::path kSource = PARVANE_SOURCE_FOLDER;
constexpr std::chrono::milliseconds kShortWhile(200);

/** What follows the page's line "```" + `kind`, up to the end of that block; empty if there is none. */
std::string BlockOfPage(const std::string &kind)
{
    const std::string page = ReadFile(kSource / "docs/wire-format.md");
    const std::string opening = "\n```" + kind + "\n";
    const std::size_t found = page.find(opening);
    if (found == std::string::npos) {
        return {};
    }
    const std::size_t begin = found + opening.size();
    return page.substr(begin, page.find("\n```", begin) + 1 - begin);
}

} // namespace

/** What the page about the wire format promises to who has nothing else, against the real service. */
class WireFormatPageTest : public ServiceFixture
{
protected:
    void SetUp() override
    {
        const std::filesystem::path file = mFolder.Path() / "manual.conf";
        WriteFile(file, "[sensors]\nheart_rate=manual\npedometer=manual\nactivity=manual\n");
        mConfiguration = {{"PARVANE_PLATFORM_CONF", file.string()}};
        StartService(mConfiguration);
        ASSERT_TRUE(mService->HasLogged("app_service"));
    }

    /** Has parvane-watch do something to the watch. */
    void Watch(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), PARVANE_WATCH_PROGRAM);
        Process watch(arguments, BaseEnvironment(), mFolder.Path());
        ASSERT_EQ(watch.WaitForEnd(), 0) << watch.StandardError();
    }

    Environment mConfiguration;
};

TEST_F(WireFormatPageTest, ExampleIsTheOneOfThePageAndPrintsWhatThePagePromises)
{
    const std::filesystem::path example = kSource / "examples/phone.py";
    const std::string program = ReadFile(example);
    ASSERT_EQ(BlockOfPage("python"), program);
    std::istringstream lines(program);
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
        count += line.empty() ? 0 : 1;
    }
    EXPECT_EQ(count, 40) << "which is what the page says";
    Watch({"set", "hr", "72"});
    const Process phone({"/usr/bin/python3", example, LinkPath()}, BaseEnvironment(),
                        mFolder.Path());
    const auto prints = [&phone](const std::string &line) {
        return Eventually([&] { return phone.StandardOutput().ends_with(line + "\n"); },
                          std::chrono::seconds(30));
    };

    ASSERT_TRUE(prints("worn yes")) << phone.StandardOutput() << phone.StandardError();
    Watch({"set", "activity", "walking"});
    Watch({"set", "steps", "+10"});
    Watch({"set", "steps", "+15"});
    Watch({"set", "hr", "72"});
    ASSERT_TRUE(prints("heart rate 72")) << phone.StandardOutput() << phone.StandardError();
    Watch({"link", "down"});
    Watch({"set", "steps", "+5"});
    Watch({"link", "up"});
    ASSERT_TRUE(prints("steps 30")) << phone.StandardOutput() << phone.StandardError();
    Watch({"set", "activity", "running"});
    ASSERT_TRUE(prints("activity running")) << phone.StandardOutput() << phone.StandardError();

    EXPECT_EQ(phone.StandardOutput(), BlockOfPage("text"));
}

TEST_F(WireFormatPageTest, ExampleCountsOnOverARestartOfTheService)
{
    const Process phone({"/usr/bin/python3", kSource / "examples/phone.py", LinkPath()},
                        BaseEnvironment(), mFolder.Path());
    const auto hasPrinted = [&phone](const std::string &text) {
        return Eventually([&] { return phone.StandardOutput().find(text) != std::string::npos; });
    };
    ASSERT_TRUE(hasPrinted("worn ")); // the steps were asked for before
    Watch({"set", "steps", "+10"});
    ASSERT_TRUE(hasPrinted("steps 10\n"));

    ASSERT_EQ(StopService(), 0);
    ASSERT_TRUE(hasPrinted("away: "));
    StartService(mConfiguration);
    ASSERT_TRUE(mService->HasLogged("app_service"));
    Watch({"set", "steps", "+7"});

    EXPECT_TRUE(hasPrinted("steps 17\n")) << phone.StandardOutput();
}

TEST_F(WireFormatPageTest, OtherIsNeitherPushedNorAnswered)
{
    const Host host(LinkPath());
    ASSERT_EQ(host.Ask(Asked::kStartActivity, 1).size(), 1U);
    Watch({"set", "activity", "running"});
    ASSERT_EQ(ValueOf(host.Receive().value_or(Bytes())), 2.0F);

    Watch({"set", "activity", "other"});
    const auto answers = host.Ask(Asked::kMeasureActivity, 1);

    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].front(), 0x12); // no push came first
    EXPECT_EQ(ValueOf(answers[0]), 2.0F);
}

TEST_F(WireFormatPageTest, TwoQueriesTellTheCountAfterPushesWereLost)
{
    const Host host(LinkPath());
    ASSERT_EQ(host.Ask(Asked::kMeasureSteps, 2).size(), 2U); // the first one ever, and the answer
    constexpr int kPushes = 500; // more than wait for a phone that does not read
    for (int i = 0; i < kPushes; ++i) {
        Watch({"set", "steps", "+1"});
    }

    float waiting = 0.0F;
    while (const auto push = host.Receive(kShortWhile)) {
        waiting = ValueOf(*push);
    }
    const float first = ValueOf(host.Ask(Asked::kMeasureSteps, 1).at(0));
    const float second = ValueOf(host.Ask(Asked::kMeasureSteps, 1).at(0));

    EXPECT_GT(first - waiting, kPushes); // the sum of many counts
    EXPECT_EQ(second - first, kPushes);
}

TEST_F(WireFormatPageTest, MeasurementGoesOnOverANewLinkAndAnswersWhoeverIsThere)
{
    {
        const Host host(LinkPath());
        host.Send(Asked::kMeasureWearState);
        ASSERT_EQ(host.Ask(Asked::kStopActivity, 1).size(), 1U);
    }
    const Host next(LinkPath());

    const auto answer = next.Receive();

    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->front(), 0x12);
    EXPECT_EQ(ValueOf(*answer), 0.0F); // nobody has told a heart rate
}

TEST_F(WireFormatPageTest, LongestMessageIsServed)
{
    const Host host(LinkPath());
    Bytes stop = Asked::kStopActivity;
    stop.resize(65531);

    EXPECT_EQ(host.Ask(stop, 1), std::vector<Bytes>{(Bytes{0x14, 0x02, 0x00, 0x01})});
}
