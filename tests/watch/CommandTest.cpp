#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Program.h"
#include "ScriptedService.h"

namespace ParvaneWatch {
namespace {

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

const std::string kDone = R"({"version":1,"ok":true})";

/** The status of a service of some version. */
std::string StatusOf(const std::string &version)
{
    return R"({"version":1,"ok":true,"status":{"service":{"version":")" + version + R"("}}})";
}

const std::string kStatus = StatusOf(PARVANE_WATCH_VERSION);

/** One run of parvane-watch. */
class Watch : public Parvane::Program
{
public:
    explicit Watch(std::vector<std::string> arguments, const Options &options = {})
        : Program(Command(std::move(arguments)), options)
    {}

private:
    static std::vector<std::string> Command(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), PARVANE_WATCH_PROGRAM);
        return arguments;
    }
};

class CommandTest : public testing::Test
{
protected:
    [[nodiscard]] std::vector<std::string> Arguments(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), {"--socket", mService.Path()});
        return arguments;
    }

    /** Accepts the program, which may record; it may go at once. */
    void AcceptRecording()
    {
        EXPECT_EQ(json::parse(mService.AcceptRequest()),
                  json({{"version", 1}, {"request", "record"}}));
        mService.Send(kDone);
    }

    /** Accepts the program, whose recording begins. */
    void StartRecording()
    {
        AcceptRecording();
        mService.Send(R"({"header":"# head\nt_ms\n"})");
    }

    [[nodiscard]] std::string File() const { return mService / "file"; }

    [[nodiscard]] std::string Content() const
    {
        std::ostringstream content;
        content << std::ifstream(File()).rdbuf();
        return content.str();
    }

    /** Waits until the file holds `text`. */
    [[nodiscard]] bool ContentBecomes(const std::string &text) const
    {
        for (int i = 0; i < 6000 && Content() != text; ++i) {
            ::usleep(5000);
        }
        return Content() == text;
    }

    ScriptedService mService;
};

TEST_F(CommandTest, StatusInJsonIsTheObjectOfTheService)
{
    Watch watch(Arguments({"status", "--json"}));
    EXPECT_EQ(json::parse(mService.AcceptRequest()), json({{"version", 1}, {"request", "status"}}));
    mService.Send(R"({"version":1,"ok":true,"status":{"time":"2026-01-31T11:34:59.789Z"}})");

    EXPECT_EQ(watch.ReadOutput(), "{\"time\":\"2026-01-31T11:34:59.789Z\"}\n");
    EXPECT_EQ(watch.Wait(), 0);
}

TEST_F(CommandTest, StatusForPeopleIsLines)
{
    Watch watch(Arguments({"status"}));
    mService.AcceptRequest();
    mService.Send(R"({"version":1,"ok":true,"status":{"host":null,"link":{"state":"down"}}})");

    EXPECT_THAT(watch.ReadOutput(), HasSubstr("\nhost        none\nlink        down, key ?"));
    EXPECT_EQ(watch.Wait(), 0);
}

TEST_F(CommandTest, ConfigAndLogAreTheObjectsOfTheServiceOrLines)
{
    const std::string config =
        R"({"service":{"version":")" PARVANE_WATCH_VERSION R"("},"values":[]})";
    const std::string log = R"({"level":"error","tags":""})";
    for (const bool isConfig : {true, false}) {
        const std::string name = isConfig ? "config" : "log";
        for (const bool isJson : {true, false}) {
            Watch watch(Arguments(isJson ? std::vector<std::string>{"--json", name}
                                         : std::vector<std::string>{name}));
            EXPECT_EQ(json::parse(mService.AcceptRequest()).at("request"), name);
            mService.Send(R"({"version":1,"ok":true,")" + name + "\":" + (isConfig ? config : log) +
                          "}");

            const std::string output = watch.ReadOutput();
            EXPECT_EQ(isJson ? output : "", isJson ? (isConfig ? config : log) + "\n" : "");
            EXPECT_THAT(output, HasSubstr(isConfig ? "version" : "level"));
            EXPECT_EQ(watch.ReadErrors(), "");
            EXPECT_EQ(watch.Wait(), 0);
        }
    }
}

