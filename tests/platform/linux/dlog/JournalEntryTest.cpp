#include "JournalEntry.h"

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "LogPlace.h"

namespace ParvanePlatform {

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::SizeIs;
using testing::StartsWith;

std::vector<std::string> FieldsOf(const JournalEntry &entry)
{
    std::vector<std::string> fields;
    for (int i = 0; i < entry.Count(); ++i) {
        const iovec &field = entry.Fields()[i];
        fields.emplace_back(static_cast<const char *>(field.iov_base), field.iov_len);
    }
    return fields;
}

std::vector<std::string> Fields(LogPriority priority, std::string_view tag, const LogPlace *place,
                                std::string_view message)
{
    char buffer[512];
    const JournalEntry entry(buffer, sizeof buffer, priority, tag, place, message);
    EXPECT_LE(entry.Needed(), sizeof buffer);
    return FieldsOf(entry);
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
    char buffer[128];
    const std::string text(1000, 'x');
    const JournalEntry entry(buffer, sizeof buffer, LogPriority::Info, "t", nullptr,
                             "A: B(2) > " + text);
    const auto fields = FieldsOf(entry);
    ASSERT_THAT(fields, SizeIs(7));
    EXPECT_EQ(fields[5], "CODE_LINE=2");
    EXPECT_THAT(fields[6], StartsWith("MESSAGE=A: B(2) > xxx"));
    EXPECT_GT(entry.Needed(), 1000U);

    std::string large(entry.Needed(), '\0');
    const JournalEntry whole(large.data(), large.size(), LogPriority::Info, "t", nullptr,
                             "A: B(2) > " + text);
    EXPECT_EQ(whole.Needed(), large.size());
    EXPECT_THAT(FieldsOf(whole).back(), EndsWith(text));
}

TEST(JournalEntryTest, BufferWithoutAnyRoomIsLeftAlone)
{
    char buffer[4] = {'a', 'b', 'c', 'd'};
    const JournalEntry entry(buffer, 2, LogPriority::Info, "t", nullptr, "m");
    EXPECT_EQ(std::string(buffer, 4), "SYcd");
    EXPECT_THAT(FieldsOf(entry), ElementsAre("SY", "", "", ""));
}

} // namespace ParvanePlatform
