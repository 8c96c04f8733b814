#include "WebContext.h"

#include "Log.h"

namespace ParvaneGateway {

void Refusals::Count(const std::string &reason, const std::string &address)
{
    constexpr std::chrono::minutes kQuiet{1};
    const auto now = std::chrono::steady_clock::now();
    const std::uint64_t count = ++mCounts[reason];
    const auto logged = mLogged.find(reason);
    if (logged == mLogged.end() || now - logged->second >= kQuiet) {
        mLogged[reason] = now;
        Parvane::LogWarning("refused " + address + ": " + reason + " (" + std::to_string(count) +
                            " since the start)");
    }
}

} // namespace ParvaneGateway