TEST_F(CommandTest, ReplayShowsHowItPlaysOrWhichRecordingsThereAre)
{
    const std::string reply =
        R"({"ok":true,"recordings":["/r/a.csv","/r/b.csv"],"replay":{"files":["/r/b.csv"],)"
        R"("length_ms":49000,"loop":false,"paused":false,"position_ms":1250,"speed":2.5},"version":1})";
    const std::map<std::vector<std::string>, std::string> shown = {
        {{"replay"}, "b.csv at 1.25 s of 49 s, speed 2.5, once\n"},
        {{"replay", "pause"}, "b.csv at 1.25 s of 49 s, speed 2.5, once\n"},
        {{"replay", "list"}, "/r/a.csv\n/r/b.csv\n"},
        {{"replay", "list", "--json"}, reply + "\n"}};
    for (const auto &[words, output] : shown) {
        Watch watch(Arguments(words));
        mService.AcceptRequest();
        mService.Send(reply);

        EXPECT_EQ(watch.ReadOutput(), output);
        EXPECT_EQ(watch.Wait(), 0);
    }
}

TEST_F(CommandTest, AReplayThatIsRefusedIsExplainedInItsOwnUnits)
{
    const std::string refusal =
        R"({"version":1,"ok":false,"error":{"code":"bad-value","message":"what?"}})";
    Watch far(Arguments({"replay", "seek", "1000"}));
    mService.AcceptRequest();
    mService.Send(refusal);
    EXPECT_EQ(json::parse(mService.Receive()), json({{"request", "replay"}}));
    mService.Send(R"({"ok":true,"replay":{"length_ms":49500},"version":1})");
    EXPECT_EQ(far.ReadErrors(), "parvane-watch: replay seek: the recordings last 49.5 s\n");
    EXPECT_EQ(far.Wait(), 1);

    Watch open(Arguments({"replay", "open", "nix.csv"}));
    mService.AcceptRequest();
    mService.Send(refusal);
    EXPECT_EQ(open.ReadErrors(), "parvane-watch: replay open: there is no such recording; "
                                 "'parvane-watch replay list' names those that may be opened\n");
    EXPECT_EQ(open.Wait(), 1);
}

TEST_F(CommandTest, TheFileOfTheEnvironmentIsCheckedUnlessOneIsNamed)
{
    std::ofstream(File()) << "[sensors]\n";
    const std::vector<std::pair<std::vector<std::string>, std::string>> ways = {
        {{"check-config"}, File()}, {{"check-config", File()}, "/nonexistent"}};
    for (const auto &[words, variable] : ways) {
        Watch watch(words, {.mEnvironment = {{"PARVANE_PLATFORM_CONF", variable}}});
        EXPECT_THAT(watch.ReadOutput(), EndsWith(File() + ": ok\n"));
        EXPECT_EQ(watch.Wait(), 0);
    }
}

TEST_F(CommandTest, ARequestThatIsServedIsSilent)
{
    Watch watch(Arguments({"set", "hr", "72"}));
    mService.AcceptRequest();
    mService.Send(kDone);

    EXPECT_EQ(watch.ReadOutput(), "");
    EXPECT_EQ(watch.ReadErrors(), "");
    EXPECT_EQ(watch.Wait(), 0);
}

TEST_F(CommandTest, ARefusalIsTheServicesWordsAndExitCodeOne)
{
    Watch watch(Arguments({"link", "up"}));
    mService.AcceptRequest();
    mService.Send(R"({"version":1,"ok":false,"error":{"code":"bad-value","message":"no link"}})");

    EXPECT_EQ(watch.ReadErrors(), "parvane-watch: no link\n");
    EXPECT_EQ(watch.Wait(), 1);
}

TEST_F(CommandTest, ARefusalInJsonIsTheReplyToo)
{
    const std::string reply =
        R"({"error":{"code":"bad-value","message":"no link"},"ok":false,"version":1})";
    Watch watch(Arguments({"--json", "link", "up"}));
    mService.AcceptRequest();
    mService.Send(reply);

    EXPECT_EQ(watch.ReadOutput(), reply + "\n");
    EXPECT_EQ(watch.ReadErrors(), "parvane-watch: no link\n");
    EXPECT_EQ(watch.Wait(), 1);
}

