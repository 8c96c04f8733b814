#include <cstdlib>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <variant>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "ConfigFile.h"
#include "Hub.h"
#include "Log.h"
#include "OperationSocket.h"
#include "Output.h"
#include "RunHandler.h"
#include "RuntimeDirectory.h"
#include "Signals.h"
#include "StandardDescriptors.h"

namespace {

using ParvaneHub::ExitCode;
using ParvaneHub::Settings;

void LogHandlerFailure(const char *line) noexcept
{
    Parvane::LogError(line);
}

/** The configuration's settings; what the service manager gives goes before it. */
Settings ReadSettings(const ParvaneHub::Invocation &invocation, bool isServing)
{
    const auto configuration = ParvaneHub::ParseConfiguration(
        Parvane::ReadConfigFile(invocation.mConfig, invocation.mIsConfigNamed));
    if (const auto *error = Parvane::FirstError(configuration.mProblems)) {
        throw std::runtime_error(ToString(invocation.mConfig, *error));
    }
    if (isServing) {
        for (const auto &problem : configuration.mProblems) {
            Parvane::LogWarning(ToString(invocation.mConfig, problem));
        }
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

ExitCode Serve(const ParvaneHub::Invocation &invocation)
{
    const Settings settings = ReadSettings(invocation, true);
    Parvane::MakePrivateDirectory(settings.mStateDirectory);
    Parvane::MakePrivateDirectory(settings.mRuntimeDirectory);
    const Parvane::Signals signals(true);
    const auto reload = [&invocation]() -> std::optional<Settings> {
        try {
            return ReadSettings(invocation, true);
        } catch (const std::runtime_error &failure) {
            Parvane::LogError(std::string("everything stays as it is: ") + failure.what());
            return std::nullopt;
        }
    };
    ParvaneHub::Hub(settings, signals, reload).Run();
    return ExitCode::Success;
}

ExitCode Run(const std::vector<std::string> &arguments)
{
    const auto parsed = ParvaneHub::ParseCommandLine(
        arguments, [](const char *name) { return static_cast<const char *>(std::getenv(name)); });
    if (const auto *end = std::get_if<Parvane::EarlyEnd>(&parsed)) {
        Parvane::WriteAll(STDERR_FILENO, end->mError);
        Parvane::Print(end->mOutput);
        return end->mIsBadUsage ? ExitCode::BadUsage : ExitCode::Success;
    }
    const auto &invocation = std::get<ParvaneHub::Invocation>(parsed);
    using Action = ParvaneHub::Invocation::Action;
    switch (invocation.mAction) {
    case Action::CheckConfig:
        return ParvaneHub::CheckConfig(invocation);
    case Action::Status:
        ParvaneHub::ShowStatus(invocation, ReadSettings(invocation, false));
        return ExitCode::Success;
    case Action::Serve:
        break;
    }
    return Serve(invocation);
}

} // namespace

int main(int argc, char **argv)
{
    Parvane::ReserveStandardDescriptors();
    Parvane::SetHandlerLog(LogHandlerFailure);
    Parvane::SetLogName("parvane-hub");
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
