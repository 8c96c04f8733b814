#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <termios.h>
#include <vector>

#include <gmock/gmock.h>

#include "ChildProcess.h"
#include "UniqueFd.h"

namespace Parvane {

/**
 * A program on a pseudo-terminal of its own, which it controls, with what its screen shows.
 *
 * Understands what terminals of the type vt100 and xterm are sent; a character is a column.
 */
class PseudoTerminal
{
public:
    /** @param environment  all of it */
    PseudoTerminal(const std::vector<std::string> &command,
                   const ChildProcess::Variables &environment, int rows = 24, int columns = 80);

    void Type(const std::string &keys) const;

    /** Gives it another size, which it is told by a signal. */
    void Resize(int rows, int columns);

    /**
     * Whether the screen becomes one that `matches`, within 30 s. What was drawn may be read in parts: a
     * look that does not wait may see half of it.
     */
    bool Becomes(const testing::Matcher<const std::string &> &matches);

    /** Whether `text` comes to the screen. */
    bool Shows(const std::string &text) { return Becomes(testing::HasSubstr(text)); }

    /** The screen: lines without the blanks at their ends. */
    [[nodiscard]] std::string Screen() const;

    /** Everything that was written, as it came. */
    [[nodiscard]] const std::string &Output() const { return mOutput; }

    [[nodiscard]] pid_t Pid() const { return mProcess->Pid(); }
    void Signal(int number) const { mProcess->Signal(number); }

    /** Its exit status as of ChildProcess, once everything that it has written was read. */
    std::optional<int> WaitForEnd();

    /** Whether the terminal waits for whole lines, shows what is typed and so on, as at first. */
    [[nodiscard]] bool IsAsItWas() const;

private:
    void ReadMore(int limitMs);
    void Take(char byte);
    void EndSequence(char final);
    void Put(const std::string &character);

    UniqueFd mController;
    UniqueFd mTerminal;
    std::optional<ChildProcess> mProcess;
    termios mAtFirst = {};
    std::string mOutput;
    /** A character for each cell. */
    std::vector<std::vector<std::string>> mCells;
    std::size_t mRow = 0;
    std::size_t mColumn = 0;
    /** What has come of a sequence or a character of several bytes. */
    std::string mPending;
};

} // namespace Parvane
