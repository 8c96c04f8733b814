#include "JournalStream.h"

#include <cerrno>
#include <cstdarg>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "LogWriter.h"
#include "ScopedEnvironment.h"
#include "TestSupport.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

using Parvane::IsJournalStream;

namespace {

std::string StreamOf(int fd)
{
    struct stat status = {};
    EXPECT_EQ(fstat(fd, &status), 0);
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

int WriteLine(LogWriter &writer, const char *format, ...) __attribute__((format(printf, 2, 3)));

int WriteLine(LogWriter &writer, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int result = writer.Write(LogPriority::Info, "tag", nullptr, format, arguments);
    va_end(arguments);
    return result;
}

} // namespace

/** A socket pair in the place of the journal's stream. */
class JournalStreamTest : public testing::Test
{
protected:
    JournalStreamTest()
    {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        mStream.Reset(fds[0]);
        mOther.Reset(fds[1]);
    }

    Parvane::UniqueFd mStream;
    Parvane::UniqueFd mOther;
    ScopedEnvironment mEnvironment;
};

TEST_F(JournalStreamTest, DescriptorThatTheVariableNamesIsTheJournal)
{
    mEnvironment.Set("JOURNAL_STREAM", StreamOf(mStream.Get()));
    EXPECT_TRUE(IsJournalStream(mStream.Get()));
}

TEST_F(JournalStreamTest, OutputThatWasTurnedElsewhereIsNot)
{
    mEnvironment.Set("JOURNAL_STREAM", StreamOf(mStream.Get()));
    EXPECT_FALSE(IsJournalStream(mOther.Get()));
    EXPECT_FALSE(IsJournalStream(-1));
}

TEST_F(JournalStreamTest, MissingOrMalformedVariableNamesNothing)
{
    mEnvironment.Set("JOURNAL_STREAM", std::nullopt);
    EXPECT_FALSE(IsJournalStream(mStream.Get()));
    const std::string stream = StreamOf(mStream.Get());
    for (const std::string &value :
         {std::string(), std::string(":"), std::string("8"), stream + " ", " " + stream,
          stream + ":1", "-" + stream, std::string("99999999999999999999:1")}) {
        mEnvironment.Set("JOURNAL_STREAM", value);
        EXPECT_FALSE(IsJournalStream(mStream.Get())) << value;
    }
}

// This machine's journal must not see the test's lines: there is none behind the descriptor, and
// whether the system has one decides where they go.
TEST_F(JournalStreamTest, LinesGoToTheDescriptorWhereThereIsNoJournal)
{
    if (FileExists("/run/systemd/journal/socket")) {
        GTEST_SKIP() << "this machine has a journal; the end-to-end tests have one of their own";
    }
    mEnvironment.Set("JOURNAL_STREAM", StreamOf(mStream.Get()));
    LogWriter writer(mStream.Get());
    errno = 7;
    EXPECT_EQ(WriteLine(writer, "A: B(2) > \033[0;mtext"), 47);
    EXPECT_EQ(errno, 7);
    char line[128] = {};
    EXPECT_EQ(recv(mOther.Get(), line, sizeof line - 1, MSG_DONTWAIT), 47);
    EXPECT_STREQ(line + 24, " I tag: A: B(2) > text\n");
}

TEST_F(JournalStreamTest, StreamThatNobodyReadsHoldsNothingUp)
{
    if (FileExists("/run/systemd/journal/socket")) {
        GTEST_SKIP() << "this machine has a journal; the end-to-end tests have one of their own";
    }
    mEnvironment.Set("JOURNAL_STREAM", StreamOf(mStream.Get()));
    LogWriter writer(mStream.Get());
    int result = 0;
    for (int i = 0; i < 100'000 && result >= 0; ++i) {
        result = WriteLine(writer, "line %d", i);
    }
    EXPECT_EQ(result, -EAGAIN);
}

} // namespace ParvanePlatform
