#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "CommandLine.h"
#include "ControlClient.h"
#include "ExitCode.h"
#include "RecordingFile.h"
#include "Signals.h"

namespace ParvaneWatch {

/** How a run ended. */
struct Outcome
{
    ExitCode mCode = ExitCode::Success;
    int mSignal = 0; // when not 0: the process is to end by this signal
};

/**
 * Does what an Invocation says: answers on standard output, errors and progress on standard error.
 * Borrows the signals, which must outlive it. Use once.
 */
class CommandRunner
{
public:
    CommandRunner(Invocation invocation, const Parvane::Signals &signals);

    Outcome Run();

private:
    Outcome Execute();
    /** Prints what a reply tells. */
    Outcome Show(const nlohmann::json &reply);
    Outcome ShowReplay(const nlohmann::json &reply);
    Outcome Record(ControlClient &client, const nlohmann::json &reply);
    void SayWhatIsOn(const nlohmann::json &items) const;
    /** Takes one message of a recording. @return false when the recording is over */
    bool TakeMessage(const nlohmann::json &message);
    bool WriteRow(const std::string &lines);
    Outcome FinishRecording();
    void ShowProgress(bool isLast);
    Outcome Refused(const nlohmann::json &message);
    /** Of a value that is not allowed, in the words of this command. */
    Outcome RefusedReplay(ControlClient &client, const nlohmann::json &message);
    /** Says once that the service has another version; whatever comes of asking for it is no failure. */
    void CompareVersions(const nlohmann::json &report);
    void AskForVersion(ControlClient &client);
    Outcome Print(const std::string &text);
    void Complain(const std::string &text) const;
    void Say(const std::string &text) const;

    Invocation mInvocation;
    const Parvane::Signals &mSignals;
    RecordingFile mFile;
    Outcome mRecordingOutcome;
    std::uint64_t mRows = 0;
    std::uint64_t mLeftOut = 0;
    bool mShowsProgress = false;
    std::chrono::steady_clock::time_point mShownAt;
};

} // namespace ParvaneWatch
