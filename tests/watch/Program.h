#pragma once

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

#include "UniqueFd.h"

namespace ParvaneWatch {

/**
 * One run of the parvane-watch program, with its three standard streams in the test's hands.
 *
 * A child that is still there at the end is killed and awaited. What does not happen within 20 s is
 * thrown as std::runtime_error.
 */
class Program
{
public:
    struct Options
    {
        std::map<std::string, std::string> mEnvironment; // besides the test's own; wins over it
        bool mErrorsToTerminal = false;                  // a pseudo-terminal of 80 columns
        bool mOutputToFull = false;                      // /dev/full takes the output
    };

    explicit Program(const std::vector<std::string> &arguments) : Program(arguments, Options{}) {}
    Program(const std::vector<std::string> &arguments, const Options &options);
    ~Program();

    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    /** The next line of standard output, without its line feed; empty at the end. */
    std::string ReadLine();

    /** The next bytes of standard output, which need not be many; empty at the end. */
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
    UniqueFd mOutput;
    UniqueFd mErrors;
    pid_t mPid = -1;
};

} // namespace ParvaneWatch
