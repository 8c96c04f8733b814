#include "JournalEntry.h"

#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "LogPlace.h"

namespace ParvanePlatform {

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::SizeIs;
using testing::StartsWith;

std::vector<std::string> LinesOf(const std::string &entry)
{
    std::vector<std::string> lines;
    std::istringstream stream(entry);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> Fields(LogPriority priority, std::string_view tag, const LogPlace *place,
                                std::string_view message)
{
    std::string entry(512, '\0');
    const std::size_t needed =
        FormatJournalEntry(entry.data(), entry.size(), priority, tag, place, message);
    EXPECT_LE(needed, entry.size());
    entry.resize(needed);
    EXPECT_TRUE(entry.ends_with('\n'));
    return LinesOf(entry);
}

std::string Priority(LogPriority priority)
{
    return Fields(priority, "t", nullptr, "m").at(1);
}

} // namespace

TEST(JournalEntryTest, MessageOfTheServiceIsKeptWholeAndItsPlaceHasFields)
{
    EXPECT_THAT(Fields(LogPriority::Warning, "Parvane", nullptr,
                       "HRMController: Start(38) > \033[1;40;33malready registered\033[0;m"),
                ElementsAre("SYSLOG_IDENTIFIER=parvane", "PRIORITY=4", "PARVANE_TAG=Parvane",
                            "CODE_FILE=HRMController", "CODE_FUNC=Start", "CODE_LINE=38",
                            "MESSAGE=HRMController: Start(38) > already registered"));
}

TEST(JournalEntryTest, PlaceThatIsGivenWins)
{
    const LogPlace place = {"platform/linux/Runtime.cpp", "Runtime", 5};
    EXPECT_THAT(Fields(LogPriority::Error, "platform", &place, "A: B(2) > text"),
                ElementsAre("SYSLOG_IDENTIFIER=parvane", "PRIORITY=3", "PARVANE_TAG=platform",
                            "CODE_FILE=platform/linux/Runtime.cpp", "CODE_FUNC=Runtime",
                            "CODE_LINE=5", "MESSAGE=A: B(2) > text"));
}

TEST(JournalEntryTest, MessageWithoutAPlaceHasNoFieldsForIt)
{
    EXPECT_THAT(
        Fields(LogPriority::Info, "t", nullptr, "text"),
        ElementsAre("SYSLOG_IDENTIFIER=parvane", "PRIORITY=6", "PARVANE_TAG=t", "MESSAGE=text"));
}

TEST(JournalEntryTest, EachPriorityHasItsSyslogLevel)
{
    EXPECT_EQ(Priority(LogPriority::Verbose), "PRIORITY=7");
    EXPECT_EQ(Priority(LogPriority::Debug), "PRIORITY=7");
    EXPECT_EQ(Priority(LogPriority::Info), "PRIORITY=6");
    EXPECT_EQ(Priority(LogPriority::Warning), "PRIORITY=4");
    EXPECT_EQ(Priority(LogPriority::Error), "PRIORITY=3");
    EXPECT_EQ(Priority(LogPriority::Fatal), "PRIORITY=2");
    EXPECT_EQ(Priority(static_cast<LogPriority>(42)), "PRIORITY=6");
}

TEST(JournalEntryTest, NoControlCharacterAndNoColourReachesTheJournal)
{
    const auto fields = Fields(LogPriority::Info, "t\ng", nullptr,
                               "a\nMESSAGE=b\033[0;m\x01"
                               "c\033[2J\n");
    EXPECT_THAT(fields, Contains("PARVANE_TAG=t\\ng"));
    EXPECT_THAT(fields, Contains("MESSAGE=a\\nMESSAGE=b\\x01c\\x1b[2J"));
}

TEST(JournalEntryTest, WhatDoesNotFitIsCutFromTheMessage)
{
    const std::string message = "A: B(2) > " + std::string(1000, 'x');
    std::string entry(128, '\0');
    const std::size_t needed =
        FormatJournalEntry(entry.data(), entry.size(), LogPriority::Info, "t", nullptr, message);
    const auto fields = LinesOf(entry);
    ASSERT_THAT(fields, SizeIs(7));
    EXPECT_EQ(fields[5], "CODE_LINE=2");
    EXPECT_THAT(fields[6], StartsWith("MESSAGE=A: B(2) > xxx"));

    std::string whole(needed, '\0');
    EXPECT_EQ(
        FormatJournalEntry(whole.data(), whole.size(), LogPriority::Info, "t", nullptr, message),
        needed);
    EXPECT_EQ(LinesOf(whole).back(), "MESSAGE=" + message);
}

TEST(JournalEntryTest, BufferWithoutAnyRoomIsLeftAlone)
{
    char buffer[4] = {'a', 'b', 'c', 'd'};
    EXPECT_GT(FormatJournalEntry(buffer, 2, LogPriority::Info, "t", nullptr, "m"), 2U);
    EXPECT_EQ(std::string(buffer, 4), "SYcd");
}

} // namespace ParvanePlatform
