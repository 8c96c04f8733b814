#include "Commands.h"

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <unistd.h>

#include "ConfigFile.h"
#include "Log.h"
#include "OperationSocket.h"
#include "Output.h"

namespace ParvaneHub {

namespace {

using nlohmann::json;
using Parvane::Print;

std::string Line(const std::string &what, const std::string &value)
{
    constexpr std::size_t kWidth = 11;
    return what + std::string(kWidth - what.size(), ' ') + value + '\n';
}

std::string NumberOf(const json &value)
{
    return std::to_string(value.get<std::uint64_t>());
}

std::string Counted(const json &count, const char *what)
{
    return NumberOf(count) + ' ' + what + (count == 1 ? "" : "s");
}

std::string WatchText(const json &watch)
{
    const bool isLinked = watch.at("linked").get<bool>();
    const std::string problem = watch.at("problem").get<std::string>();
    return "  " + watch.at("name").get<std::string>() + ": " +
           (isLinked ? "linked" : "away" + (problem.empty() ? "" : ", " + problem)) + ", " +
           Counted(watch.at("readings"), "reading") + '\n';
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
    text += Line("delivered", Counted(status.at("delivered"), "message") + ", " +
                                  NumberOf(status.at("refused")) + " refused");
    text +=
        Line("queue", Counted(queue.at("messages"), "message") + ", " +
                          Counted(queue.at("bytes"), "byte") + "; " + dropped + " dropped so far");
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
    std::string text;
    try {
        text = Parvane::ReadConfigFile(invocation.mConfig, invocation.mIsConfigNamed);
    } catch (const std::runtime_error &failure) {
        Parvane::LogError(failure.what());
        return ExitCode::BadUsage;
    }
    const auto problems = ParseConfiguration(text).mProblems;
    Print(Parvane::Judgement(invocation.mConfig, problems, "the hub"));
    return Parvane::FirstError(problems) == nullptr ? ExitCode::Success : ExitCode::Failure;
}

} // namespace ParvaneHub
