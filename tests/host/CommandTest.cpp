#include <algorithm>
#include <bit>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <signal.h> // NOLINT(modernize-deprecated-headers): the signals are POSIX
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Program.h"
#include "ScriptedWatch.h"

namespace ParvaneHost {
namespace {

using nlohmann::json;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

/** At once, but for an emulated or sanitized program on a busy machine. */
constexpr std::chrono::milliseconds kSoon{10000};

/** One run of parvane-host. */
class Host : public Parvane::Program
{
public:
    explicit Host(std::vector<std::string> arguments, const Options &options = {})
        : Program(Command(std::move(arguments)), WithoutHome(options))
    {}

private:
    /** It keeps nothing, unless told where. */
    static Options WithoutHome(Options options)
    {
        options.mEnvironment.insert({{"HOME", ""}, {"XDG_STATE_HOME", ""}});
        return options;
    }

    static std::vector<std::string> Command(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), PARVANE_HOST_PROGRAM);
        return arguments;
    }
};

// The first two bytes of a reading's value; the others are 0.
const Bytes kZero{0x00, 0x00};
const Bytes kOne{0x3F, 0x80};
const Bytes kTwo{0x40, 0x00};
const Bytes kSeventyTwo{0x42, 0x90};

/** A reading with the flags of `request`. */
Bytes ReadingFor(const Bytes &request, std::uint8_t command, const Bytes &value = kTwo)
{
    const auto first = static_cast<std::uint8_t>(request.at(0) / 16 * 16 + command);
    return {first, 0x00, 0x0E, request.at(3), 0x11,        0x00,        0x00, 0x00, 0x00,
            0x00,  0x0F, 0x42, 0x40,          value.at(0), value.at(1), 0x00, 0x00, 0x00};
}

Bytes AcknowledgementOf(const Bytes &stop)
{
    return {stop.at(0), 0x02, 0x00, stop.at(3)};
}

/** What a request asks for, whatever its flags: command, and the bytes from the sensor on. */
Bytes Asked(const Bytes &request)
{
    Bytes asked{static_cast<std::uint8_t>(request.at(0) % 16)};
    asked.insert(asked.end(), request.begin() + 3, request.end());
    return asked;
}

class CommandTest : public testing::Test
{
protected:
    [[nodiscard]] std::vector<std::string> Arguments(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), {"--socket", mWatch.Path()});
        return arguments;
    }

    /** Accepts the program's link and answers the stop and the start of the activity. */
    void StartActivity()
    {
        mWatch.Accept();
        const Bytes stop = mWatch.Receive();
        EXPECT_EQ(Asked(stop), (Bytes{4, 1}));
        mWatch.Send(AcknowledgementOf(stop));
        mStart = mWatch.Receive();
        EXPECT_EQ(Asked(mStart), (Bytes{3, 1, 0}));
        mWatch.Send(ReadingFor(mStart, 3));
    }

    void AnswerStop()
    {
        const Bytes stop = mWatch.Receive();
        EXPECT_EQ(Asked(stop), (Bytes{4, 1}));
        mWatch.Send(AcknowledgementOf(stop));
    }

    [[nodiscard]] std::string StateFolder() const
    {
        return mWithState.mEnvironment.at("XDG_STATE_HOME") + "/parvane-host";
    }

    ScriptedWatch mWatch;
    const Host::Options mWithState{.mEnvironment = {{"XDG_STATE_HOME", mWatch.Path() + ".state"}}};
    Bytes mStart;
};

void SendList(ScriptedWatch &watch)
{
    watch.Accept();
    const auto first = static_cast<std::uint8_t>(0x80 + watch.Receive().at(0));
    watch.Send({first, 0x80, 0x0A, 0x03, 0x00, 0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF, 0x01});
    watch.Send({first, 0x01, 0x15, 0x43, 0x03, 0x01, 0x43, 0x48, 0x00, 0x00, 0x3F, 0x80, 0x00,
                0x00,  0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x3A, 0x98, 0x00, 0x00, 0x00});
}

