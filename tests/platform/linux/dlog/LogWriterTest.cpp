#include "LogWriter.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <platform/dlog.h>

#include "TestSupport.h"
#include "UniqueFd.h"

namespace ParvanePlatform {

namespace {

/** 2026-01-31, 12:34:56.789 UTC. */
constexpr std::int64_t kWallMs = 1769862896789;

std::string Format(LogPriority priority, std::string_view message,
                   LogColours colours = LogColours::Strip, std::string_view tag = "Parvane")
{
    char line[512];
    const std::size_t size =
        FormatLogLine(line, sizeof line, kWallMs, priority, tag, message, colours);
    EXPECT_LE(size, sizeof line);
    return {line, size};
}

std::string FormatMessage(std::string_view message, LogColours colours = LogColours::Strip)
{
    const std::string head = "2026-01-31T12:34:56.789Z I Parvane: ";
    const std::string line = Format(LogPriority::Info, message, colours);
    EXPECT_EQ(line.substr(0, head.size()), head);
    return line.substr(head.size());
}

int WriteLine(LogWriter &log, const char *format, ...) __attribute__((format(printf, 2, 3)));

int WriteLine(LogWriter &log, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int result = log.Write(LogPriority::Info, "tag", nullptr, format, arguments);
    va_end(arguments);
    return result;
}

int WriteLine(int fd, const char *format, ...) __attribute__((format(printf, 2, 3)));

int WriteLine(int fd, const char *format, ...)
{
    LogWriter log(fd);
    va_list arguments;
    va_start(arguments, format);
    const int result = log.Write(LogPriority::Info, "tag", nullptr, format, arguments);
    va_end(arguments);
    return result;
}

} // namespace

TEST(LogWriterTest, LineHasTimePriorityTagAndMessage)
{
    EXPECT_EQ(Format(LogPriority::Warning, "message"),
              "2026-01-31T12:34:56.789Z W Parvane: message\n");
}

TEST(LogWriterTest, EachPriorityHasItsLetter)
{
    EXPECT_EQ(Format(LogPriority::Verbose, "m"), "2026-01-31T12:34:56.789Z V Parvane: m\n");
    EXPECT_EQ(Format(LogPriority::Debug, "m"), "2026-01-31T12:34:56.789Z D Parvane: m\n");
    EXPECT_EQ(Format(LogPriority::Info, "m"), "2026-01-31T12:34:56.789Z I Parvane: m\n");
    EXPECT_EQ(Format(LogPriority::Error, "m"), "2026-01-31T12:34:56.789Z E Parvane: m\n");
    EXPECT_EQ(Format(LogPriority::Fatal, "m"), "2026-01-31T12:34:56.789Z F Parvane: m\n");
    EXPECT_EQ(Format(static_cast<LogPriority>(42), "m"), "2026-01-31T12:34:56.789Z ? Parvane: m\n");
}

TEST(LogWriterTest, ColoursAreKeptForTerminalsOnly)
{
    EXPECT_EQ(FormatMessage("a \033[1;40;33mb\033[0;m", LogColours::Keep),
              "a \033[1;40;33mb\033[0;m\n");
    EXPECT_EQ(FormatMessage("a \033[1;40;33mb\033[0;m", LogColours::Strip), "a b\n");
}

TEST(LogWriterTest, OtherEscapeSequencesAreNeverPassedOn)
{
    EXPECT_EQ(FormatMessage("\033[2Ja", LogColours::Keep), "\\x1b[2Ja\n");
    EXPECT_EQ(FormatMessage("\033[1;", LogColours::Keep), "\\x1b[1;\n");
    EXPECT_EQ(FormatMessage("\033", LogColours::Keep), "\\x1b\n");
    EXPECT_EQ(FormatMessage("\302\233"
                            "2J"),
              "\\xc2\\x9b2J\n");
}

TEST(LogWriterTest, LineEndsAtTheEndAreDropped)
{
    EXPECT_EQ(FormatMessage("a\n"), "a\n");
    EXPECT_EQ(FormatMessage("a\r\n\n"), "a\n");
    EXPECT_EQ(FormatMessage("a\n\033[0;m"), "a\n");
    EXPECT_EQ(FormatMessage("a\n\033[0;m", LogColours::Keep), "a\033[0;m\n");
}

TEST(LogWriterTest, ControlCharactersInsideDoNotBreakTheLine)
{
    EXPECT_EQ(FormatMessage("a\nb\rc\td\x01"
                            "e\x7f"),
              "a\\nb\\rc\\td\\x01e\\x7f\n");
    EXPECT_EQ(Format(LogPriority::Info, "m", LogColours::Keep, "t\ng"),
              "2026-01-31T12:34:56.789Z I t\\ng: m\n");
}

TEST(LogWriterTest, WhatTurnsTheDirectionOfALineOrIsNoTextIsNotPassedOn)
{
    EXPECT_EQ(FormatMessage("a\xE2\x80\xAE"
                            "b \xE2\x81\xA6"
                            "c\xE2\x80\x8F"),
              "a\\xe2\\x80\\xaeb \\xe2\\x81\\xa6c\\xe2\\x80\\x8f\n");
    EXPECT_EQ(FormatMessage("\xFF gr\xFCn \xE2\x80"), "\\xff gr\\xfcn \\xe2\\x80\n");
}

TEST(LogWriterTest, PrintableTextPassesUnchanged)
{
    EXPECT_EQ(FormatMessage("gr\303\274n \302\260C \360\237\221\215"),
              "gr\303\274n \302\260C \360\237\221\215\n");
}

TEST(LogWriterTest, LineThatDoesNotFitTellsWhatItNeeds)
{
    char line[16];
    EXPECT_EQ(
        FormatLogLine(line, sizeof line, kWallMs, LogPriority::Info, "t", "abc", LogColours::Strip),
        34U);
    EXPECT_EQ(std::string(line, sizeof line), "2026-01-31T12:34");
}

TEST(LogWriterTest, EachLineIsOneWrite)
{
    int fds[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds), 0);
    const Parvane::UniqueFd writer(fds[0]);
    const Parvane::UniqueFd reader(fds[1]);

