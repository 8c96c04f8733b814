#pragma once

#include <string>
#include <vector>

#include "ChildProcess.h"
#include "UniqueFd.h"

namespace Parvane {

/**
 * One run of a program, with its three standard streams in the test's hands.
 *
 * A child that is still there at the end is killed and awaited. What does not happen within 30 s is
 * thrown as std::runtime_error.
 */
class Program
{
public:
    struct Options
    {
        ChildProcess::Variables mEnvironment; // besides the test's own; wins over it
        bool mErrorsToTerminal = false;       // a pseudo-terminal of 80 columns
        bool mOutputToFull = false;           // /dev/full takes the output
        std::vector<int> mClosed = {};        // standard descriptors that it starts without
    };

    /** @param command  the program's path, and its arguments */
    Program(const std::vector<std::string> &command, const Options &options);

    /** The next line of standard output, without its line feed; empty at the end. */
    std::string ReadLine();

    /** The next byte of standard output; empty at the end. */
    std::string ReadSome();

    /** What standard output brings from here to its end. */
    std::string ReadOutput();

    /** What standard error brings from here to its end. */
    std::string ReadErrors();

    /** Reads standard error until `text` has come; returns all that came. */
    std::string ReadErrorsUntil(const std::string &text);

    /** Closes the reading end of standard output. */
    void CloseOutput();

    void Signal(int signal) const;

    /** Awaits the end: the exit code, or minus the number of the signal that ended it. */
    int Wait();

private:
    struct Channel
    {
        UniqueFd mReadEnd;
        UniqueFd mWriteEnd;
    };

    static Channel MakePipe();
    static Channel OpenFull();
    static Channel MakeTerminal();
    Program(const std::vector<std::string> &command, const Options &options, Channel &&output,
            Channel &&errors);

    UniqueFd mOutput;
    UniqueFd mErrors;
    ChildProcess mProcess;
};

} // namespace Parvane
