#include <string>

#include "Input.h"
#include "RecordingReader.h"
#include "Require.h"
#include "StartupError.h"
#include "TestSupport.h"

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
        Require(isRestart || row.mIsRestarted || before.Pedometer(field) <= row.Pedometer(field),
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
}

/** The same recording twice, one after the other. */
void CheckInTurn(const Recording &once, std::string_view text)
{
    static const TemporaryDirectory directory;
    const std::string path = directory / kName;
    WriteFile(path, text);
    try {
        const Recording twice = LoadRecordings({path, path});
        Require(twice.mRows.size() == 2 * once.mRows.size(), "every row is played twice");
        Require(twice.mLoopMs == 2 * once.mLoopMs, "two rounds take twice as long");
        for (std::size_t i = 1; i < twice.mRows.size(); ++i) {
            Require(twice.mRows[i - 1].mTimeMs <= twice.mRows[i].mTimeMs, "time does not go back");
        }
    } catch (const StartupError &) {
        Require(once.mRows.back().mTimeMs > kMaxRecordingMs - once.mLoopMs,
                "only what lasts too long cannot be played twice");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    try {
        const std::string_view text = ParvaneFuzz::TextOf(data, size);
        const Recording recording = ParseRecording(kName, text);
        Check(recording);
        CheckInTurn(recording, text);
    } catch (const StartupError &error) {
        Require(std::string(error.what()).starts_with(std::string(kName) + ": "),
                "an error names the recording");
    }
    return 0;
}
