#include "MonitorScreen.h"

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <langinfo.h>
#include <stdexcept>
#include <string_view>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

// Else names like "erase" and "timeout" would be macros in everything below.
#define NCURSES_NOMACROS 1
#include <curses.h>

#include "MonitorKeys.h"
#include "Printable.h"

namespace ParvaneWatch {

MonitorScreen::MonitorScreen()
{
    std::setlocale(LC_CTYPE, "");
    mIsUtf8 = std::string_view(::nl_langinfo(CODESET)) == "UTF-8";
    const char *const name = std::getenv("TERM");
    SCREEN *const terminal = ::newterm(nullptr, stdout, stdin);
    mCurses = reinterpret_cast<Curses *>(terminal);
    if (terminal == nullptr || ::tigetstr("cup") == nullptr) {
        if (terminal != nullptr) {
            ::endwin();
            ::delscreen(terminal);
        }
        throw std::runtime_error(
            "the terminal's type '" + Parvane::Printable(name == nullptr ? "" : name) +
            "' ($TERM) is not known, or has no screen; monitor --plain needs none");
    }
    ::cbreak();
    ::noecho();
    ::nonl(); // the cursor goes down without going to the left
    ::curs_set(0);
    ::nodelay(::stdscr, TRUE);
    ::keypad(::stdscr, TRUE);
    ::set_escdelay(25);
}

MonitorScreen::~MonitorScreen()
{
    ::tcflow(STDOUT_FILENO, TCOON); // one that was stopped would hold up its own repair
    ::endwin();
    ::delscreen(reinterpret_cast<SCREEN *>(mCurses));
}

void MonitorScreen::Draw(const std::vector<std::string> &lines)
{
    ::werase(::stdscr);
    for (std::size_t row = 0; row < lines.size(); ++row) {
        const bool isLast = row + 1 == lines.size();
        const attr_t look = isLast ? A_REVERSE : row == 0 ? A_BOLD : A_NORMAL;
        ::wattrset(::stdscr, static_cast<int>(look));
        ::wmove(::stdscr, static_cast<int>(row), 0);
        ::waddnstr(::stdscr, lines[row].c_str(), -1);
    }
    ::wrefresh(::stdscr);
}

int MonitorScreen::NextKey()
{
    const int key = ::wgetch(::stdscr);
    switch (key) {
    case ERR:
        return 0;
    case KEY_BACKSPACE:
        return MonitorKeys::kErase;
    case KEY_ENTER:
    case '\r':
        return MonitorKeys::kEnter;
    default:
        return key;
    }
}

void MonitorScreen::Resize()
{
    winsize size = {};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
        ::resizeterm(size.ws_row, size.ws_col);
    }
}

std::size_t MonitorScreen::Columns() const
{
    return static_cast<std::size_t>(std::max(::getmaxx(::stdscr), 1));
}

std::size_t MonitorScreen::Rows() const
{
    return static_cast<std::size_t>(std::max(::getmaxy(::stdscr), 1));
}

} // namespace ParvaneWatch
