#include "LogWriter.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

#include "Clock.h"
#include "JournalEntry.h"
#include "JournalStream.h"

namespace ParvanePlatform {

using Parvane::IsJournalStream;

namespace {

constexpr std::size_t kStackBytes = 2048;

// Constant-initialized and never destroyed: lines are logged before and after everything else.
union Forever
{
    constexpr Forever() : mWriter(STDERR_FILENO) {}
    ~Forever() {} // NOLINT(modernize-use-equals-default): that would be deleted
    LogWriter mWriter;
};
constinit Forever gStandardError;

struct Free
{
    void operator()(char *block) const noexcept { std::free(block); }
};

char LetterOf(LogPriority priority)
{
    constexpr std::string_view kLetters = "??VDIWEF";
    const auto index = static_cast<std::size_t>(priority);
    return index < kLetters.size() ? kLetters[index] : '?';
}

int WriteOnce(int fd, const char *line, std::size_t size, bool isStream)
{
    for (;;) {
        // A journal that does not read must not hold the service up.
        const ssize_t written = isStream ? ::send(fd, line, size, MSG_DONTWAIT | MSG_NOSIGNAL)
                                         : ::write(fd, line, size);
        if (written >= 0) {
            return static_cast<int>(written);
        }
        if (errno != EINTR) {
            return -errno;
        }
    }
}

} // namespace

LogWriter &StandardErrorLog()
{
    return gStandardError.mWriter;
}

std::size_t FormatLogLine(char *line, std::size_t size, std::int64_t wallMs, LogPriority priority,
                          std::string_view tag, std::string_view message, LogColours colours)
{
    LogText text(line, size);
    text.AddTime(wallMs);
    text.Add(' ');
    text.Add(LetterOf(priority));
    text.Add(' ');
    text.AddMessage(tag, LogColours::Strip);
    text.Add(": ");
    text.AddMessage(message, colours);
    text.Add('\n');
    return text.Needed();
}

void LogWriter::SetFilter(const LogFilter &filter)
{
    mFilter = std::make_unique<const LogFilter>(filter);
}

bool LogWriter::IsWritten(LogPriority priority, std::string_view tag) const
{
    const LogFilter *const filter = mFilter.get();
    int least = filter != nullptr ? filter->mLevel : LogFilter::kAutomatic;
    if (least == LogFilter::kAutomatic) {
        least = mTarget == Target::Terminal ? static_cast<int>(LogPriority::Warning) : 0;
    }
    if (static_cast<int>(priority) < least) {
        return false;
    }
    std::string_view tags = filter != nullptr ? filter->mTags : std::string_view();
    bool isOne = tags.empty() || priority >= LogPriority::Error;
    while (!isOne && !tags.empty()) {
        const std::size_t end = std::min(tags.find(','), tags.size());
        isOne = tags.substr(0, end) == tag;
        tags.remove_prefix(std::min(end + 1, tags.size()));
    }
    return isOne;
}

int LogWriter::Write(LogPriority priority, const char *tag, const LogPlace *place,
                     const char *format, va_list arguments)
{
    const int savedErrno = errno;
    if (mTarget == Target::Unknown) {
        mTarget = FindTarget();
        errno = savedErrno;
    }
    if (!IsWritten(priority, tag)) {
        return 0;
    }
    char shortMessage[kStackBytes];
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(shortMessage, sizeof shortMessage, format, arguments);
    if (length < 0) {
        va_end(again);
        errno = savedErrno;
        return -EINVAL;
    }
    std::string_view message(shortMessage, static_cast<std::size_t>(length));
    std::unique_ptr<char, Free> longMessage;
    if (message.size() >= sizeof shortMessage) {
        const std::size_t size = message.size() + 1;
        longMessage.reset(static_cast<char *>(std::malloc(size)));
        // Without memory the line is cut, not lost.
        message = std::string_view(shortMessage, sizeof shortMessage - 1);
        if (longMessage != nullptr && std::vsnprintf(longMessage.get(), size, format, again) >= 0) {
            message = std::string_view(longMessage.get(), size - 1);
        }
    }
    va_end(again);

    // Looked at each time: the descriptor may have been given another meaning.
    const bool isStream = mTarget == Target::Journal && IsJournalStream(mFd);
    int result = isStream ? SendToJournal(priority, tag, place, message) : -ENOTCONN;
    if (result < 0) {
        result = WriteLine(priority, tag, message, isStream);
    }
    errno = savedErrno;
    return result;
}

LogWriter::Target LogWriter::FindTarget() const
{
    if (IsJournalStream(mFd)) {
        return Target::Journal;
    }
    return ::isatty(mFd) == 1 ? Target::Terminal : Target::Other;
}

int LogWriter::WriteLine(LogPriority priority, std::string_view tag, std::string_view message,
                         bool isStream) const
{
    const LogColours colours = mTarget == Target::Terminal ? LogColours::Keep : LogColours::Strip;
    const std::int64_t wallMs = SystemClock().WallMs();
    char shortLine[kStackBytes + 256];
    char *line = shortLine;
    std::size_t size =
        FormatLogLine(shortLine, sizeof shortLine, wallMs, priority, tag, message, colours);
    std::unique_ptr<char, Free> longLine;
    if (size > sizeof shortLine) {
        longLine.reset(static_cast<char *>(std::malloc(size)));
        if (longLine != nullptr) {
            line = longLine.get();
            FormatLogLine(line, size, wallMs, priority, tag, message, colours);
        } else {
            size = sizeof shortLine;
            shortLine[size - 1] = '\n';
        }
    }
    return WriteOnce(mFd, line, size, isStream);
}

} // namespace ParvanePlatform
