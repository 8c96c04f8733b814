#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "CaptureFile.h"
#include "CommandLine.h"
#include "Error.h"
#include "ExitCode.h"
#include "LineWriter.h"
#include "LinkedSession.h"
#include "Printer.h"
#include "ProgressBar.h"
#include "Signals.h"
#include "StepsKeeper.h"

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

    /** What a watch has come to. */
    struct Following
    {
        bool mHasRead = false;
        bool mIsBack = false;                // a link was lost, and nothing has come since
        std::set<Sensor> mSilent;            // left out
        std::map<Sensor, std::string> mSaid; // by this link, of sensors that the watch pushes
    };

    [[nodiscard]] SessionOptions MakeSessionOptions() const;
    [[nodiscard]] bool Counts() const;
    Result<Link, Error> MakeLink(const Deadline &bound);
    std::optional<Error> Connect(const Deadline &bound = Deadline::Never());
    Result<Told::Event, Error> Next(const Deadline &deadline);
    [[nodiscard]] Error WhyLost(const Failure &why) const;
    template <typename T>
    Result<T, Error> Await(RequestId request);
    Result<Told::NewReading, Error> MeasureOnce();
    std::optional<Error> Rest(const Deadline &end);
    Error PrintAll(Following &following, const Deadline &end);
    bool PrintOne(const Told::NewReading &told, Following &following);
    static bool IsNews(const Told::NewReading &told, Following &following);
    std::optional<Error> Notice(const Told::Event &event, Following &following);
    std::optional<Error> EndActivity(bool isOver);
    void BeginProgress();
    bool Print(const Lines &lines);
    bool PrintReading(const Told::NewReading &told, bool isOneOfMany);
    Outcome Printed(const Lines &lines);
    [[nodiscard]] Outcome OutputOutcome();
    Outcome Failed(const Error &error);
    void BeginCapture();
    void BeginLink(Link &link);
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
    WaitOptions mWait; // applies to everything that waits
    StepsKeeper mSteps;
    LinkedSession mWatch;
};

} // namespace ParvaneHost
