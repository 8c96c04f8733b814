#include <cstdlib>
#include <exception>
#include <malloc.h>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <variant>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "ConfigFile.h"
#include "Gateway.h"
#include "Log.h"
#include "Output.h"
#include "RunHandler.h"
#include "RuntimeDirectory.h"
#include "Settings.h"
#include "Signals.h"
#include "StandardDescriptors.h"

namespace {

using ParvaneGateway::ExitCode;
using ParvaneGateway::Settings;

void LogHandlerFailure(const char *line) noexcept
{
    Parvane::LogError(line);
}

/** The configuration's settings; what the service manager gives goes before it. */
Settings ReadSettings(const ParvaneGateway::Invocation &invocation, bool isServing)
{
    const auto configuration =
        ParvaneGateway::LoadConfiguration(invocation.mConfig, invocation.mIsConfigNamed);
    if (isServing) {
        for (const auto &problem : configuration.mProblems) {
            if (!problem.mIsError) {
                Parvane::LogWarning(ToString(invocation.mConfig, problem));
            }
        }
    }
    if (const auto *error = configuration.FirstError()) {
        throw std::runtime_error(ToString(invocation.mConfig, *error));
    }
    Settings settings = configuration.mSettings;
    const auto environment = [](const char *name) {
        return static_cast<const char *>(std::getenv(name));
    };
    if (auto state = Parvane::ManagedDirectory(environment, "STATE_DIRECTORY"); !state.empty()) {
        settings.mStateDirectory = state;
    }
    if (auto run = Parvane::ManagedDirectory(environment, "RUNTIME_DIRECTORY"); !run.empty()) {
        settings.mRuntimeDirectory = run;
    }
    return settings;
}

ExitCode Serve(const Settings &settings)
{
    // TLS handshakes are done in threads, each of which would keep what a flood of them had made its own arena.
    ::mallopt(M_ARENA_MAX, 1);
    Parvane::MakePrivateDirectory(settings.mStateDirectory);
    Parvane::MakePrivateDirectory(settings.mRuntimeDirectory);
    const Parvane::Signals signals;
    ParvaneGateway::Gateway(settings, signals).Run();
    return ExitCode::Success;
}

ExitCode Run(const std::vector<std::string> &arguments)
{
    const auto parsed = ParvaneGateway::ParseCommandLine(
        arguments, [](const char *name) { return static_cast<const char *>(std::getenv(name)); });
    if (const auto *end = std::get_if<Parvane::EarlyEnd>(&parsed)) {
        Parvane::WriteAll(STDERR_FILENO, end->mError);
        Parvane::Print(end->mOutput);
        return end->mIsBadUsage ? ExitCode::BadUsage : ExitCode::Success;
    }
    const auto &invocation = std::get<ParvaneGateway::Invocation>(parsed);
    using Action = ParvaneGateway::Invocation::Action;
    if (invocation.mAction == Action::CheckConfig) {
        return ParvaneGateway::CheckConfig(invocation);
    }
    const bool isServing = invocation.mAction == Action::Serve;
    const Settings settings = ReadSettings(invocation, isServing);
    return isServing ? Serve(settings) : ParvaneGateway::RunCommand(invocation, settings);
}

} // namespace

int main(int argc, char **argv)
{
    Parvane::ReserveStandardDescriptors();
    Parvane::SetHandlerLog(LogHandlerFailure);
    Parvane::SetLogName("parvane-gateway");
    try {
        return static_cast<int>(
            Run(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc)));
    } catch (const Parvane::NoAnswer &failure) {
        Parvane::LogError(failure.what());
        return static_cast<int>(ExitCode::NoAnswer);
    } catch (const std::exception &failure) {
        Parvane::LogError(failure.what());
        return static_cast<int>(ExitCode::Failure);
    }
}
