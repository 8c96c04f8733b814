#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../../watch/ExitCode.h"
#include "ExitCode.h"
#include "ExitCodeText.h"
#include "Program.h"

namespace ParvaneHost {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::StartsWith;

const std::string kSource = PARVANE_SOURCE_FOLDER;

struct Finished
{
    std::string mOutput;
    std::string mErrors;
    int mStatus = 0;
};

Finished RunOf(const std::vector<std::string> &command)
{
    Parvane::Program program(command, {});
    Finished run;
    run.mOutput = program.ReadOutput();
    run.mErrors = program.ReadErrors();
    run.mStatus = program.Wait();
    return run;
}

Finished RunShell(const std::string &command)
{
    return RunOf({"/bin/bash", "-c", command});
}

std::string ReadFile(const std::string &path)
{
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

/** Everything in `text` that `pattern` matches. */
std::set<std::string> Matches(const std::string &text, const char *pattern)
{
    const std::regex expression(pattern);
    std::set<std::string> matches;
    for (std::sregex_iterator match(text.begin(), text.end(), expression), end; match != end;
         ++match) {
        matches.insert(match->str());
    }
    return matches;
}

constexpr const char *kOption = "--[a-z][a-z-]*[a-z]";
constexpr const char *kWord = "[a-z][a-z-]*";

/** A command, and what of it is written down elsewhere. */
struct Command
{
    std::string mProgram;
    std::string mName;
};

/** For the names of the cases; without it the bytes of the texts would be printed, unset ones as well. */
void PrintTo(const Command &command, std::ostream *stream)
{
    *stream << command.mName;
}

class DocumentsTest : public testing::TestWithParam<Command>
{
protected:
    DocumentsTest()
    {
        const std::string help = RunOf({GetParam().mProgram, "--help"}).mOutput;
        std::istringstream lines(help.substr(help.find("Subcommands:")));
        std::string line;
        std::getline(lines, line);
        while (std::getline(lines, line) && line.starts_with("  ")) {
            if (line.at(2) != ' ') {
                mSubcommands.insert(line.substr(2, line.find(' ', 2) - 2));
            }
        }
        mOptions = Matches(help, kOption);
        for (const std::string &subcommand : mSubcommands) {
            mOptions.merge(
                Matches(RunOf({GetParam().mProgram, subcommand, "--help"}).mOutput, kOption));
        }
    }

    /** That `text` has every option, as `pattern` finds them, and the name of every subcommand. */
    void ExpectAllIn(const std::string &text, const char *pattern = kOption) const
    {
        EXPECT_THAT(Matches(text, pattern), IsSupersetOf(mOptions));
        EXPECT_THAT(Matches(text, kWord), IsSupersetOf(mSubcommands));
    }

    static std::string Completion(const std::string &file)
    {
        return kSource + "/packaging/completion/" + file;
    }

    std::set<std::string> mSubcommands;
    std::set<std::string> mOptions;
};

TEST_P(DocumentsTest, HelpHasSubcommandsAndOptions)
{
    EXPECT_GE(mSubcommands.size(), 5U);
    EXPECT_THAT(mOptions, IsSupersetOf({"--socket", "--json", "--help", "--version"}));
}

TEST_P(DocumentsTest, TheManualPageHasEveryOptionAndSubcommand)
{
    const std::string page = ReadFile(kSource + "/docs/man/" + GetParam().mName + ".1");
    ExpectAllIn(std::regex_replace(page, std::regex(R"(\\-)"), "-"));
}

TEST_P(DocumentsTest, TheCompletionsHaveEveryOptionAndSubcommand)
{
    ExpectAllIn(ReadFile(Completion(GetParam().mName + ".bash")));
    ExpectAllIn(ReadFile(Completion("_" + GetParam().mName)));
    // There an option is "-l name".
    const std::string fish = ReadFile(Completion(GetParam().mName + ".fish"));
    ExpectAllIn(std::regex_replace(fish, std::regex(" -l "), " --"));
}

TEST_P(DocumentsTest, TheCompletionsAreWellFormed)
{
    for (const auto &[shell, file] :
         {std::pair<std::string, std::string>{"bash", ".bash"}, {"zsh", ""}, {"fish", ".fish"}}) {
        const std::string name = (shell == "zsh" ? "_" : "") + GetParam().mName + file;
        // A shell that is not installed finds no fault.
        const Finished run = RunShell("! command -v " + shell + " >/dev/null || " + shell +
                                      " -n '" + Completion(name) + "'");
        EXPECT_EQ(run.mErrors, "") << name;
        EXPECT_EQ(run.mStatus, 0) << name;
    }
}

INSTANTIATE_TEST_SUITE_P(Commands, DocumentsTest,
                         testing::Values(Command{PARVANE_HOST_PROGRAM, "parvane-host"},
                                         Command{PARVANE_WATCH_PROGRAM, "parvane-watch"}),
                         [](const auto &instance) {
                             return instance.param.mName == "parvane-host" ? "Host" : "Watch";
                         });

/** What bash offers for the last of `words`, of which the first is the command. */
std::string Offered(const std::string &words)
{
    const std::string command = words.substr(0, words.find(' '));
    const std::string function = "_" + std::regex_replace(command, std::regex("-"), "_");
    return RunShell(". '" + kSource + "/packaging/completion/" + command + ".bash'; COMP_WORDS=(" +
                    words + "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); " + function +
                    "; echo \"${COMPREPLY[@]}\"")
        .mOutput;
}

TEST(CompletionTest, BashOffersWhatGoesOnFromThere)
{
    EXPECT_EQ(Offered("parvane-host me"), "measure\n");
    EXPECT_EQ(Offered("parvane-host --json measure h"), "hr\n");
    EXPECT_EQ(Offered("parvane-host measure hr --e"), "--every\n");
    EXPECT_EQ(Offered("parvane-host watch --e"), "\n");
    EXPECT_EQ(Offered("parvane-host watch a"), "activity all\n");
    EXPECT_EQ(Offered("parvane-host --timestamps u"), "unix\n");
    EXPECT_EQ(Offered("parvane-host --timeout 1"), "\n");
    EXPECT_EQ(Offered("parvane-host --socket /dev/nul"), "/dev/null\n");
    EXPECT_EQ(Offered("parvane-watch con"), "config\n");
    EXPECT_EQ(Offered("parvane-watch log w"), "warning\n");
    EXPECT_EQ(Offered("parvane-watch log --tags p"), "platform\n");
    EXPECT_EQ(Offered("parvane-watch play /dev/nul"), "/dev/null\n");
    EXPECT_EQ(Offered("parvane-watch play --se"), "--seed\n");
    EXPECT_EQ(Offered("parvane-watch play --speed 2"), "\n");
}

/** The manual pages. */
std::vector<std::string> Pages()
{
    std::vector<std::string> pages;
    for (const auto &page : std::filesystem::directory_iterator(kSource + "/docs/man")) {
        pages.push_back(page.path());
    }
    return pages;
}

TEST(ManualPageTest, MandocFindsNothingWrong)
{
    if (RunShell("command -v mandoc").mStatus != 0) {
        GTEST_SKIP() << "mandoc is not installed";
    }
    EXPECT_EQ(Pages().size(), 7U);
    for (const std::string &page : Pages()) {
        // The pages that it refers to are not installed here.
        EXPECT_EQ(RunShell("mandoc -T lint -W style '" + page +
                           "' 2>&1 | grep -v ': referenced manual not found: Xr parvane'")
                      .mOutput,
                  "");
    }
}

TEST(VersionTest, PagesAndChangelogHaveTheOneOfTheBuild)
{
    for (const std::string &page : Pages()) {
        EXPECT_THAT(ReadFile(page),
                    ContainsRegex("\\.(TH .*\"Parvane|Os Parvane) " PARVANE_HOST_VERSION "[\"\n]"))
            << page;
    }
    const std::string changes = ReadFile(kSource + "/CHANGELOG.md");
    EXPECT_THAT(changes, StartsWith("# Changes\n\n## " PARVANE_HOST_VERSION "\n"));
}

TEST(ManualPageTest, TheServicesHasItsArgumentsAndWhatItReads)
{
    const std::string page =
        std::regex_replace(ReadFile(kSource + "/docs/man/parvane.8"), std::regex(R"(\\-)"), "-");
    for (const char *text : {"--help", "--version", "SIGTERM", "SIGINT", "PARVANE_PLATFORM_CONF",
                             "/etc/parvane/platform.conf", "parvane-platform.conf"}) {
        EXPECT_THAT(page, HasSubstr(text));
    }
    // Every variable of the environment that the page on the configuration has.
    const std::string form = ReadFile(kSource + "/docs/man/parvane-platform.conf.5");
    const auto variables = Matches(form.substr(form.find(".Sh ENVIRONMENT")), "[A-Z]+_[A-Z_]+");
    EXPECT_GE(variables.size(), 8U);
    EXPECT_THAT(Matches(page, "[A-Z]+_[A-Z_]+"), IsSupersetOf(variables));
}

TEST(ExitCodeTest, HelpAndPagesHaveTheSameWords)
{
    const std::string control = ReadFile(kSource + "/docs/control.md");
    for (const std::string program : {PARVANE_HOST_PROGRAM, PARVANE_WATCH_PROGRAM}) {
        const std::string name = program.substr(program.rfind('/') + 1);
        const std::string page = ReadFile(kSource + "/docs/man/" + name + ".1");
        std::istringstream lines(Parvane::kExitCodeText);
        std::string line;
        std::getline(lines, line);
        EXPECT_THAT(RunOf({program, "--help"}).mOutput, HasSubstr(Parvane::kExitCodeText));
        int codes = 0;
        for (; std::getline(lines, line); ++codes) {
            const std::string code = line.substr(2, 1);
            const std::string meaning = line.substr(5);
            EXPECT_THAT(page, HasSubstr("\n.TP\n.B " + code + "\n" + meaning + "\n"));
            EXPECT_THAT(control, HasSubstr("\n| " + code + " | " + meaning + " |"));
        }
        EXPECT_EQ(codes, 5);
    }
}

TEST(ExitCodeTest, BothCommandsHaveTheSameForTheSame)
{
    EXPECT_EQ(static_cast<int>(ExitCode::Success),
              static_cast<int>(ParvaneWatch::ExitCode::Success));
    EXPECT_EQ(static_cast<int>(ExitCode::Failure),
              static_cast<int>(ParvaneWatch::ExitCode::Failure));
    EXPECT_EQ(static_cast<int>(ExitCode::BadUsage),
              static_cast<int>(ParvaneWatch::ExitCode::BadUsage));
    EXPECT_EQ(static_cast<int>(ExitCode::NoAnswer),
              static_cast<int>(ParvaneWatch::ExitCode::Unreachable));
}

TEST(ExitCodeTest, NobodyAtTheSocketIsTheSameInBothCommands)
{
    EXPECT_EQ(RunOf({PARVANE_HOST_PROGRAM, "--socket", "/nonexistent/socket", "list"}).mStatus, 3);
    EXPECT_EQ(RunOf({PARVANE_WATCH_PROGRAM, "--socket", "/nonexistent/socket", "status"}).mStatus,
              3);
    EXPECT_EQ(RunOf({PARVANE_HOST_PROGRAM, "frob"}).mStatus, 2);
    EXPECT_EQ(RunOf({PARVANE_WATCH_PROGRAM, "frob"}).mStatus, 2);
}

} // namespace
} // namespace ParvaneHost
