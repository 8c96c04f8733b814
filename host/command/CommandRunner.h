#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "CaptureFile.h"
#include "Client.h"
#include "CommandLine.h"
#include "Error.h"
#include "ExitCode.h"
#include "LineWriter.h"
#include "Printer.h"
#include "ProgressBar.h"
#include "SensorWatch.h"
#include "Signals.h"
#include "StepCounter.h"

namespace ParvaneHost {

/** How a run ended. */
struct Outcome
{
    ExitCode mCode = ExitCode::Success;
    int mSignal = 0; // when not 0: the process is to end by this signal
};

/**
 * Does what an Invocation says: answers on standard output, errors, notices and the progress bar on
 * standard error. Borrows the signals, which must outlive it. Use once.
 */
class CommandRunner
{
public:
    CommandRunner(Invocation invocation, Parvane::Signals &signals);
    ~CommandRunner();

    CommandRunner(const CommandRunner &) = delete;
    CommandRunner &operator=(const CommandRunner &) = delete;

    Outcome Run();

private:
    Outcome Act();
    Outcome List();
    Outcome Measure();
    Outcome Watch();
    Outcome Today();
    Outcome Stop();
    Outcome Raw();

    [[nodiscard]] ClientOptions MakeClientOptions();
    std::optional<Error> Connect(const Deadline &bound = Deadline::Never());
    [[nodiscard]] Deadline Within(std::chrono::milliseconds usual) const;
    Result<Reading, Error> MeasureOnce();
    std::optional<Error> Rest(const Deadline &end);
    [[nodiscard]] bool Counts() const;
    void Count(const Reading &reading);
    void CountUnclaimed();
    Error PrintAll(SensorWatch &watch, const Deadline &end, bool &hasRead);
    void BeginProgress();
    bool Print(const Lines &lines);
    bool PrintReading(const Reading &reading, bool isOneOfMany);
    Outcome Printed(const Lines &lines);
    [[nodiscard]] Outcome OutputOutcome();
    Outcome Failed(const Error &error);
    void BeginCapture(ClientOptions &options);
    void LookAtCapture(int error);
    void Complain(const std::string &text);

    Invocation mInvocation;
    Parvane::Signals *mSignals;
    std::unique_ptr<Printer> mPrinter;
    LineWriter mOutput;
    LineWriter mErrors;
    std::optional<ProgressBar> mBar;
    std::set<Sensor> mRemarkedOn;
    Parvane::CaptureFile mCapture;
    bool mHasCaptureFailed = false;
    Client mClient;
    std::optional<StepCounter> mSteps; // nothing: steps are told as they are on the wire
};

} // namespace ParvaneHost
