#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <unistd.h>
#include <variant>
#include <vector>

#include "CheckConfig.h"
#include "CommandLine.h"
#include "CommandRunner.h"
#include "Signals.h"

namespace {

using ParvaneWatch::ExitCode;
using ParvaneWatch::WriteAll;

ParvaneWatch::Outcome Run(const std::vector<std::string> &arguments)
{
    const ParvaneWatch::Signals signals;
    auto parsed = ParvaneWatch::ParseCommandLine(
        arguments, [](const char *name) { return static_cast<const char *>(std::getenv(name)); });
    if (const auto *ending = std::get_if<ParvaneWatch::Ending>(&parsed)) {
        WriteAll(STDOUT_FILENO, ending->mOutput);
        WriteAll(STDERR_FILENO, ending->mError);
        return {ending->mCode};
    }
    auto &invocation = std::get<ParvaneWatch::Invocation>(parsed);
    if (invocation.mAction == ParvaneWatch::Invocation::Action::CheckConfig) {
        return {static_cast<ExitCode>(
            ParvaneWatch::CheckConfig(invocation.mFile, invocation.mJson, std::cout, std::cerr))};
    }
    ParvaneWatch::CommandRunner runner(std::move(invocation), signals);
    return runner.Run();
}

} // namespace

int main(int argc, char **argv)
{
    try {
        const auto outcome = Run(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
        if (outcome.mSignal != 0) {
            ParvaneWatch::Signals::Die(outcome.mSignal);
        }
        return static_cast<int>(outcome.mCode);
    } catch (const std::exception &error) {
        WriteAll(STDERR_FILENO, "parvane-watch: " + std::string(error.what()) + "\n");
        return static_cast<int>(ExitCode::Failure);
    }
}