TEST_F(CommandTest, ABrokenReplyIsExitCodeOne)
{
    Watch watch(Arguments({"quit"}));
    mService.AcceptRequest();
    mService.Send("hello");

    EXPECT_THAT(watch.ReadErrors(), StartsWith("parvane-watch: the service broke the protocol"));
    EXPECT_EQ(watch.Wait(), 1);
}

TEST_F(CommandTest, WrongUsageIsExitCodeTwo)
{
    Watch watch({"set", "steps", "10"});
    EXPECT_THAT(watch.ReadErrors(), EndsWith("\nTry 'parvane-watch --help'.\n"));
    EXPECT_EQ(watch.Wait(), 2);
}

TEST_F(CommandTest, NoServiceIsExitCodeThree)
{
    Watch watch({"status"}, {.mEnvironment = {{"RUNTIME_DIRECTORY", "/nonexistent"}}});
    EXPECT_EQ(watch.ReadErrors(), "parvane-watch: cannot connect to /nonexistent/control.sock: No "
                                  "such file or directory (is the watch service running?)\n");
    EXPECT_EQ(watch.Wait(), 3);
}

TEST_F(CommandTest, ASignalEndsACommandThatWaits)
{
    Watch watch(Arguments({"status"}));
    mService.AcceptRequest();
    watch.Signal(SIGINT);
    EXPECT_EQ(watch.Wait(), -SIGINT);
}

TEST_F(CommandTest, VersionGoesToStandardOutput)
{
    Watch watch({"--version"});
    EXPECT_EQ(watch.ReadOutput(), "parvane-watch " PARVANE_WATCH_VERSION "\n");
    EXPECT_EQ(watch.Wait(), 0);
}

TEST_F(CommandTest, AServiceOfAnotherVersionIsSaidOnceAndIsNoFailure)
{
    const std::string end = ": one may lack what the other has; installed together they are of one "
                            "version\n";
    const std::vector<std::pair<std::string, std::string>> replies = {
        {kStatus, ""},
        {StatusOf("9.1.0"), "parvane-watch " PARVANE_WATCH_VERSION " talks to parvane 9.1.0" + end},
        {R"({"version":1,"ok":true,"status":{}})", "parvane-watch " PARVANE_WATCH_VERSION
                                                   " talks to parvane of a version before 0.2.0" +
                                                       end}};
    for (const auto &[reply, remark] : replies) {
        Watch watch(Arguments({"--json", "status"}));
        mService.AcceptRequest();
        mService.Send(reply);

        EXPECT_THAT(watch.ReadOutput(), StartsWith("{"));
        EXPECT_EQ(watch.ReadErrors(), remark);
        EXPECT_EQ(watch.Wait(), 0);
    }
}

TEST_F(CommandTest, ARequestThatIsNotKnownIsExplainedByTheVersions)
{
    Watch watch(Arguments({"quit"}));
    mService.AcceptRequest();
    mService.Send(
        R"({"version":1,"ok":false,"error":{"code":"unknown-request","message":"what?"}})");
    EXPECT_EQ(json::parse(mService.Receive()), json({{"request", "status"}}));
    mService.Send(StatusOf("9.1.0"));

    EXPECT_THAT(watch.ReadErrors(),
                StartsWith("parvane-watch: what?\nparvane-watch " PARVANE_WATCH_VERSION
                           " talks to parvane 9.1.0: "));
    EXPECT_EQ(watch.Wait(), 1);
}

TEST_F(CommandTest, OutputThatCannotBeWrittenIsAFailure)
{
    Watch watch(Arguments({"status", "--json"}), {.mEnvironment = {}, .mOutputToFull = true});
    mService.AcceptRequest();
    mService.Send(kStatus);

    EXPECT_EQ(watch.ReadErrors(),
              "parvane-watch: cannot write to standard output: No space left on device\n");
    EXPECT_EQ(watch.Wait(), 1);
}

TEST_F(CommandTest, OutputThatCannotBeWrittenIsAFailureWithoutAServiceToo)
{
    std::ofstream(File()) << "[sensors]\n";
    const std::vector<std::vector<std::string>> commands = {{"--help"}, {"check-config", File()}};
    for (const auto &command : commands) {
        Watch watch(command, {.mEnvironment = {}, .mOutputToFull = true});
        EXPECT_EQ(watch.ReadErrors(),
                  "parvane-watch: cannot write to standard output: No space left on device\n");
        EXPECT_EQ(watch.Wait(), 1);
    }
}

