#include "Log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "LogMatchers.h"
#include "ScriptedPlatform.h"

namespace Parvane {
namespace {

using testing::ElementsAre;

class LogTest : public testing::Test
{
protected:
    ScriptedPlatform mPlatform;
};

TEST_F(LogTest, FileNameHasNeitherDirectoryNorExtension)
{
    EXPECT_STREQ("ParvaneMain", LogFileName("src/service/ParvaneMain.cpp").data());
    EXPECT_STREQ("ParvaneMain", LogFileName("/a.b/c/ParvaneMain.cpp").data());
    EXPECT_STREQ("ParvaneMain", LogFileName("/ParvaneMain.cpp").data());
    EXPECT_STREQ("ParvaneMain", LogFileName("ParvaneMain").data());
    EXPECT_STREQ("", LogFileName("src/service/").data());
}

void Trace()
{
    PARVANE_TRACE_AT(41);
}

TEST_F(LogTest, TraceKeepsItsLeadingBlank)
{
    Trace();

    EXPECT_THAT(mPlatform.TakeLog(),
                ElementsAre(LogLine{4, "Parvane", "LogTest: Trace(41) > \033[1;35m ###\033[0;m"}));
}

void Warn(int number)
{
    PARVANE_WARN_AT(42, "no number");
    PARVANE_WARN_AT(43, "a number [%d]", number);
}

TEST_F(LogTest, WarningPrintsTheLineThatItIsGiven)
{
    Warn(-7);

    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(
            LogLine{5, "Parvane", "LogTest: Warn(42) > \033[1;40;33mno number\033[0;m"},
            LogLine{5, "Parvane", "LogTest: Warn(43) > \033[1;40;33ma number [-7]\033[0;m"}));
}

void Fail(const char *text)
{
    PARVANE_ERROR_AT(44, "no text");
    PARVANE_ERROR_AT(45, "a text [%s]", text);
}

TEST_F(LogTest, ErrorPrintsTheLineThatItIsGiven)
{
    Fail("%d %s"); // no format

    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(
            LogLine{6, "Parvane", "LogTest: Fail(44) > \033[0;40;31mno text\033[0;m"},
            LogLine{6, "Parvane", "LogTest: Fail(45) > \033[0;40;31ma text [%d %s]\033[0;m"}));
}

// Each returns the line in which it logs.
// clang-format off
int WarnHere() { PARVANE_WARN("here"); return __LINE__; }
int FailHere() { PARVANE_ERROR("%c", 'x'); return __LINE__; }
// clang-format on

TEST_F(LogTest, OtherLinesPrintTheLineOfTheirCall)
{
    const std::string warned = std::to_string(WarnHere());
    const std::string failed = std::to_string(FailHere());

    EXPECT_THAT(
        mPlatform.TakeLog(),
        ElementsAre(
            LogLine{5, "Parvane", "LogTest: WarnHere(" + warned + ") > \033[1;40;33mhere\033[0;m"},
            LogLine{6, "Parvane", "LogTest: FailHere(" + failed + ") > \033[0;40;31mx\033[0;m"}));
}

// The matcher that the tests compare lines with.
TEST_F(LogTest, StarOfAnExpectedLineStandsForANumberAndNothingElse)
{
    EXPECT_TRUE(IsLineOf("F: f(12) > x", "F: f(*) > x"));
    EXPECT_TRUE(IsLineOf("F: f(12) > x", "F: f(12) > x"));
    EXPECT_FALSE(IsLineOf("F: f() > x", "F: f(*) > x"));
    EXPECT_FALSE(IsLineOf("F: f(1a) > x", "F: f(*) > x"));
    EXPECT_FALSE(IsLineOf("F: g(12) > x", "F: f(*) > x"));
    EXPECT_FALSE(IsLineOf("F: f(12) > xy", "F: f(*) > x"));
    EXPECT_FALSE(IsLineOf("F: f(13) > x", "F: f(12) > x"));
}

} // namespace
} // namespace Parvane