TEST_F(CommandTest, ListPrintsATable)
{
    Host host(Arguments({"list"}));
    SendList(mWatch);

    EXPECT_EQ(host.ReadOutput(), "Bluetooth address: AA:BB:CC:DD:EE:FF\n"
                                 "SENSOR  ID  RANGE     RESOLUTION  MINIMUM DELAY  AVAILABLE\n"
                                 "hr      3   0 to 200  1           15000 ms       yes\n");
    EXPECT_EQ(host.ReadErrors(), "");
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, ListInJsonIsAnObjectALine)
{
    Host host(Arguments({"list", "--json"}));
    SendList(mWatch);

    EXPECT_EQ(json::parse(host.ReadLine()).at("address"), "AA:BB:CC:DD:EE:FF");
    EXPECT_EQ(json::parse(host.ReadLine()).at("sensor"), "hr");
    EXPECT_EQ(host.ReadOutput(), "");
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, TheSocketMayComeFromTheEnvironment)
{
    Host host({"measure", "hr"}, {.mEnvironment = {{"PARVANE_LINK", mWatch.Path()}}});
    mWatch.Accept();
    const Bytes request = mWatch.Receive();
    EXPECT_EQ(Asked(request), (Bytes{2, 3}));
    mWatch.Send(ReadingFor(request, 2, kSeventyTwo));

    EXPECT_EQ(host.ReadOutput(), "heart rate: 72 bpm\n");
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, MeasureInJsonIsOneObject)
{
    Host host(Arguments({"measure", "hr", "--json"}));
    mWatch.Accept();
    mWatch.Send(ReadingFor(mWatch.Receive(), 2, kSeventyTwo));

    const auto object = json::parse(host.ReadOutput());
    EXPECT_EQ(object.at("value"), 72);
    EXPECT_EQ(object.at("unit"), "bpm");
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, NoProgressIsShownWhereStandardErrorIsNoTerminal)
{
    Host host(Arguments({"measure", "hr"}), {.mEnvironment = {{"TERM", "xterm"}}});
    mWatch.Accept();
    mWatch.Send(ReadingFor(mWatch.Receive(), 2));

    EXPECT_EQ(host.ReadErrors(), "");
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, ProgressIsShownOnATerminalAndRemovedByTheAnswer)
{
    Host host(Arguments({"measure", "hr"}),
              {.mEnvironment = {{"TERM", "xterm"}}, .mErrorsToTerminal = true});
    mWatch.Accept();
    const Bytes request = mWatch.Receive();
    EXPECT_THAT(host.ReadErrorsUntil("[#...."), StartsWith("\r\033[Kheart rate [......"));
    mWatch.Send(ReadingFor(request, 2, kSeventyTwo));

    EXPECT_EQ(host.ReadOutput(), "heart rate: 72 bpm\n");
    EXPECT_THAT(host.ReadErrors(), EndsWith("\r\033[K"));
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, NoProgressIsShownOnADumbTerminalOrWithJson)
{
    for (const auto &[terminal, option] :
         {std::pair<std::string, std::string>{"dumb", "--timeout=5"}, {"xterm", "--json"}}) {
        Host host(Arguments({"measure", "hr", option}),
                  {.mEnvironment = {{"TERM", terminal}}, .mErrorsToTerminal = true});
        mWatch.Accept();
        mWatch.Send(ReadingFor(mWatch.Receive(), 2));

        EXPECT_EQ(host.ReadErrors(), "");
        EXPECT_EQ(host.Wait(), 0);
    }
}

TEST_F(CommandTest, ASilentWatchIsExitCodeThree)
{
    Host host(Arguments({"measure", "hr", "--timeout", "0.05"}));
    mWatch.Accept();

    EXPECT_EQ(host.ReadOutput(), "");
    EXPECT_EQ(host.ReadErrors(),
              "parvane-host: no answer to the measurement of 'hr' within 0.05 s\n"
              "parvane-host: is its link up, and is a source configured for it on the watch? "
              "'parvane-watch status' there tells, and its last reading\n");
    EXPECT_EQ(host.Wait(), 3);
}

TEST_F(CommandTest, ASilentWatchMayHaveItsLinkDown)
{
    for (const char *command : {"list", "stop"}) {
        Host host(Arguments({command, "--timeout", "0.05"}));
        mWatch.Accept();
        EXPECT_THAT(host.ReadErrors(), EndsWith("\nparvane-host: is its link up? 'parvane-watch "
                                                "status' on the watch tells\n"));
        EXPECT_EQ(host.Wait(), 3);
    }
}

TEST_F(CommandTest, NoUsableReadingIsExitCodeFourAndSaysWhatToLookAt)
{
    Host host(Arguments({"measure", "hr"}));
    mWatch.Accept();
    mWatch.Send(ReadingFor(mWatch.Receive(), 2, kZero));

    EXPECT_EQ(host.ReadOutput(), "heart rate: no usable reading\n");
    EXPECT_EQ(host.ReadErrors(),
              "parvane-host: is a source configured for it on the watch? 'parvane-watch status' "
              "there tells, and its last reading\n");
    EXPECT_EQ(host.Wait(), 4);
}

TEST_F(CommandTest, AWatchThatIsNotWornSaysSoWithItsHeartRate)
{
    Host host(Arguments({"measure", "hr"}));
    mWatch.Accept();
    const Bytes heartRate = mWatch.Receive();
    mWatch.Send(ReadingFor(mWatch.Receive(), 2, kZero));
    mWatch.Send(ReadingFor(heartRate, 2, kZero));

    EXPECT_EQ(host.ReadOutput(), "heart rate: no reading: the watch is not worn\n");
    EXPECT_EQ(host.Wait(), 4);
}

