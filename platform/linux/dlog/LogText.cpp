#include "LogText.h"

#include <algorithm>
#include <chrono>

#include "Printable.h"

namespace ParvanePlatform {

namespace {

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

/** How many bytes `text` has before the first one that is not plain ASCII. */
std::size_t PlainLength(std::string_view text)
{
    const auto *const end = std::find_if(text.begin(), text.end(), [](char character) {
        return character < ' ' || character > '~'; // whether chars have a sign or not
    });
    return static_cast<std::size_t>(end - text.begin());
}

void AddEscaped(LogText &line, unsigned char byte)
{
    constexpr char kDigits[] = "0123456789abcdef";
    constexpr std::string_view kControls = "\n\r\t";
    constexpr std::string_view kLetters = "nrt";
    line.Add('\\');
    const std::size_t place = kControls.find(static_cast<char>(byte));
    if (place != std::string_view::npos) {
        line.Add(kLetters[place]);
        return;
    }
    line.Add('x');
    line.Add(kDigits[byte >> 4]);
    line.Add(kDigits[byte & 0x0f]);
}

} // namespace

void LogText::AddTime(std::int64_t wallMs)
{
    using std::chrono::floor;
    const std::chrono::sys_time<std::chrono::milliseconds> now{std::chrono::milliseconds(wallMs)};
    const auto day = floor<std::chrono::days>(now);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss time(now - day);
    const auto add = [this](auto value, int width, char after) {
        AddNumber(static_cast<unsigned>(value), width);
        Add(after);
    };
    add(static_cast<int>(date.year()), 4, '-');
    add(static_cast<unsigned>(date.month()), 2, '-');
    add(static_cast<unsigned>(date.day()), 2, 'T');
    add(time.hours().count(), 2, ':');
    add(time.minutes().count(), 2, ':');
    add(time.seconds().count(), 2, '.');
    add(time.subseconds().count(), 3, 'Z');
}

void LogText::AddNumber(unsigned value, int width)
{
    char digits[12];
    char *const end = digits + sizeof digits;
    char *begin = end;
    do {
        *--begin = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (end - begin < width && begin > digits) {
        *--begin = '0';
    }
    Add(std::string_view(begin, static_cast<std::size_t>(end - begin)));
}

void LogText::AddMessage(std::string_view text, LogColours colours)
{
    while (!text.empty()) {
        const std::size_t plain = PlainLength(text);
        Add(text.substr(0, plain));
        text.remove_prefix(plain);
        if (text.empty()) {
            break;
        }
        std::size_t taken = 1;
        const char byte = text.front();
        if (const std::size_t colour = ColourLength(text); colour != 0) {
            taken = colour;
            if (colours == LogColours::Keep) {
                Add(text.substr(0, colour));
            }
        } else if ((byte == '\n' || byte == '\r') && IsLineTail(text)) {
            // The end of the message: dropped.
        } else if (const std::size_t length = Parvane::PrintableLength(text); length != 0) {
            taken = length;
            Add(text.substr(0, length));
        } else {
            AddEscaped(*this, static_cast<unsigned char>(byte));
        }
        text.remove_prefix(taken);
    }
}

} // namespace ParvanePlatform