    const std::string text(5000, 'x');
    EXPECT_EQ(WriteLine(writer.Get(), "%s", "short"), 38);
    EXPECT_EQ(WriteLine(writer.Get(), "%s", text.c_str()), 5033);

    char packet[8192];
    EXPECT_EQ(recv(reader.Get(), packet, sizeof packet, MSG_DONTWAIT), 38);
    EXPECT_EQ(recv(reader.Get(), packet, sizeof packet, MSG_DONTWAIT), 5033);
    EXPECT_EQ(std::string(packet + 25, 5008), "I tag: " + text + "\n");
}

TEST(LogWriterTest, WithoutMemoryALongLineIsCutAndNotLost)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the address sanitizer ends a program without memory";
#endif
    constexpr int kNoLimit = 2;
    const Parvane::UniqueFd file(open("/dev/null", O_WRONLY | O_CLOEXEC));
    const std::string text(std::size_t{8} << 20U, 'x');
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const rlimit limit = {0, 0};
        setrlimit(RLIMIT_AS, &limit);
        const std::unique_ptr<void, decltype(&std::free)> block(std::malloc(text.size()),
                                                                &std::free);
        if (block != nullptr) {
            _exit(kNoLimit);
        }
        _exit(WriteLine(file.Get(), "%s", text.c_str()) == 33 + 2047 ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WEXITSTATUS(status) == kNoLimit) {
        GTEST_SKIP() << "memory cannot be limited here";
    }
    EXPECT_EQ(status, 0);
}

