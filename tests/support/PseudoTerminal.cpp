#include "PseudoTerminal.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sstream>
#include <sys/ioctl.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace Parvane {

namespace {

winsize SizeOf(int rows, int columns)
{
    winsize size = {};
    size.ws_row = static_cast<unsigned short>(rows);
    size.ws_col = static_cast<unsigned short>(columns);
    return size;
}

std::vector<std::vector<std::string>> EmptyCells(int rows, int columns)
{
    return std::vector(static_cast<std::size_t>(rows),
                       std::vector<std::string>(static_cast<std::size_t>(columns), " "));
}

} // namespace

PseudoTerminal::PseudoTerminal(const std::vector<std::string> &command,
                               const ChildProcess::Variables &environment, int rows, int columns)
    : mCells(EmptyCells(rows, columns))
{
    winsize size = SizeOf(rows, columns);
    int controller = -1;
    int terminal = -1;
    if (::openpty(&controller, &terminal, nullptr, nullptr, &size) != 0) {
        throw std::system_error(errno, std::generic_category(), "openpty");
    }
    mController.Reset(controller);
    mTerminal.Reset(terminal);
    ::fcntl(controller, F_SETFD, FD_CLOEXEC);
    ::fcntl(terminal, F_SETFD, FD_CLOEXEC);
    ::tcgetattr(terminal, &mAtFirst);
    mProcess.emplace(ChildProcess::Start{.mCommand = command,
                                         .mEnvironment = environment,
                                         .mInput = terminal,
                                         .mOutput = terminal,
                                         .mErrors = terminal,
                                         .mPrepare = [] {
                                             ::setsid();
                                             ::ioctl(STDIN_FILENO, TIOCSCTTY, 0);
                                         }});
}

void PseudoTerminal::Type(const std::string &keys) const
{
    [[maybe_unused]] const ssize_t written = ::write(mController.Get(), keys.data(), keys.size());
}

void PseudoTerminal::Resize(int rows, int columns)
{
    const winsize size = SizeOf(rows, columns);
    mCells = EmptyCells(rows, columns);
    mRow = 0;
    mColumn = 0;
    ::ioctl(mController.Get(), TIOCSWINSZ, &size);
}

bool PseudoTerminal::Becomes(const testing::Matcher<const std::string &> &matches)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!matches.Matches(Screen())) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        ReadMore(20);
    }
    return true;
}

std::string PseudoTerminal::Screen() const
{
    std::string screen;
    for (const auto &row : mCells) {
        std::string line;
        for (const std::string &cell : row) {
            line += cell;
        }
        line.erase(line.find_last_not_of(' ') + 1);
        screen += line + '\n';
    }
    return screen;
}

std::optional<int> PseudoTerminal::WaitForEnd()
{
    std::optional<int> status;
    for (int i = 0; i < 1500 && !status; ++i) {
        ReadMore(0); // it may wait for room
        status = mProcess->WaitForEnd(std::chrono::milliseconds(30));
    }
    ReadMore(0);
    return status;
}

bool PseudoTerminal::IsAsItWas() const
{
    termios now = {};
    ::tcgetattr(mTerminal.Get(), &now);
    return now.c_iflag == mAtFirst.c_iflag && now.c_oflag == mAtFirst.c_oflag &&
           now.c_lflag == mAtFirst.c_lflag && now.c_cflag == mAtFirst.c_cflag;
}

void PseudoTerminal::ReadMore(int limitMs)
{
    pollfd polled{mController.Get(), POLLIN, 0};
    while (::poll(&polled, 1, limitMs) > 0 && (polled.revents & POLLIN) != 0) {
        char bytes[4096];
        const ssize_t count = ::read(mController.Get(), bytes, sizeof bytes);
        for (ssize_t i = 0; i < count; ++i) {
            mOutput += bytes[i];
            Take(bytes[i]);
        }
        limitMs = 0;
    }
}

void PseudoTerminal::Take(char byte)
{
    const auto code = static_cast<unsigned char>(byte);
    if (!mPending.empty() && mPending[0] == '\033') {
        mPending += byte;
        const bool isList = mPending[1] == '[';
        const bool isCharset = mPending[1] == '(' || mPending[1] == ')';
        if (mPending.size() == 2 && (isList || isCharset)) {
            return;
        }
        if (!isList || (code >= 0x40 && code <= 0x7E)) {
            EndSequence(isList ? byte : '\0');
            mPending.clear();
        }
    } else if (byte == '\033') {
        mPending = byte;
    } else if (byte == '\r') {
        mColumn = 0;
    } else if (byte == '\n') {
        mRow = std::min(mRow + 1, mCells.size() - 1);
    } else if (byte == '\t') {
        mColumn = std::min(mColumn / 8 * 8 + 8, mCells[mRow].size() - 1);
    } else if (byte == '\b') {
        mColumn -= mColumn > 0 ? 1 : 0;
    } else if (code >= 0xC0) {
        mPending = byte;
    } else if (code >= 0x80) {
        mPending += byte;
        const auto first = static_cast<unsigned char>(mPending[0]);
        if (mPending.size() == (first < 0xE0 ? 2U : first < 0xF0 ? 3U : 4U)) {
            Put(std::exchange(mPending, {}));
        }
    } else if (code >= 0x20) {
        Put(std::string(1, byte));
    }
}

void PseudoTerminal::Put(const std::string &character)
{
    if (mColumn >= mCells[mRow].size()) {
        mColumn = 0;
        mRow = std::min(mRow + 1, mCells.size() - 1);
    }
    mCells[mRow][mColumn++] = character;
}

void PseudoTerminal::EndSequence(char final)
{
    std::vector<std::size_t> numbers;
    std::istringstream list(final == '\0' ? "" : mPending.substr(2, mPending.size() - 3));
    for (std::string number; std::getline(list, number, ';');) {
        numbers.push_back(static_cast<std::size_t>(std::strtoul(number.c_str(), nullptr, 10)));
    }
    const auto number = [&numbers](std::size_t place, std::size_t otherwise) {
        return place < numbers.size() && numbers[place] > 0 ? numbers[place] : otherwise;
    };
    auto &row = mCells[mRow];
    const auto here = row.begin() + static_cast<std::ptrdiff_t>(std::min(mColumn, row.size()));
    switch (final) {
    case 'H':
        mRow = std::min(number(0, 1), mCells.size()) - 1;
        mColumn = number(1, 1) - 1;
        break;
    case 'd':
        mRow = std::min(number(0, 1), mCells.size()) - 1;
        break;
    case 'G':
        mColumn = number(0, 1) - 1;
        break;
    case 'A':
        mRow -= std::min(number(0, 1), mRow);
        break;
    case 'B':
        mRow = std::min(mRow + number(0, 1), mCells.size() - 1);
        break;
    case 'C':
        mColumn = std::min(mColumn + number(0, 1), row.size() - 1);
        break;
    case 'D':
        mColumn -= std::min(number(0, 1), mColumn);
        break;
    case 'K':
        std::fill(number(0, 0) == 1 ? row.begin() : here,
                  number(0, 0) == 1 ? std::min(here + 1, row.end()) : row.end(), " ");
        break;
    case 'X':
        std::fill_n(
            here,
            std::min<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(number(0, 1)), row.end() - here),
            " ");
        break;
    case 'J':
        std::fill(here, row.end(), " ");
        for (std::size_t below = mRow + 1; below < mCells.size(); ++below) {
            std::fill(mCells[below].begin(), mCells[below].end(), " ");
        }
        break;
    default:
        break; // looks, modes and characters
    }
}

} // namespace Parvane
