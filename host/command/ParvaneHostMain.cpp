#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>
#include <unistd.h>
#include <variant>
#include <vector>

#include "CommandLine.h"
#include "CommandRunner.h"
#include "LineWriter.h"
#include "Signals.h"

namespace {

using ParvaneHost::ExitCode;

/** Writes `text`, which ends with a line feed or is empty. */
void Write(int fd, std::string_view text)
{
    if (!text.empty()) {
        text.remove_suffix(1);
        ParvaneHost::LineWriter(fd).Write(text);
    }
}

ParvaneHost::Outcome Run(const std::vector<std::string> &arguments)
{
    Parvane::Signals signals;
    const auto parsed = ParvaneHost::ParseCommandLine(
        arguments, [](const char *name) { return static_cast<const char *>(std::getenv(name)); });
    if (const auto *ending = std::get_if<ParvaneHost::Ending>(&parsed)) {
        Write(STDOUT_FILENO, ending->mOutput);
        Write(STDERR_FILENO, ending->mError);
        return {ending->mCode};
    }
    ParvaneHost::CommandRunner runner(std::get<ParvaneHost::Invocation>(parsed), signals);
    return runner.Run();
}

} // namespace

int main(int argc, char **argv)
{
    try {
        const auto outcome = Run(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
        if (outcome.mSignal != 0) {
            Parvane::Signals::Die(outcome.mSignal);
        }
        return static_cast<int>(outcome.mCode);
    } catch (const std::exception &error) {
        Write(STDERR_FILENO, "parvane-host: " + std::string(error.what()) + "\n");
        return static_cast<int>(ExitCode::LinkFailure);
    }
}