TEST_F(CommandTest, ASignalEndsTheWaitForAReaderThatTakesNothing)
{
    Watch watch(Arguments({"status", "--json"}));
    mService.AcceptRequest();
    // Written out they are three times as long, more than a pipe holds.
    std::string numbers = "9e9";
    for (int i = 0; i < 15000; ++i) {
        numbers += ",9e9";
    }
    mService.Send(R"({"version":1,"ok":true,"status":{"numbers":[)" + numbers + "]}}");
    ASSERT_FALSE(watch.ReadSome().empty());
    watch.Signal(SIGINT);

    EXPECT_EQ(watch.Wait(), -SIGINT);
}

TEST_F(CommandTest, EachRowIsInTheFileWhenItComesAndASignalEndsTheRecordingWell)
{
    Watch watch(Arguments({"record", File()}));
    StartRecording();
    mService.Send(R"({"row":"1\n"})");
    EXPECT_TRUE(ContentBecomes("# head\nt_ms\n1\n"));
    mService.Send(R"({"row":"2\n"})");
    watch.Signal(SIGTERM);

    EXPECT_EQ(watch.Wait(), 0);
    EXPECT_EQ(Content(), "# head\nt_ms\n1\n2\n");
    EXPECT_EQ(watch.ReadErrors(), "");
}

TEST_F(CommandTest, ARecordingTurnsOnWhatItIsToldAndSaysSo)
{
    Watch watch(Arguments({"record", "--on", "hr,steps", File()}));
    EXPECT_EQ(json::parse(mService.AcceptRequest()),
              json({{"version", 1}, {"request", "record"}, {"on", {"heart_rate", "pedometer"}}}));
    mService.Send(R"({"version":1,"ok":true,"on":["heart_rate","pedometer","activity"]})");
    EXPECT_THAT(watch.ReadErrorsUntil("\n"),
                HasSubstr("parvane-watch: on while this records: heart rate, pedometer\n"));
    mService.Send(R"({"end":"service-ended"})");
    EXPECT_EQ(watch.Wait(), 0);
}

TEST_F(CommandTest, ARecordingOfNothingSaysWhatToDo)
{
    Watch watch(Arguments({"record", File()}));
    mService.AcceptRequest();
    mService.Send(R"({"version":1,"ok":true,"on":[]})");
    EXPECT_THAT(
        watch.ReadErrorsUntil("\n"),
        StartsWith("parvane-watch: nothing is on: there is nothing to record before a phone "
                   "asks for readings; --on hr,steps,activity turns them on"));
    mService.Send(R"({"end":"service-ended"})");
    EXPECT_EQ(watch.Wait(), 0);
}

TEST_F(CommandTest, AGestureThatNobodyHearsSaysSo)
{
    Watch unheard(Arguments({"gesture", "3"}));
    mService.AcceptRequest();
    mService.Send(R"({"version":1,"ok":true,"heard":0})");
    EXPECT_THAT(unheard.ReadErrors(), StartsWith("parvane-watch: nobody has heard it"));
    EXPECT_EQ(unheard.Wait(), 0);

    Watch heard(Arguments({"gesture", "3"}));
    mService.AcceptRequest();
    mService.Send(R"({"version":1,"ok":true,"heard":1})");
    EXPECT_EQ(heard.ReadErrors(), "");
    EXPECT_EQ(heard.Wait(), 0);
}

TEST_F(CommandTest, TheEndOfTheServiceEndsTheRecordingWell)
{
    Watch watch(Arguments({"record", File()}));
    StartRecording();
    mService.Send(R"({"row":"1\n"})");
    mService.Send(R"({"end":"service-ended"})");

    EXPECT_EQ(watch.Wait(), 0);
    EXPECT_EQ(Content(), "# head\nt_ms\n1\n");
}

TEST_F(CommandTest, ARecordingInJsonCountsWhatItHasAndWhatItLacks)
{
    Watch watch(Arguments({"--json", "record", File()}));
    StartRecording();
    mService.Send(R"({"left_out":"first"})");
    mService.Send(R"({"row":"1\n"})");
    mService.Send(R"({"row":"2\n"})");
    mService.Send(R"({"end":"service-ended"})");

    EXPECT_EQ(watch.ReadOutput(), "{\"left_out\":1,\"rows\":2}\n");
    EXPECT_EQ(watch.Wait(), 1);
}

