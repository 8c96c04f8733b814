#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ConfigFile.h"
#include "ConfigSchema.h"
#include "TestSupport.h"

namespace ParvanePlatform {

namespace {

using testing::ElementsAreArray;
using testing::IsEmpty;

/** "section.key" of everything that there is. */
std::vector<std::string> KeysOfTheSchema()
{
    std::vector<std::string> keys;
    for (const ConfigKey &key : ConfigSchema()) {
        keys.push_back(key.mSection + "." + key.mName);
    }
    return keys;
}

std::vector<std::string> LinesOf(const std::string &path)
{
    std::istringstream text(ReadFile(path));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool IsName(const std::string &text)
{
    return !text.empty() && text.find_first_not_of("abcdefghijklmnopqrstuvwxyz_") == text.npos;
}

/** The key that a line of the sample would set without its comment mark; empty when it is none. */
std::string KeyOfSampleLine(const std::string &line)
{
    const std::size_t end = line.find('=');
    if (!line.starts_with('#') || end == std::string::npos) {
        return {};
    }
    const std::string name = line.substr(1, end - 1);
    return IsName(name) ? name : std::string();
}

std::vector<std::string> ProblemsOf(const Configuration &configuration)
{
    std::vector<std::string> problems;
    for (const ConfigProblem &problem : configuration.mProblems) {
        problems.push_back(ToString("sample", problem));
    }
    return problems;
}

/** What a shell command prints, and how it ends. */
struct Outcome
{
    std::string mOutput;
    int mStatus = -1;
};

Outcome RunShell(const std::string &command)
{
    Outcome outcome;
    FILE *const pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return outcome;
    }
    for (int character = std::fgetc(pipe); character != EOF; character = std::fgetc(pipe)) {
        outcome.mOutput += static_cast<char>(character);
    }
    outcome.mStatus = pclose(pipe);
    return outcome;
}

bool IsInstalled(const std::string &program)
{
    return RunShell("command -v " + program).mStatus == 0;
}

} // namespace

TEST(ConfigDocumentsTest, TheManualNamesExactlyTheKeysThatThereAre)
{
    const std::string head = ".Ss [";
    const std::string item = ".It Cm ";
    std::string section;
    std::vector<std::string> keys;
    for (const std::string &line : LinesOf(CONFIG_MAN_PAGE)) {
        if (line.starts_with(head)) {
            section = line.substr(head.size(), line.find(']') - head.size());
        } else if (line.starts_with(".Sh")) {
            section.clear();
        } else if (line.starts_with(item) && !section.empty()) {
            keys.push_back(section + "." + line.substr(item.size()));
        }
    }
    EXPECT_THAT(keys, ElementsAreArray(KeysOfTheSchema()));
}

TEST(ConfigDocumentsTest, TheSampleNamesExactlyTheKeysThatThereAre)
{
    std::string section;
    std::vector<std::string> keys;
    for (const std::string &line : LinesOf(CONFIG_SAMPLE)) {
        if (line.starts_with('[')) {
            section = line.substr(1, line.find(']') - 1);
        } else if (const std::string key = KeyOfSampleLine(line); !key.empty()) {
            keys.push_back(section);
            keys.back().append(".").append(key);
        } else {
            EXPECT_TRUE(line.empty() || line.starts_with("# ") || line == "#") << line;
        }
    }
    EXPECT_THAT(keys, ElementsAreArray(KeysOfTheSchema()));
}

TEST(ConfigDocumentsTest, TheSampleAsItIsGivesTheDefaults)
{
    const Configuration configuration =
        ParseConfiguration(CONFIG_SAMPLE, ReadFile(CONFIG_SAMPLE), "");
    EXPECT_THAT(ProblemsOf(configuration), IsEmpty());
    EXPECT_EQ(configuration.mSettings, Settings());
}

TEST(ConfigDocumentsTest, TheSampleWithoutItsCommentMarksGivesTheDefaults)
{
    std::string text;
    for (const std::string &line : LinesOf(CONFIG_SAMPLE)) {
        text += (KeyOfSampleLine(line).empty() ? line : line.substr(1)) + "\n";
    }
    const Configuration configuration = ParseConfiguration(CONFIG_SAMPLE, text, "");
    EXPECT_THAT(ProblemsOf(configuration), IsEmpty());
    EXPECT_EQ(configuration.mLines.size(), ConfigSchema().size());
    EXPECT_EQ(configuration.mSettings, Settings());
}

TEST(ConfigDocumentsTest, MandocFindsNothingInTheManual)
{
    if (!IsInstalled("mandoc")) {
        GTEST_SKIP() << "mandoc is not installed";
    }
    const Outcome lint = RunShell("mandoc -T lint -W style '" CONFIG_MAN_PAGE "'");
    EXPECT_EQ(lint.mOutput, "");
    EXPECT_EQ(lint.mStatus, 0);
}

TEST(ConfigDocumentsTest, GroffFindsNothingInTheManual)
{
    if (!IsInstalled("groff")) {
        GTEST_SKIP() << "groff is not installed";
    }
    const Outcome lint = RunShell("groff -mandoc -Tutf8 -ww -z -rLL=100n '" CONFIG_MAN_PAGE "'");
    EXPECT_EQ(lint.mOutput, "");
    EXPECT_EQ(lint.mStatus, 0);
}

} // namespace ParvanePlatform
