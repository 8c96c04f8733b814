#include "context_manager/Recording.h"

#include <string>

#include "Input.h"
#include "Require.h"
#include "base/StartupError.h"

// The text of a recording.

using namespace ParvanePlatform;
using ParvaneFuzz::Require;

namespace {

constexpr const char *kName = "file.csv";

void CheckStep(const RecordingRow &before, const RecordingRow &row)
{
    Require(before.mTimeMs <= row.mTimeMs, "time does not go back");
    const bool isRestart =
        row.mKnownPedometer < before.mKnownPedometer || row.mIsRestarted != before.mIsRestarted;
    for (std::size_t field = 0; field < kPedometerCounters; ++field) {
        // A second restart looks like the first one.
        Require(isRestart || row.mIsRestarted || before.mPedometer[field] <= row.mPedometer[field],
                "a counter does not go down before a restart");
    }
}

void Check(const Recording &recording)
{
    Require(!recording.mRows.empty(), "a recording has rows");
    const RecordingRow &last = recording.mRows.back();
    Require(recording.mRows.front().mTimeMs >= 0 && last.mTimeMs <= kMaxRecordingMs,
            "times are within what a recording may last");
    Require(recording.mLoopMs > last.mTimeMs, "the next round begins after the last row");
    for (std::size_t i = 1; i < recording.mRows.size(); ++i) {
        CheckStep(recording.mRows[i - 1], recording.mRows[i]);
    }
    RecordingRow next = recording.mRows.front();
    GoOnFrom(last, next);
    Require((next.mKnownPedometer & last.mKnownPedometer) == last.mKnownPedometer ||
                next.mIsRestarted,
            "the next round knows what the last row knew");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    try {
        Check(ParseRecording(kName, ParvaneFuzz::TextOf(data, size)));
    } catch (const StartupError &error) {
        Require(std::string(error.what()).starts_with(std::string(kName) + ": "),
                "an error names the recording");
    }
    return 0;
}