TEST_F(CommandTest, TheTotalOfTheStepsSaysWhatItIs)
{
    Host host(Arguments({"measure", "steps", "--raw"}));
    mWatch.Accept();
    mWatch.Send(ReadingFor(mWatch.Receive(), 2));

    EXPECT_EQ(host.ReadOutput(), "steps: total on the wire 2\n");
    EXPECT_THAT(host.ReadErrors(), EndsWith("docs/wire-format.md#the-total-of-the-day\n"));
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, StepsAreThoseWalkedAndAskedForTwice)
{
    Host host(Arguments({"measure", "steps"}));
    mWatch.Accept();
    mWatch.Send(ReadingFor(mWatch.Receive(), 2));
    mWatch.Send(ReadingFor(mWatch.Receive(), 2, kSeventyTwo));

    EXPECT_THAT(host.ReadOutput(), ContainsRegex("^steps: 0 since [0-9:]{5}, exact\n$"));
    EXPECT_EQ(host.ReadErrors(), "");
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, StepsGoOnFromRunToRun)
{
    for (const char *steps : {"0 since", "70 since"}) { // counts of 0, and of 70
        Host host(Arguments({"measure", "steps"}), mWithState);
        mWatch.Accept();
        mWatch.Send(ReadingFor(mWatch.Receive(), 2));
        const bool isFirst = steps[0] == '0';
        mWatch.Send(ReadingFor(mWatch.Receive(), 2, isFirst ? kTwo : kSeventyTwo));
        EXPECT_THAT(host.ReadOutput(), StartsWith("steps: " + std::string(steps)));
        EXPECT_EQ(host.ReadErrors(), "");
        EXPECT_EQ(host.Wait(), 0);
    }
    mWatch.StopListening();
    Host today(Arguments({"today"}), mWithState);
    EXPECT_THAT(today.ReadOutput(), ContainsRegex("^[0-9-]{10}: 70 steps since [0-9:]{5}, exact, "
                                                  "as of [0-9:]{5}\n$"));
    EXPECT_EQ(today.Wait(), 3);
    Host without(Arguments({"today", "--no-state", "--json"}), mWithState);
    EXPECT_TRUE(json::parse(without.ReadLine()).at("steps").is_null());
}

TEST_F(CommandTest, OneRunAtATimeKeepsTheSteps)
{
    Host watch(Arguments({"watch", "steps"}), mWithState);
    mWatch.Accept();
    const Bytes request = mWatch.Receive();
    mWatch.Send(ReadingFor(request, 2));
    mWatch.Send(ReadingFor(mWatch.Receive(), 2, kSeventyTwo));
    EXPECT_THAT(watch.ReadLine(), ContainsRegex("  steps: 0 since [0-9:]{5}, exact$"));

    Host today(Arguments({"today", "--timeout", "0.1"}), mWithState);
    EXPECT_THAT(today.ReadErrors(), HasSubstr("another parvane-host counts there"));
    EXPECT_EQ(today.Wait(), 3);
    watch.Signal(SIGINT);
    EXPECT_EQ(watch.Wait(), 0);
}

TEST_F(CommandTest, DamagedStepsAreSetAside)
{
    std::filesystem::create_directories(StateFolder());
    std::string name = mWatch.Path();
    std::replace(name.begin(), name.end(), '/', '%');
    const std::string file = StateFolder() + "/steps" + name;
    std::ofstream(file) << "parvane-steps 1\nsum 0\n";
    mWatch.StopListening();

    Host host(Arguments({"today"}), mWithState);
    EXPECT_THAT(host.ReadErrors(), HasSubstr("it is damaged; it is kept as .unread"));
    EXPECT_EQ(host.Wait(), 3);
    EXPECT_TRUE(std::filesystem::exists(file + ".unread"));
}

TEST_F(CommandTest, StepsThatAreNoFileHoldNothingUp)
{
    std::filesystem::create_directories(StateFolder());
    std::string name = mWatch.Path();
    std::replace(name.begin(), name.end(), '/', '%');
    ASSERT_EQ(::mkfifo((StateFolder() + "/steps" + name).c_str(), 0600), 0);
    mWatch.StopListening();

    Host host(Arguments({"today"}), mWithState);
    EXPECT_THAT(host.ReadErrors(), HasSubstr(": Invalid argument"));
    EXPECT_EQ(host.Wait(), 3);
}

