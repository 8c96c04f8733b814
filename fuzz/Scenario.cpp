#include "Scenario.h"

#include <string>

#include "Input.h"
#include "Require.h"
#include "Timeline.h"

// A script of parvane-watch play: what is taken is in order and within its bounds, the rest is refused
// with its line.

using ParvaneFuzz::Require;
using namespace ParvaneWatch;

namespace {

void CheckTimeline(const Scenario &scenario)
{
    std::int64_t last = 0;
    for (const PlayEvent &event : MakeTimeline(scenario, 1)) {
        Require(event.mMs >= last && event.mMs <= scenario.mEndMs,
                "events are in order and within the scenario");
        last = event.mMs;
        Require(event.mItem != PlayItem::HeartRate || event.mValue == HeartRateCell::kOffWrist ||
                    (event.mValue >= 0 && event.mValue <= kLargestHeartRate),
                "a heart rate is one that can be set");
        Require(event.mItem != PlayItem::Steps || event.mValue > 0, "steps are added");
        Require(!RequestText(event).empty(), "an event is a request");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    constexpr std::int64_t kMinuteMs = 60000;
    try {
        const Scenario scenario = ParseScenario("s", ParvaneFuzz::TextOf(data, size));
        Require(!scenario.mRows.empty() && scenario.mEndMs <= kMaxScenarioMs,
                "a scenario has rows, and an end in time");
        if (scenario.mEndMs <= kMinuteMs) { // a longer one has nothing new
            CheckTimeline(scenario);
        }
    } catch (const ScenarioError &error) {
        const std::string text = error.what();
        Require(text.starts_with("s:") && text.find('\n') == text.npos &&
                    text.find("; allowed: ") != text.npos,
                "an error is one line that says where, and what is allowed");
    }
    return 0;
}
