#include "Failure.h"

namespace ParvaneHost {

std::string SecondsText(std::chrono::milliseconds length)
{
    const auto whole = std::chrono::floor<std::chrono::seconds>(length);
    std::string text = std::to_string(whole.count());
    std::string decimals = std::to_string(1000 + (length - whole).count()).substr(1);
    while (!decimals.empty() && decimals.back() == '0') {
        decimals.pop_back();
    }
    if (!decimals.empty()) {
        text += '.';
        text += decimals;
    }
    return text + " s";
}

Failure NoAnswer(const std::string &what, std::chrono::milliseconds within)
{
    return {Failure::Reason::NoAnswer, "no answer to " + what + " within " + SecondsText(within)};
}

} // namespace ParvaneHost