TEST_F(CommandTest, AServiceThatIsJustStartingIsWaitedFor)
{
    const std::string link = mWatch.Path() + ".later";
    Host host({"stop", "--socket", link, "--wait"});
    ::usleep(100000);
    std::filesystem::rename(mWatch.Path(), link);
    mWatch.Accept();
    AnswerStop();

    EXPECT_EQ(host.ReadErrors(), "");
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, AServiceThatDoesNotStartIsWaitedForNoLongerThanTold)
{
    Host host({"stop", "--socket", "/nonexistent/link.sock", "--wait", "0.1"});
    EXPECT_THAT(host.ReadErrors(), HasSubstr("No such file or directory"));
    EXPECT_EQ(host.Wait(), 3);

    Host interrupted({"stop", "--socket", "/nonexistent/link.sock", "--wait", "60"});
    ::usleep(200000);
    interrupted.Signal(SIGINT);
    EXPECT_EQ(interrupted.Wait(), -SIGINT);
}

TEST_F(CommandTest, MeasurementsAreRepeatedAsOftenAsTold)
{
    Host host(
        Arguments({"measure", "hr", "--every", "0.1s", "--count", "2", "--timestamps", "unix"}));
    mWatch.Accept();
    const auto begin = std::chrono::steady_clock::now();
    mWatch.Send(ReadingFor(mWatch.Receive(), 2, kZero));
    EXPECT_EQ(Asked(mWatch.Receive()), (Bytes{2, 4})) << "is it worn?";
    mWatch.Send(ReadingFor(mWatch.Receive(), 2, kSeventyTwo));

    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds{50});
    EXPECT_THAT(host.ReadLine(),
                ContainsRegex("^[0-9]+\\.[0-9]{3}  heart rate: no usable reading$"));
    EXPECT_THAT(host.ReadLine(), ContainsRegex("^[0-9]+\\.[0-9]{3}  heart rate: 72 bpm$"));
    EXPECT_EQ(host.ReadOutput(), "");
    EXPECT_EQ(host.Wait(), 0) << "one was usable";
}

TEST_F(CommandTest, WhatIsPushedBetweenMeasurementsIsNoAnswer)
{
    Host host(Arguments({"measure", "steps", "--raw", "--every", "0.2", "--count", "2"}));
    mWatch.Accept();
    const Bytes first = mWatch.Receive();
    mWatch.Send(ReadingFor(first, 2));
    for (int push = 0; push < 3; ++push) {
        mWatch.Send(ReadingFor(first, 2, kSeventyTwo));
    }
    host.ReadLine();
    mWatch.Send(ReadingFor(mWatch.Receive(), 2));

    EXPECT_THAT(host.ReadLine(), EndsWith("total on the wire 2"));
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, ASignalEndsARowOfMeasurements)
{
    Host host(Arguments({"measure", "hr", "--every", "60", "--json"}));
    mWatch.Accept();
    mWatch.Send(ReadingFor(mWatch.Receive(), 2, kSeventyTwo));
    EXPECT_EQ(json::parse(host.ReadLine()).at("value"), 72);

    host.Signal(SIGINT);

    EXPECT_EQ(host.ReadErrors(), "");
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, WatchingHeartRateMeasuresAgainAndAgain)
{
    Host host(Arguments({"watch", "hr"}));
    mWatch.Accept();
    bool isWornUnknown = true;
    for (const bool isUsable : {false, true, false}) {
        const Bytes request = mWatch.Receive();
        EXPECT_EQ(Asked(request), (Bytes{2, 3}));
        if (std::exchange(isWornUnknown, false)) {
            const Bytes question = mWatch.Receive();
            EXPECT_EQ(Asked(question), (Bytes{2, 4}));
            mWatch.Send(ReadingFor(question, 2));
        }
        mWatch.Send(ReadingFor(request, 2, isUsable ? kSeventyTwo : kZero));
        EXPECT_THAT(host.ReadLine(), EndsWith(isUsable ? "  heart rate: 72 bpm, worn"
                                                       : "  heart rate: no usable reading"));
    }
    host.Signal(SIGTERM);

    EXPECT_EQ(host.ReadErrors(),
              "parvane-host: is a source configured for it on the watch? 'parvane-watch status' "
              "there tells, and its last reading\n")
        << "once";
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, ATimeThatIsTooShortForAnyReadingIsExitCodeThree)
{
    Host host(Arguments({"watch", "hr", "--for", "0.1"}));
    mWatch.Accept();
    mWatch.Receive();

    EXPECT_EQ(host.ReadErrors(),
              "parvane-host: no answer to the measurement of 'hr' within 0.1 s\n");
    EXPECT_EQ(host.Wait(), 3);
}

