#include "StepLedger.h"

#include <algorithm>
#include <bit>
#include <map>
#include <string>

#include "Input.h"
#include "Require.h"
#include "StepLedgerText.h"

// The stored text of the phone's step ledger, up to the first zero byte, as it is and with the checksum
// that belongs to it; what follows is what the watch tells a ledger that was restored from it.

using namespace ParvaneHost;
using ParvaneFuzz::Require;
using std::chrono::hours;
using std::chrono::local_days;
using std::chrono::minutes;
using std::chrono::seconds;
using std::chrono::sys_seconds;

namespace {

constexpr std::int64_t kManySteps = 1'000'000'000'000;

seconds Zone(sys_seconds instant)
{
    return instant.time_since_epoch() % hours{1000} < hours{500} ? hours{1} : hours{2};
}

std::map<local_days, std::int64_t> StepsOf(const StepLedger &ledger)
{
    std::map<local_days, std::int64_t> steps;
    for (const auto &[date, day] : ledger.Days()) {
        Require(day.mSteps >= 0, "steps are not negative");
        Require(!(day.mIsExact && day.mHasLost), "what was lost is not exact");
        steps[date] = day.mSteps;
    }
    Require(steps.size() <= StepLedger::kMaxDays, "the days are bounded");
    return steps;
}

void RequireRestorable(const StepLedger &ledger)
{
    const std::string text = ledger.Save();
    const auto again = StepLedger::Restore(text, Zone);
    Require(again.Ok() && again.Value().Save() == text, "what is saved is restored");
}

void Tell(StepLedger &ledger, ParvaneFuzz::Input &input)
{
    sys_seconds now{seconds{1773489600}};
    while (!input.IsAtEnd()) {
        const std::uint8_t what = input.Byte();
        const auto before = StepsOf(ledger);
        if (what % 8 == 0) {
            ledger.Connected(what < 128 ? "" : "17:4711");
        } else if (what % 8 == 1) {
            ledger.Missed();
        } else {
            now += minutes{what} * (what % 8 == 2 ? 60 : 1);
            const sys_seconds watch = now + seconds{input.Int() % 100000};
            const auto value = what % 8 == 3 ? std::bit_cast<float>(input.Int())
                                             : static_cast<float>(input.Number(2));
            ledger.Take({value, what % 8 == 4 ? std::nullopt : std::optional(watch), now});
        }
        for (const auto &[date, steps] : StepsOf(ledger)) {
            const auto known = before.find(date);
            Require(known == before.end() || known->second <= steps, "no step is taken back");
            if (steps > kManySteps) {
                return; // a text may tell of as many as it can, but nobody walks on from there
            }
        }
        RequireRestorable(ledger);
    }
}

void Restore(const std::string &text, ParvaneFuzz::Input input)
{
    auto restored = StepLedger::Restore(text, Zone);
    if (!restored.Ok()) {
        Require(!restored.GetError().empty(), "it is told why a text is not restored");
        return;
    }
    Require(restored.Value().Save() == text, "what is restored is saved as the same");
    Tell(restored.Value(), input);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view all = ParvaneFuzz::TextOf(data, size);
    const std::string text(all.substr(0, all.find('\0')));
    const std::size_t rest = std::min(size, text.size() + 1);
    const ParvaneFuzz::Input input(data + rest, size - rest);
    Restore(text, input);
    Restore(WithChecksum(text), input);
    return 0;
}
