#include <cstdlib>
#include <exception>
#include <string>
#include <unistd.h>
#include <variant>
#include <vector>

#include "CommandLine.h"
#include "CommandRunner.h"
#include "ExportCommand.h"
#include "Output.h"
#include "Signals.h"
#include "StandardDescriptors.h"

namespace {

using ParvaneHost::ExitCode;

ParvaneHost::Outcome End(const ParvaneHost::Ending &ending)
{
    Parvane::WriteAll(STDERR_FILENO, ending.mError);
    Parvane::Print(ending.mOutput);
    return {ending.mCode};
}

ParvaneHost::Outcome Run(const std::vector<std::string> &arguments)
{
    Parvane::Signals signals;
    const auto parsed = ParvaneHost::ParseCommandLine(
        arguments, [](const char *name) { return static_cast<const char *>(std::getenv(name)); });
    if (const auto *ending = std::get_if<ParvaneHost::Ending>(&parsed)) {
        return End(*ending);
    }
    const auto &invocation = std::get<ParvaneHost::Invocation>(parsed);
    if (invocation.mAction == ParvaneHost::Invocation::Action::Export) {
        return ParvaneHost::Export(invocation);
    }
    ParvaneHost::CommandRunner runner(invocation, signals);
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
        Parvane::WriteAll(STDERR_FILENO, "parvane-host: " + std::string(error.what()) + "\n");
        return static_cast<int>(ExitCode::Failure);
    }
}