TEST_F(CommandTest, WatchingAllAsksForEverySensor)
{
    Host host(Arguments({"watch", "all", "--json", "--raw"}));
    StartActivity();
    for (std::uint8_t sensor = 2; sensor <= 4; ++sensor) {
        const Bytes request = mWatch.Receive();
        EXPECT_EQ(Asked(request), (Bytes{2, sensor}));
        mWatch.Send(ReadingFor(request, 2));
    }
    for (const char *sensor : {"activity", "steps", "hr", "wear"}) {
        EXPECT_EQ(json::parse(host.ReadLine()).at("sensor"), sensor);
    }
    EXPECT_EQ(Asked(mWatch.Receive()), (Bytes{2, 3})) << "the next measurement";
    host.Signal(SIGINT);
    AnswerStop();

    EXPECT_EQ(host.ReadErrors(), "");
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, NoSocketIsExitCodeThree)
{
    Host host({"list", "--socket", "/nonexistent/link.sock"});

    EXPECT_EQ(host.ReadErrors(),
              "parvane-host: cannot connect to /nonexistent/link.sock: No such file or "
              "directory (is the watch service running?)\n");
    EXPECT_EQ(host.Wait(), 3);
}

TEST_F(CommandTest, ASecondHostIsToldOfTheFirst)
{
    Host host(Arguments({"measure", "steps"}));
    mWatch.Accept();
    mWatch.HangUp();

    EXPECT_EQ(host.ReadErrors(),
              "parvane-host: the watch closed the link " + mWatch.Path() +
                  " at once: another host is connected, or it does not serve this user\n");
    EXPECT_EQ(host.Wait(), 3);
}

TEST_F(CommandTest, ABrokenPacketIsExitCodeOne)
{
    Host host(Arguments({"measure", "steps"}));
    mWatch.Accept();
    mWatch.Send({0x00});

    EXPECT_THAT(host.ReadErrors(),
                StartsWith("parvane-host: the watch broke the protocol: packet size"));
    EXPECT_EQ(host.Wait(), 1);
}

TEST_F(CommandTest, WrongUsageIsExitCodeTwoWithoutTouchingTheLink)
{
    for (const auto &arguments : {std::vector<std::string>{"measure", "pulse"},
                                  {"raw", "0g"},
                                  {"watch", "frob"},
                                  {"frob"},
                                  {"list", "--timeout", "never"}}) {
        Host host(Arguments(arguments));
        EXPECT_EQ(host.ReadOutput(), "");
        EXPECT_THAT(host.ReadErrors(), EndsWith("\nTry 'parvane-host --help'.\n"));
        EXPECT_EQ(host.Wait(), 2);
    }
}

TEST_F(CommandTest, HelpAndVersionGoToStandardOutput)
{
    Host help({"--help"});
    EXPECT_THAT(help.ReadOutput(), HasSubstr("Exit codes:"));
    EXPECT_EQ(help.Wait(), 0);

    Host version({"--version"});
    EXPECT_EQ(version.ReadOutput(), "parvane-host " PARVANE_HOST_VERSION "\n");
    EXPECT_EQ(version.Wait(), 0);
}

TEST_F(CommandTest, StopSaysWhatWasStopped)
{
    Host host(Arguments({"stop"}));
    mWatch.Accept();
    AnswerStop();

    EXPECT_EQ(host.ReadOutput(), "activity: stopped\n");
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, WatchPrintsEachStateAsItComesOnce)
{
    Host host(Arguments({"watch", "activity"}));
    StartActivity();
    EXPECT_THAT(host.ReadLine(), EndsWith("  activity: running"));
    mWatch.Send(ReadingFor(mStart, 3));
    mWatch.Send(ReadingFor(mStart, 3));
    mWatch.Send(ReadingFor(mStart, 3, kOne));
    EXPECT_THAT(host.ReadLine(), EndsWith("  activity: walking"));

    host.Signal(SIGINT);
    AnswerStop();

    EXPECT_EQ(host.ReadOutput(), "");
    EXPECT_EQ(host.ReadErrors(), "");
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, WatchEndsCleanlyOnSigterm)
{
    Host host(Arguments({"watch", "activity", "--json"}));
    StartActivity();
    EXPECT_EQ(json::parse(host.ReadLine()).at("activity"), "running");
    mWatch.Send(ReadingFor(mStart, 3));
    EXPECT_EQ(json::parse(host.ReadLine()).at("activity"), "running")
        << "programs get each reading";

    host.Signal(SIGTERM);
    AnswerStop();

    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, WatchEndsByItselfAfterItsTime)
{
    Host host(Arguments({"watch", "activity", "--for", "0.3"}));
    StartActivity();
    EXPECT_THAT(host.ReadLine(), EndsWith("  activity: running"));
    AnswerStop();

    EXPECT_EQ(host.ReadErrors(), "");
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, WatchingStepsEndsWithoutAStop)
{
    Host host(Arguments({"watch", "steps", "--raw"}));
    mWatch.Accept();
    const Bytes request = mWatch.Receive();
    EXPECT_EQ(Asked(request), (Bytes{2, 2}));
    mWatch.Send(ReadingFor(request, 2));
    EXPECT_THAT(host.ReadLine(), EndsWith("  steps: total on the wire 2"));

    host.Signal(SIGINT);

    EXPECT_TRUE(mWatch.SeesHostLeave());
    EXPECT_EQ(host.Wait(), 0);
}