TEST_F(CommandTest, ARecordingThatMayLackRowsIsAFailure)
{
    const std::vector<std::pair<std::string, std::string>> endings = {
        {"", "parvane-watch: the service has gone; the recording may lack its last rows\n"},
        {R"({"version":1,"ok":false,"error":{"code":"too-slow","message":"too slow"}})",
         "parvane-watch: too slow\n"},
        {"hello", "parvane-watch: the service broke the protocol: a message that is no JSON "
                  "object\n"}};
    for (const auto &[message, complaint] : endings) {
        Watch watch(Arguments({"record", "--force", File()}));
        StartRecording();
        mService.Send(R"({"row":"1\n"})");
        if (!message.empty()) {
            mService.Send(message);
        }
        mService.HangUp();

        EXPECT_EQ(watch.ReadErrors(), complaint);
        EXPECT_EQ(watch.Wait(), 1);
        EXPECT_EQ(Content(), "# head\nt_ms\n1\n");
    }
}

TEST_F(CommandTest, AReadingThatIsLeftOutIsSaidAndIsAFailureInTheEnd)
{
    Watch watch(Arguments({"record", File()}));
    StartRecording();
    mService.Send(R"({"left_out":"first"})");
    mService.Send(R"({"left_out":"second"})");
    mService.Send(R"({"row":"1\n"})");
    mService.Send(R"({"end":"service-ended"})");

    EXPECT_EQ(watch.ReadErrors(), "parvane-watch: a reading is left out: first\n"
                                  "parvane-watch: 2 readings were left out\n");
    EXPECT_EQ(watch.Wait(), 1);
    EXPECT_EQ(Content(), "# head\nt_ms\n1\n");
}

TEST_F(CommandTest, AFileThatExistsIsKeptUnlessForced)
{
    std::ofstream(File()) << "precious";
    Watch watch(Arguments({"record", File()}));
    AcceptRecording();
    EXPECT_EQ(watch.ReadErrors(),
              "parvane-watch: cannot make " + File() + ": File exists (--force overwrites it)\n");
    EXPECT_EQ(watch.Wait(), 1);
    EXPECT_EQ(Content(), "precious");

    Watch forced(Arguments({"record", "--force", File()}));
    StartRecording();
    mService.Send(R"({"end":"service-ended"})");
    EXPECT_EQ(forced.Wait(), 0);
    EXPECT_EQ(Content(), "# head\nt_ms\n");
}

TEST_F(CommandTest, AServiceThatRefusesToRecordCostsNobodyAFile)
{
    std::ofstream(File()) << "precious";
    Watch watch(Arguments({"record", "--force", File()}));
    mService.AcceptRequest();
    mService.Send(R"({"version":1,"ok":false,"error":{"code":"busy","message":"full"}})");

    EXPECT_EQ(watch.Wait(), 1);
    EXPECT_EQ(Content(), "precious");
}

TEST_F(CommandTest, AFullDiskEndsTheRecordingAtOnce)
{
    Watch watch(Arguments({"record", "--force", "/dev/full"}));
    StartRecording();
    EXPECT_EQ(watch.ReadErrors(),
              "parvane-watch: cannot write to /dev/full: No space left on device\n");
    EXPECT_EQ(watch.Wait(), 1);
}

