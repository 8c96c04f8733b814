#include "Commands.h"

#include <cerrno>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <unistd.h>

#include "ConfigFile.h"
#include "ErrnoText.h"
#include "OperationSocket.h"
#include "Output.h"

namespace ParvaneHub {

namespace {

using nlohmann::json;

void Print(const std::string &text)
{
    if (const int error = Parvane::WriteAll(STDOUT_FILENO, text); error != 0 && error != EPIPE) {
        throw std::runtime_error("cannot write to standard output: " + Parvane::ErrnoText(error));
    }
}

std::string Line(const std::string &what, const std::string &value)
{
    constexpr std::size_t kWidth = 11;
    return what + std::string(kWidth - what.size(), ' ') + value + '\n';
}

std::string NumberOf(const json &value)
{
    return std::to_string(value.get<std::uint64_t>());
}

std::string WatchText(const json &watch)
{
    const bool isLinked = watch.at("linked").get<bool>();
    const std::string problem = watch.at("problem").get<std::string>();
    return "  " + watch.at("name").get<std::string>() + ": " +
           (isLinked ? "linked" : "away" + (problem.empty() ? "" : ", " + problem)) + ", " +
           NumberOf(watch.at("readings")) + " readings\n";
}

std::string StatusText(const json &status)
{
    const json &broker = status.at("broker");
    const json &queue = status.at("queue");
    const std::string dropped = std::to_string(queue.at("dropped_for_size").get<std::uint64_t>() +
                                               queue.at("dropped_for_age").get<std::uint64_t>());
    std::string text;
    text += Line("broker", broker.at("connected").get<bool>()
                               ? "connected"
                               : "away: " + broker.at("problem").get<std::string>());
    text += Line("delivered", NumberOf(status.at("delivered")) + " messages, " +
                                  NumberOf(status.at("refused")) + " refused");
    text +=
        Line("queue", NumberOf(queue.at("messages")) + " messages, " + NumberOf(queue.at("bytes")) +
                          " bytes; " + dropped + " dropped so far");
    if (const auto problem = queue.at("problem").get<std::string>(); !problem.empty()) {
        text += Line("disk", problem);
    }
    text += Line("watches", NumberOf(status.at("linked")) + " of " +
                                NumberOf(status.at("watches")) + " linked");
    for (const json &watch : status.at("each")) {
        text += WatchText(watch);
    }
    return text;
}

} // namespace

void ShowStatus(const Invocation &invocation, const Settings &settings)
{
    const auto ask = [&settings](const json &request) {
        return Parvane::OperationSocket::Ask(settings.mRuntimeDirectory, "hub", request);
    };
    json status = ask({{"request", "status"}});
    json each = json::array();
    for (std::string from;;) {
        const json some = ask({{"request", "watches"}, {"from", from}}).at("watches");
        if (some.empty()) {
            break;
        }
        each.insert(each.end(), some.begin(), some.end());
        from = some.back().at("name").get<std::string>();
    }
    status["each"] = std::move(each);
    Print(invocation.mJson ? status.dump() + '\n' : StatusText(status));
}

ExitCode CheckConfig(const Invocation &invocation)
{
    const Configuration configuration =
        ParseConfiguration(Parvane::ReadConfigFile(invocation.mConfig, invocation.mIsConfigNamed));
    std::string text;
    for (const auto &problem : configuration.mProblems) {
        text += (problem.mIsError ? "error: " : "warning: ") +
                ToString(invocation.mConfig, problem) + '\n';
    }
    const bool isGood = Parvane::FirstError(configuration.mProblems) == nullptr;
    Print(text + (isGood ? "the hub starts with it\n" : "the hub does not start with it\n"));
    return isGood ? ExitCode::Success : ExitCode::Failure;
}

} // namespace ParvaneHub