// A process that was stopped reads what the link had room for, and then what is new; what came in
// between was dropped.
TEST_F(CommandTest, StepsAreNotCountedTooHighByAProcessThatWasStopped)
{
    const auto reading = [](const Bytes &request, float total) {
        const auto bits = std::bit_cast<std::uint32_t>(total);
        Bytes packet = ReadingFor(request, 2);
        for (unsigned byte = 0; byte < 4; ++byte) {
            packet[13 + byte] = static_cast<std::uint8_t>(bits >> (24 - 8 * byte));
        }
        return packet;
    };
    Host host(Arguments({"watch", "steps", "--json"}));
    mWatch.Accept();
    mWatch.Send(reading(mWatch.Receive(), 0));
    const Bytes request = mWatch.Receive();
    mWatch.Send(reading(request, 0));
    host.ReadLine();
    host.ReadLine();
    host.Signal(SIGSTOP);
    float total = 0;
    for (float count = 1; count <= 200; ++count) { // the next 800 are dropped
        mWatch.Send(reading(request, total += count));
    }
    host.Signal(SIGCONT);
    const Bytes first = mWatch.Receive();
    mWatch.Send(reading(request, 500500 + 1000)); // a push before the answer
    mWatch.Send(reading(first, 500500 + 2000));

    json line = json::parse(host.ReadLine());
    while (line.at("value") != 502500) {
        EXPECT_LE(line.at("steps"), 1000) << line;
        line = json::parse(host.ReadLine());
    }
    EXPECT_EQ(line.at("steps"), 1000) << "all that were walked";
    host.Signal(SIGINT);
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, WatchMakesALostLinkAgain)
{
    Host host(Arguments({"watch", "activity"}));
    StartActivity();
    host.ReadLine();
    mWatch.HangUp();
    StartActivity();

    EXPECT_THAT(host.ReadLine(), EndsWith("  activity: running"));
    host.ReadErrorsUntil("parvane-host: connected again\n");
    host.Signal(SIGINT);
    AnswerStop();
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, AWatchThatIsNotAllowedToStopSaysSo)
{
    Host host(Arguments({"watch", "activity", "--timeout", "1.5"}));
    StartActivity();
    host.ReadLine();
    host.Signal(SIGINT);
    mWatch.Receive(); // the stop, which is not acknowledged

    EXPECT_EQ(host.ReadErrors(),
              "parvane-host: no answer to the stop of 'activity' within 1.5 s\n");
    EXPECT_EQ(host.Wait(), 3);
}

TEST_F(CommandTest, ASecondSignalEndsAWatchThatWaitsForTheAcknowledgement)
{
    Host host(Arguments({"watch", "activity"}));
    StartActivity();
    host.ReadLine();
    host.Signal(SIGINT);
    mWatch.Receive();
    host.Signal(SIGTERM);

    EXPECT_EQ(host.Wait(), -SIGTERM);
}

TEST_F(CommandTest, AMeasurementDiesOfItsSignalAndLeavesTheLineClean)
{
    Host host(Arguments({"measure", "hr"}),
              {.mEnvironment = {{"TERM", "xterm"}}, .mErrorsToTerminal = true});
    mWatch.Accept();
    mWatch.Receive();
    host.ReadErrorsUntil("heart rate [");
    host.Signal(SIGINT);

    EXPECT_THAT(host.ReadErrors(), EndsWith("\r\033[K"));
    EXPECT_EQ(host.Wait(), -SIGINT);
}

TEST_F(CommandTest, AReaderThatGoesEndsAWatchQuietly)
{
    Host host(Arguments({"watch", "activity"}));
    StartActivity();
    host.ReadLine();
    const auto begin = std::chrono::steady_clock::now();
    host.CloseOutput();

    EXPECT_TRUE(mWatch.SeesHostLeave());
    EXPECT_EQ(host.ReadErrors(), "");
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, kSoon);
}

TEST_F(CommandTest, AReaderThatGoesEndsAMeasurementQuietly)
{
    Host host(Arguments({"measure", "hr"}));
    mWatch.Accept();
    mWatch.Receive();
    host.CloseOutput();

    EXPECT_EQ(host.ReadErrors(), "");
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, TheTimeOfAWatchBoundsASilentServiceToo)
{
    Host host(Arguments({"watch", "steps", "--for", "0.2"}));

    EXPECT_EQ(host.ReadErrors(),
              "parvane-host: no answer to the measurement of 'steps' within 0.2 s\n");
    EXPECT_EQ(host.Wait(), 3);
}