TEST_F(CommandTest, ALimitOfTheSizeOfFilesIsAnErrorLikeAFullDisk)
{
    rlimit limit = {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit small = {20, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0); // what is started inherits it
    Watch watch(Arguments({"record", File()}));
    ::setrlimit(RLIMIT_FSIZE, &limit);
    StartRecording();
    mService.Send(R"({"row":"12345\n"})");
    mService.Send(R"({"row":"67890\n"})");

    EXPECT_EQ(watch.ReadErrors(),
              "parvane-watch: cannot write to " + File() + ": File too large\n");
    EXPECT_EQ(watch.Wait(), 1);
    EXPECT_EQ(Content(), "# head\nt_ms\n12345\n");
}

TEST_F(CommandTest, WhatTheServiceSaysCannotSteerTheTerminal)
{
    Watch watch(Arguments({"quit"}));
    mService.AcceptRequest();
    mService.Send(
        R"({"version":1,"ok":false,"error":{"code":"failed","message":"\u001b[2J\u009b2J"}})");

    EXPECT_EQ(watch.ReadErrors(), "parvane-watch: \\x1B[2J\\xC2\\x9B2J\n");
    EXPECT_EQ(watch.Wait(), 1);
}

TEST_F(CommandTest, AFifoThatNobodyReadsIsAnErrorAndHoldsNothingUp)
{
    ASSERT_EQ(::mkfifo(File().c_str(), 0600), 0);
    Watch watch(Arguments({"record", "--force", File()}));
    AcceptRecording();

    EXPECT_EQ(watch.ReadErrors(), "parvane-watch: cannot make " + File() +
                                      ": No such device or address (nobody reads from it)\n");
    EXPECT_EQ(watch.Wait(), 1);
}

TEST_F(CommandTest, ASignalEndsARecordingWhoseReaderTakesNothing)
{
    ASSERT_EQ(::mkfifo(File().c_str(), 0600), 0);
    const Parvane::UniqueFd reader(::open(File().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(reader);
    Watch watch(Arguments({"record", "--force", File()}));
    StartRecording();
    const std::string row = std::string(16000, '1');
    for (int i = 0; i < 6; ++i) {
        mService.Send(R"({"row":")" + row + R"(\n"})");
    }
    pollfd polled{reader.Get(), POLLIN, 0};
    ASSERT_EQ(::poll(&polled, 1, 30000), 1); // it has begun
    watch.Signal(SIGINT);
    watch.Signal(SIGTERM);

    EXPECT_EQ(watch.ReadErrors(), "parvane-watch: cannot write to " + File() +
                                      ": its reader takes no more; the recording lacks rows\n");
    EXPECT_EQ(watch.Wait(), 1);
}

TEST_F(CommandTest, RowsAreCountedOnATerminalOnly)
{
    Watch watch(Arguments({"record", File()}),
                {.mEnvironment = {{"TERM", "xterm"}}, .mErrorsToTerminal = true});
    StartRecording();
    mService.Send(R"({"row":"1\n"})");
    mService.Send(R"({"row":"2\n"})");
    mService.Send(R"({"end":"service-ended"})");

    EXPECT_THAT(watch.ReadErrors(), EndsWith("\r\033[K2 rows\r\n"));
    EXPECT_EQ(watch.Wait(), 0);
}

TEST_F(CommandTest, ARecordingGoesToStandardOutput)
{
    for (const char *name : {"-", "/dev/stdout"}) {
        Watch watch(Arguments({"record", name}));
        StartRecording();
        mService.Send(R"({"row":"5,60\n"})");
        mService.Send(R"({"end":"service"})");

        EXPECT_EQ(watch.ReadOutput(), "# head\nt_ms\n5,60\n");
        EXPECT_EQ(watch.ReadErrors(), "");
        EXPECT_EQ(watch.Wait(), 0);
        EXPECT_FALSE(std::filesystem::exists("-"));
    }
}

TEST_F(CommandTest, AReaderThatGoesEndsARecordingQuietly)
{
    Watch watch(Arguments({"record", "-"}));
    StartRecording();
    watch.ReadLine();
    watch.CloseOutput();
    mService.Send(R"({"row":"5,60\n"})");

    EXPECT_EQ(watch.ReadErrors(), "");
    EXPECT_EQ(watch.Wait(), 0);
}

TEST_F(CommandTest, ARecordingAndItsSummaryDoNotBothGoToStandardOutput)
{
    Watch watch({"--json", "record", "-"});
    EXPECT_THAT(watch.ReadErrors(), StartsWith("parvane-watch: record: --json and the recording"));
    EXPECT_EQ(watch.Wait(), 2);
}

TEST_F(CommandTest, WhatIsMissingOfTheStandardDescriptorsIsOpened)
{
    for (const int closed : {0, 1, 2}) {
        Watch watch(Arguments({"status", "--json"}), {.mEnvironment = {}, .mClosed = {closed}});
        mService.AcceptRequest();
        mService.Send(R"({"version":1,"ok":true,"status":{}})");
        EXPECT_EQ(watch.ReadOutput(), closed == 1 ? "" : "{}\n");
        EXPECT_EQ(watch.Wait(), 0) << closed;
    }
}

} // namespace
} // namespace ParvaneWatch