TEST(LogWriterTest, TargetIsLookedAtOnce)
{
    const Parvane::UniqueFd master(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_TRUE(master && grantpt(master.Get()) == 0 && unlockpt(master.Get()) == 0);
    const Parvane::UniqueFd terminal(open(ptsname(master.Get()), O_RDWR | O_NOCTTY));
    int fds[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    const Parvane::UniqueFd writer(fds[0]);
    const Parvane::UniqueFd reader(fds[1]);
    LogWriter log(writer.Get());
    EXPECT_EQ(WriteLine(log, "\033[1m%s", "a"), 34);

    // A terminal takes its place, and is not asked for.
    ASSERT_EQ(dup2(terminal.Get(), writer.Get()), writer.Get());
    EXPECT_EQ(WriteLine(log, "\033[1m%s", "a"), 34);
}

TEST(LogWriterTest, TerminalGetsColours)
{
    const Parvane::UniqueFd master(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_TRUE(master && grantpt(master.Get()) == 0 && unlockpt(master.Get()) == 0);
    const Parvane::UniqueFd terminal(open(ptsname(master.Get()), O_RDWR | O_NOCTTY));
    ASSERT_TRUE(terminal);

    LogWriter log(terminal.Get());
    log.SetFilter({static_cast<int>(LogPriority::Info), ""});
    EXPECT_EQ(WriteLine(log, "\033[1;35m%s\033[0;m", "###"), 48);

    char text[128] = {};
    EXPECT_EQ(read(master.Get(), text, sizeof text - 1), 49); // the terminal adds a '\r'
    EXPECT_STREQ(text + 24, " I tag: \033[1;35m###\033[0;m\r\n");
}

namespace {

/** The numbers of the priorities, from 0 on, of which a line is written. */
std::string Written(LogWriter &log, const char *tag, ...)
{
    va_list arguments;
    va_start(arguments, tag);
    std::string written;
    for (int priority = 0; priority < 9; ++priority) {
        const int size =
            log.Write(static_cast<LogPriority>(priority), tag, nullptr, "m", arguments);
        written += size > 0 ? std::to_string(priority) : "";
    }
    va_end(arguments);
    return written;
}

} // namespace

TEST(LogWriterTest, EveryLineIsWrittenUnlessToldOtherwise)
{
    const Parvane::UniqueFd file(open("/dev/null", O_WRONLY));
    LogWriter log(file.Get());
    EXPECT_EQ(Written(log, "tag"), "012345678");
    log.SetFilter({0, ""});
    EXPECT_EQ(Written(log, "tag"), "012345678");
}

TEST(LogWriterTest, ATerminalGetsWarningsUnlessToldOtherwise)
{
    const Parvane::UniqueFd master(posix_openpt(O_RDWR | O_NOCTTY));
    ASSERT_TRUE(master && grantpt(master.Get()) == 0 && unlockpt(master.Get()) == 0);
    const Parvane::UniqueFd terminal(open(ptsname(master.Get()), O_RDWR | O_NOCTTY));
    LogWriter log(terminal.Get());
    EXPECT_EQ(Written(log, "tag"), "5678");
    log.SetFilter({4, ""});
    EXPECT_EQ(Written(log, "tag"), "45678");
}

TEST(LogWriterTest, LinesBelowTheLevelAndOfOtherTagsAreLeftOut)
{
    const Parvane::UniqueFd file(open("/dev/null", O_WRONLY));
    LogWriter log(file.Get());
    log.SetFilter({6, ""});
    EXPECT_EQ(Written(log, "tag"), "678");
    log.SetFilter({LogFilter::kAutomatic, "one,tag"});
    EXPECT_EQ(Written(log, "tag"), "012345678");
    EXPECT_EQ(Written(log, "one"), "012345678");
    EXPECT_EQ(Written(log, "on"), "678");
    EXPECT_EQ(Written(log, "one,tag"), "678");
    log.SetFilter({5, "one"});
    EXPECT_EQ(Written(log, "one"), "5678");
    EXPECT_EQ(log.Filter(), (LogFilter{5, "one"}));
}

TEST(LogWriterTest, FailedWriteIsTold)
{
    errno = 7;
    EXPECT_EQ(WriteLine(-1, "%s", "text"), -EBADF);
    EXPECT_EQ(errno, 7);
}

TEST(LogWriterTest, PlatformLogWritesToStandardError)
{
    StderrCapture capture;
    EXPECT_EQ(__dlog_print(0, 6, "Parvane", "%s: %d", "number", 5), 46);
    EXPECT_EQ(__dlog_print(0, 4, nullptr, "no tag"), 37);
    int (*const unchecked)(int, int, const char *, const char *, ...) = __dlog_print;
    EXPECT_EQ(unchecked(0, 4, "Parvane", nullptr), -22);
    EXPECT_EQ(capture.Take(), "E Parvane: number: 5\nI -: no tag\n");
}

} // namespace ParvanePlatform
