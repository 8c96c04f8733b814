#include <cerrno>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <variant>
#include <vector>

#include "CaptureCommand.h"
#include "CheckConfig.h"
#include "CommandLine.h"
#include "CommandRunner.h"
#include "ErrnoText.h"
#include "Monitor.h"
#include "Output.h"
#include "PlayCommand.h"
#include "Signals.h"
#include "StandardDescriptors.h"

namespace {

using Parvane::WriteAll;
using ParvaneWatch::ExitCode;

ParvaneWatch::Outcome CannotWrite(int error)
{
    WriteAll(STDERR_FILENO,
             "parvane-watch: cannot write to standard output: " + Parvane::ErrnoText(error) + '\n');
    return {ExitCode::Failure};
}

ParvaneWatch::Outcome End(const ParvaneWatch::Ending &ending)
{
    const int error = WriteAll(STDOUT_FILENO, ending.mOutput);
    WriteAll(STDERR_FILENO, ending.mError);
    return error == 0 || error == EPIPE ? ParvaneWatch::Outcome{ending.mCode} : CannotWrite(error);
}

ParvaneWatch::Outcome CheckConfig(const ParvaneWatch::Invocation &invocation)
{
    std::ostringstream output;
    const int code =
        ParvaneWatch::CheckConfig(invocation.mFile, invocation.mJson, output, std::cerr);
    const int error = WriteAll(STDOUT_FILENO, output.str());
    return error == 0 || error == EPIPE ? ParvaneWatch::Outcome{static_cast<ExitCode>(code)}
                                        : CannotWrite(error);
}

ParvaneWatch::Outcome Run(const std::vector<std::string> &arguments)
{
    const Parvane::Signals signals;
    auto parsed = ParvaneWatch::ParseCommandLine(
        arguments, [](const char *name) { return static_cast<const char *>(std::getenv(name)); });
    if (const auto *ending = std::get_if<ParvaneWatch::Ending>(&parsed)) {
        return End(*ending);
    }
    auto &invocation = std::get<ParvaneWatch::Invocation>(parsed);
    if (invocation.mAction == ParvaneWatch::Invocation::Action::CheckConfig) {
        return CheckConfig(invocation);
    }
    if (invocation.mAction == ParvaneWatch::Invocation::Action::Play) {
        return ParvaneWatch::PlayScript(invocation, signals);
    }
    if (invocation.mAction == ParvaneWatch::Invocation::Action::Capture) {
        return ParvaneWatch::CaptureLink(invocation, signals);
    }
    if (invocation.mAction == ParvaneWatch::Invocation::Action::Monitor) {
        invocation.mPlain = invocation.mPlain || ::isatty(STDOUT_FILENO) != 1;
        return ParvaneWatch::Monitor(std::move(invocation), signals).Run();
    }
    ParvaneWatch::CommandRunner runner(std::move(invocation), signals);
    return runner.Run();
}

} // namespace

int main(int argc, char **argv)
{
    Parvane::ReserveStandardDescriptors();
    try {
        const auto outcome = Run(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
        if (outcome.mSignal != 0) {
            Parvane::Signals::Die(outcome.mSignal);
        }
        return static_cast<int>(outcome.mCode);
    } catch (const std::exception &error) {
        WriteAll(STDERR_FILENO, "parvane-watch: " + std::string(error.what()) + "\n");
        return static_cast<int>(ExitCode::Failure);
    }
}