TEST_F(CommandTest, AStartWithoutAnAnswerIsToldOnce)
{
    Host host(Arguments({"watch", "activity", "--timeout", "0.2", "--for", "20"}));
    mWatch.Accept();
    mWatch.Receive();

    EXPECT_EQ(host.ReadErrors(),
              "parvane-host: no answer to the stop of 'activity' within 0.2 s\n");
    EXPECT_EQ(host.Wait(), 3);
}

TEST_F(CommandTest, TheTimeOfAWatchBoundsTheStopToo)
{
    Host host(Arguments({"watch", "activity", "--for", "0.3"}));
    StartActivity();
    mWatch.Receive(); // the stop, which is not acknowledged

    EXPECT_EQ(host.ReadErrors(),
              "parvane-host: no answer to the stop of 'activity' within 0.5 s\n");
    EXPECT_EQ(host.Wait(), 3);
}

TEST_F(CommandTest, WhatIsMissingOfTheStandardDescriptorsIsOpened)
{
    for (const int closed : {0, 1, 2}) {
        Host host(Arguments({"stop"}), {.mEnvironment = {}, .mClosed = {closed}});
        mWatch.Accept();
        AnswerStop();
        EXPECT_EQ(host.ReadOutput(), closed == 1 ? "" : "activity: stopped\n");
        EXPECT_EQ(host.Wait(), 0) << closed;
    }
}

TEST_F(CommandTest, HelpThatCannotBeWrittenIsAFailure)
{
    Host help({"--help"}, {.mEnvironment = {}, .mOutputToFull = true});
    EXPECT_EQ(help.ReadErrors(),
              "parvane-host: cannot write to standard output: No space left on device\n");
    EXPECT_EQ(help.Wait(), 1);
}

TEST_F(CommandTest, OutputThatCannotBeWrittenIsAFailure)
{
    Host host(Arguments({"stop"}), {.mEnvironment = {}, .mOutputToFull = true});
    mWatch.Accept();
    AnswerStop();

    EXPECT_EQ(host.ReadErrors(),
              "parvane-host: cannot write to standard output: No space left on device\n");
    EXPECT_EQ(host.Wait(), 1);
}

TEST_F(CommandTest, RawSendsPacketsAndPrintsRepliesUntilTheLinkIsQuiet)
{
    Host host(Arguments({"raw", "14 00 00:03", "ff", "--quiet-for", "1000"}));
    mWatch.Accept();
    EXPECT_EQ(mWatch.Receive(), (Bytes{0x14, 0x00, 0x00, 0x03}));
    EXPECT_EQ(mWatch.Receive(), (Bytes{0xFF}));
    mWatch.Send({0x14, 0x02, 0x00, 0x03});
    mWatch.Send({0x00});

    EXPECT_EQ(host.ReadOutput(),
              "14 02 00 03\n"
              "  stop acknowledged: hr (3), flags 1\n"
              "00\n"
              "  not understood: packet size (offset 1): expected 4, 13, 18 or 25 "
              "bytes, found 1 bytes\n");
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, RawInJsonIsAnObjectAPacket)
{
    Host host(Arguments({"raw", "14000003", "--quiet-for", "1000", "--json"}));
    mWatch.Accept();
    mWatch.Receive();
    mWatch.Send({0x14, 0x02, 0x00, 0x03});

    EXPECT_EQ(json::parse(host.ReadOutput()).at("reply").at("type"), "stopped");
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, RawEndsAtItsTimeoutEvenWhenTheLinkIsNotQuiet)
{
    Host host(Arguments({"raw", "01", "--quiet-for", "60000", "--timeout", "1"}));
    mWatch.Accept();
    mWatch.Receive();
    mWatch.Send({0x14, 0x02, 0x00, 0x03});

    EXPECT_THAT(host.ReadOutput(), StartsWith("14 02 00 03\n"));
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, RawSaysThatNothingCame)
{
    Host host(Arguments({"raw", "02", "--quiet-for", "100"}));
    mWatch.Accept();
    mWatch.Receive();

    EXPECT_EQ(host.ReadErrors(), "parvane-host: no packet came\n");
    EXPECT_EQ(host.Wait(), 0);
}

TEST_F(CommandTest, RawEndsWhileTheWatchPushes)
{
    Host host(Arguments({"raw", "01"}));
    mWatch.Accept();
    mWatch.Receive();
    const auto begin = std::chrono::steady_clock::now();
    const auto isInTime = [begin] {
        return std::chrono::steady_clock::now() - begin < std::chrono::seconds{30};
    };
    try {
        while (isInTime()) {
            mWatch.Send({0x14, 0x02, 0x00, 0x03});
            ::usleep(100000);
        }
    } catch (const std::runtime_error &) {
        // The program has gone.
    }

    EXPECT_TRUE(isInTime());
    EXPECT_EQ(host.Wait(), 0);
}

