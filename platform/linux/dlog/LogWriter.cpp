#include "LogWriter.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <unistd.h>

#include "base/Clock.h"

namespace ParvanePlatform {

namespace {

constexpr std::size_t kStackBytes = 2048;

struct Free
{
    void operator()(char *block) const noexcept { std::free(block); }
};

/** Appends to a buffer of fixed size and counts what it would have needed. */
class Appender
{
public:
    Appender(char *buffer, std::size_t size) : mBuffer(buffer), mSize(size) {}

    void Add(char character)
    {
        if (mNeeded < mSize) {
            mBuffer[mNeeded] = character;
        }
        ++mNeeded;
    }

    void Add(std::string_view text)
    {
        for (const char character : text) {
            Add(character);
        }
    }

    std::size_t Needed() const { return mNeeded; }

private:
    char *mBuffer;
    std::size_t mSize;
    std::size_t mNeeded = 0;
};

char LetterOf(LogPriority priority)
{
    switch (priority) {
    case LogPriority::Verbose:
        return 'V';
    case LogPriority::Debug:
        return 'D';
    case LogPriority::Info:
        return 'I';
    case LogPriority::Warning:
        return 'W';
    case LogPriority::Error:
        return 'E';
    case LogPriority::Fatal:
        return 'F';
    }
    return '?';
}

/** The length of the colour sequence that `text` starts with; 0 when it starts with none. */
std::size_t ColourLength(std::string_view text)
{
    if (text.size() < 3 || text[0] != '\033' || text[1] != '[') {
        return 0;
    }
    const std::size_t end = text.find_first_not_of("0123456789;", 2);
    return end != std::string_view::npos && text[end] == 'm' ? end + 1 : 0;
}

/** True when nothing but line ends and colour sequences is left. */
bool IsLineTail(std::string_view text)
{
    while (!text.empty()) {
        if (text.front() == '\n' || text.front() == '\r') {
            text.remove_prefix(1);
        } else if (const std::size_t colour = ColourLength(text); colour != 0) {
            text.remove_prefix(colour);
        } else {
            return false;
        }
    }
    return true;
}

bool IsControl(unsigned char byte)
{
    return byte < 0x20 || byte == 0x7f;
}

void AddEscaped(Appender &line, unsigned char byte)
{
    constexpr char kDigits[] = "0123456789abcdef";
    line.Add('\\');
    switch (byte) {
    case '\n':
        line.Add('n');
        break;
    case '\r':
        line.Add('r');
        break;
    case '\t':
        line.Add('t');
        break;
    default:
        line.Add('x');
        line.Add(kDigits[byte >> 4]);
        line.Add(kDigits[byte & 0x0f]);
        break;
    }
}

/** True when `text` starts with one of the control characters U+0080 to U+009F. */
bool IsUpperControl(std::string_view text)
{
    return text.size() >= 2 && static_cast<unsigned char>(text[0]) == 0xc2 &&
           static_cast<unsigned char>(text[1]) >= 0x80 &&
           static_cast<unsigned char>(text[1]) < 0xa0;
}

void AddMessage(Appender &line, std::string_view text, LogColours colours)
{
    while (!text.empty()) {
        std::size_t taken = 1;
        const auto byte = static_cast<unsigned char>(text.front());
        if (const std::size_t colour = ColourLength(text); colour != 0) {
            taken = colour;
            if (colours == LogColours::Keep) {
                line.Add(text.substr(0, colour));
            }
        } else if ((byte == '\n' || byte == '\r') && IsLineTail(text)) {
            // The end of the message: dropped.
        } else if (IsControl(byte)) {
            AddEscaped(line, byte);
        } else if (IsUpperControl(text)) {
            AddEscaped(line, byte);
            AddEscaped(line, static_cast<unsigned char>(text[1]));
            taken = 2;
        } else {
            line.Add(text.front());
        }
        text.remove_prefix(taken);
    }
}

void AddNumber(Appender &line, unsigned value, int width)
{
    char digits[12];
    const int length = std::snprintf(digits, sizeof digits, "%0*u", width, value);
    line.Add(std::string_view(digits, static_cast<std::size_t>(length)));
}

void AddTime(Appender &line, std::int64_t wallMs)
{
    using std::chrono::floor;
    const std::chrono::sys_time<std::chrono::milliseconds> now{std::chrono::milliseconds(wallMs)};
    const auto day = floor<std::chrono::days>(now);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss time(now - day);
    AddNumber(line, static_cast<unsigned>(static_cast<int>(date.year())), 4);
    line.Add('-');
    AddNumber(line, static_cast<unsigned>(date.month()), 2);
    line.Add('-');
    AddNumber(line, static_cast<unsigned>(date.day()), 2);
    line.Add('T');
    AddNumber(line, static_cast<unsigned>(time.hours().count()), 2);
    line.Add(':');
    AddNumber(line, static_cast<unsigned>(time.minutes().count()), 2);
    line.Add(':');
    AddNumber(line, static_cast<unsigned>(time.seconds().count()), 2);
    line.Add('.');
    AddNumber(line, static_cast<unsigned>(time.subseconds().count()), 3);
    line.Add('Z');
}

int WriteOnce(int fd, const char *line, std::size_t size)
{
    for (;;) {
        const ssize_t written = ::write(fd, line, size);
        if (written >= 0) {
            return static_cast<int>(written);
        }
        if (errno != EINTR) {
            return -errno;
        }
    }
}

} // namespace

std::size_t FormatLogLine(char *line, std::size_t size, std::int64_t wallMs, LogPriority priority,
                          std::string_view tag, std::string_view message, LogColours colours)
{
    Appender appender(line, size);
    AddTime(appender, wallMs);
    appender.Add(' ');
    appender.Add(LetterOf(priority));
    appender.Add(' ');
    AddMessage(appender, tag, LogColours::Strip);
    appender.Add(": ");
    AddMessage(appender, message, colours);
    appender.Add('\n');
    return appender.Needed();
}

int LogWriter::Write(LogPriority priority, const char *tag, const char *format,
                     va_list arguments) const
{
    const int savedErrno = errno;
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

    const LogColours colours = ::isatty(mFd) == 1 ? LogColours::Keep : LogColours::Strip;
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
    const int result = WriteOnce(mFd, line, size);
    errno = savedErrno;
    return result;
}

} // namespace ParvanePlatform
