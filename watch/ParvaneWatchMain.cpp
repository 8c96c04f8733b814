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
#include "Monitor.h"
#include "Output.h"
#include "PlayCommand.h"
#include "Signals.h"
#include "StandardDescriptors.h"

namespace {

using Parvane::WriteAll;
using ParvaneWatch::ExitCode;

ParvaneWatch::Outcome End(const ParvaneWatch::Ending &ending)
{
    WriteAll(STDERR_FILENO, ending.mError);
    Parvane::Print(ending.mOutput);
    return {ending.mCode};
}

ParvaneWatch::Outcome CheckConfig(const ParvaneWatch::Invocation &invocation)
{
    std::ostringstream output;
    const int code =
        ParvaneWatch::CheckConfig(invocation.mFile, invocation.mJson, output, std::cerr);
    Parvane::Print(output.str());
    return {static_cast<ExitCode>(code)};
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