/** Captures to a file in a folder of its own. */
class CaptureTest : public CommandTest
{
protected:
    CaptureTest() : mPath(mWatch.Path() + ".pcapng") {}
    ~CaptureTest() override { std::filesystem::remove(mPath); }

    [[nodiscard]] std::vector<std::string> Captured(std::vector<std::string> arguments) const
    {
        arguments.insert(arguments.begin(), {"--capture", mPath});
        return Arguments(std::move(arguments));
    }

    /** Who sends the packets of the file, which has to be whole: '>' the phone, '<' the watch. */
    [[nodiscard]] std::string Senders() const
    {
        constexpr std::size_t kBeginning = 48;
        std::ifstream file(mPath, std::ios::binary);
        const std::string content{std::istreambuf_iterator<char>(file), {}};
        std::string senders;
        std::size_t offset = kBeginning;
        while (offset < content.size()) {
            const auto length = static_cast<unsigned char>(content.at(offset + 4));
            senders += content.at(offset + length - 12) == 2 ? '>' : '<';
            EXPECT_EQ(content.at(offset + length - 4), content.at(offset + 4));
            offset += length;
        }
        EXPECT_EQ(offset, content.size());
        return senders;
    }

    std::string mPath;
};

TEST_F(CaptureTest, AFolderIsNoCapture)
{
    Host host({"export", "/"});

    EXPECT_EQ(host.ReadErrors(), "parvane-host: export: cannot read '/': Is a directory\n");
    EXPECT_EQ(host.Wait(), 1);
}

TEST_F(CaptureTest, EveryPacketOfAListIsInTheFile)
{
    Host host(Captured({"list"}));
    SendList(mWatch);

    EXPECT_EQ(host.Wait(), 0) << host.ReadErrors();
    EXPECT_EQ(Senders(), "><<");
}

TEST_F(CaptureTest, TheFileIsWholeAfterASignalThatCannotBeCaught)
{
    Host host(Captured({"watch", "activity"}));
    StartActivity();
    host.ReadLine();
    mWatch.Send(ReadingFor(mStart, 3, kOne));
    host.ReadLine();

    host.Signal(SIGKILL);
    EXPECT_EQ(host.Wait(), -SIGKILL);

    EXPECT_EQ(Senders(), "><><<");
}

TEST_F(CaptureTest, TheFileHasTheStopThatCtrlCLeadsTo)
{
    Host host(Captured({"watch", "activity"}));
    StartActivity();
    host.ReadLine();

    host.Signal(SIGINT);
    AnswerStop();

    EXPECT_EQ(host.Wait(), 0) << host.ReadErrors();
    EXPECT_EQ(Senders(), "><><><");
}

TEST_F(CaptureTest, AFileThatCannotBeWrittenIsAFailureBeforeTheLinkIsTouched)
{
    Host host(Arguments({"--capture", "/dev/full", "--force", "list"}));

    EXPECT_EQ(host.Wait(), 1);
    EXPECT_EQ(host.ReadErrors(),
              "parvane-host: cannot write the capture to '/dev/full': No space left on device\n");
}

TEST_F(CaptureTest, AFileThatIsThereIsOverwrittenOnlyWithForce)
{
    std::ofstream(mPath) << "dear";
    Host refused(Captured({"list"}));
    EXPECT_EQ(refused.Wait(), 1);
    EXPECT_EQ(refused.ReadErrors(), "parvane-host: cannot write the capture to '" + mPath +
                                        "': File exists (--force overwrites it)\n");
    EXPECT_EQ(std::filesystem::file_size(mPath), 4U);

    Host host(Captured({"list", "--force"}));
    SendList(mWatch);
    EXPECT_EQ(host.Wait(), 0) << host.ReadErrors();
    EXPECT_EQ(Senders(), "><<");
}

TEST_F(CommandTest, RawReportsALinkThatIsClosed)
{
    Host host(Arguments({"raw", "01", "--quiet-for", "60000"}));
    mWatch.Accept();
    mWatch.Receive();
    mWatch.Send({0x14, 0x02, 0x00, 0x03});
    mWatch.HangUp();

    EXPECT_THAT(host.ReadOutput(), StartsWith("14 02 00 03\n"));
    EXPECT_EQ(host.ReadErrors(), "parvane-host: the watch closed the link " + mWatch.Path() + "\n");
    EXPECT_EQ(host.Wait(), 1);
}

} // namespace
} // namespace ParvaneHost
