#include "CommandRunner.h"

#include <cerrno>
#include <cstdlib>
#include <unistd.h>
#include <utility>
#include <variant>

#include "ErrnoText.h"
#include "JsonPrinter.h"
#include "Printable.h"
#include "SensorWatch.h"
#include "Terminal.h"
#include "TextPrinter.h"
#include "WireCodec.h"

namespace ParvaneHost {

namespace {

using std::chrono::milliseconds;

std::int64_t NowMs()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::floor<milliseconds>(now).count();
}

std::unique_ptr<Printer> MakePrinter(bool json)
{
    if (json) {
        return std::make_unique<JsonPrinter>();
    }
    return std::make_unique<TextPrinter>();
}

} // namespace

CommandRunner::CommandRunner(Invocation invocation, Parvane::Signals &signals)
    : mInvocation(std::move(invocation)),
      mSignals(&signals),
      mPrinter(MakePrinter(mInvocation.mJson)),
      mOutput(STDOUT_FILENO),
      mErrors(STDERR_FILENO),
      mClient(MakeClientOptions())
{}

CommandRunner::~CommandRunner() = default;

Outcome CommandRunner::Run()
{
    switch (mInvocation.mAction) {
    case Invocation::Action::List:
        return List();
    case Invocation::Action::Measure:
        return Measure();
    case Invocation::Action::Watch:
        return Watch();
    case Invocation::Action::Stop:
        return Stop();
    case Invocation::Action::Raw:
        return Raw();
    }
    return {ExitCode::BadUsage};
}

Outcome CommandRunner::List()
{
    if (auto error = mClient.Connect()) {
        return Failed(*error);
    }
    auto list = mClient.ListSensors(Deadline::After(AnswerTimeout()));
    return list ? Printed(mPrinter->List(list.Value())) : Failed(list.GetError());
}

Outcome CommandRunner::Measure()
{
    if (auto error = mClient.Connect()) {
        return Failed(*error);
    }
    BeginProgress();
    auto reading = mClient.Measure(mInvocation.mSensor, Deadline::After(AnswerTimeout()));
    mBar.reset();
    return reading ? Printed(mPrinter->Measured(reading.Value(), NowMs()))
                   : Failed(reading.GetError());
}

Outcome CommandRunner::Watch()
{
    constexpr milliseconds kGrace{500}; // for the acknowledgement, when the time is over
    SensorWatchOptions options;
    options.mRequestTimeout = AnswerTimeout();
    options.mOnNotice = [this](const std::string &text) { Complain(text); };
    SensorWatch watch(mClient, mInvocation.mSensor, std::move(options));
    const Deadline end = mInvocation.mFor ? Deadline::After(*mInvocation.mFor) : Deadline::Never();

    std::optional<Error> trouble = watch.Begin(end);
    if (trouble && !std::holds_alternative<Interrupted>(*trouble)) {
        return Failed(*trouble);
    }
    while (!trouble) {
        auto reading = watch.Next(end);
        if (!reading) {
            trouble = std::move(reading).GetError();
        } else if (!Print(mPrinter->Watched(reading.Value(), NowMs()))) {
            break;
        }
    }
    Outcome outcome = OutputOutcome();
    const bool overByTime = trouble && std::holds_alternative<Timeout>(*trouble) && end.HasPassed();
    if (trouble && std::holds_alternative<Interrupted>(*trouble)) {
        // Asked for: the end of a watch is no failure.
        [[maybe_unused]] const int signal = mSignals->Take();
    } else if (trouble && !overByTime) {
        outcome = Failed(*trouble);
    }
    if (auto error = watch.End(overByTime ? Deadline::After(kGrace) : Deadline::Never())) {
        const Outcome ending = Failed(*error);
        return outcome.mCode == ExitCode::Success ? ending : outcome;
    }
    return outcome;
}

Outcome CommandRunner::Stop()
{
    if (auto error = mClient.Connect()) {
        return Failed(*error);
    }
    auto stopped = mClient.Stop(mInvocation.mSensor, Deadline::After(AnswerTimeout()));
    return stopped ? Printed(mPrinter->Stopped(stopped.Value())) : Failed(stopped.GetError());
}

Outcome CommandRunner::Raw()
{
    if (auto error = mClient.Connect()) {
        return Failed(*error);
    }
    constexpr milliseconds kLongest{2000};
    const milliseconds quiet = mInvocation.mQuietFor.value_or(milliseconds{1000});
    const Deadline limit =
        mInvocation.mTimeout ? Deadline::After(*mInvocation.mTimeout) : Deadline::Never();
    for (const Bytes &packet : mInvocation.mPackets) {
        if (auto error = mClient.SendRaw(packet, Deadline::After(AnswerTimeout()).Earlier(limit))) {
            return Failed(*error);
        }
    }
    // A watch that pushes is never quiet, so there is an end unless one is asked for.
    const bool hasEnd = mInvocation.mTimeout || mInvocation.mQuietFor;
    const Deadline end = hasEnd ? limit : Deadline::After(kLongest);
    for (;;) {
        auto packet = mClient.ReceiveRaw(Deadline::After(quiet).Earlier(end));
        if (!packet) {
            const bool isQuiet = std::holds_alternative<Timeout>(packet.GetError());
            return isQuiet ? Outcome{} : Failed(packet.GetError());
        }
        if (!Print(mPrinter->Packet(packet.Value(), Decode(packet.Value()), NowMs()))) {
            return OutputOutcome();
        }
        if (end.HasPassed()) {
            return {};
        }
    }
}

ClientOptions CommandRunner::MakeClientOptions()
{
    constexpr milliseconds kConnectTimeout{5000};
    ClientOptions options;
    options.mPath = mInvocation.mSocketPath;
    options.mConnectTimeout = mInvocation.mTimeout.value_or(kConnectTimeout);
    options.mWait.mInterruptFd = mSignals->Fd();
    options.mWait.mOutputFd = STDOUT_FILENO;
    // Runs one after another differ in their flags, too, so that late answers are told apart.
    options.mFirstFlags = static_cast<std::uint8_t>(1 + ::getpid() % WireFormat::kFlagsMask);
    if (mInvocation.mAction == Invocation::Action::Measure && !mInvocation.mJson &&
        Parvane::CanEraseLine(STDERR_FILENO, std::getenv("TERM"))) {
        options.mWait.mOnTick = [this] {
            if (mBar) {
                mBar->Update();
            }
        };
    }
    return options;
}

milliseconds CommandRunner::AnswerTimeout() const
{
    constexpr milliseconds kHeartRate{20000}; // the watch takes 15 s
    constexpr milliseconds kWearState{
        8000}; // 3 s, and the same again when it has to be asked twice
    constexpr milliseconds kOther{5000};
    const bool measures = mInvocation.mAction == Invocation::Action::Measure;
    if (mInvocation.mTimeout) {
        return *mInvocation.mTimeout;
    }
    if (measures && mInvocation.mSensor == Sensor::HeartRate) {
        return kHeartRate;
    }
    return measures && mInvocation.mSensor == Sensor::WearState ? kWearState : kOther;
}

void CommandRunner::BeginProgress()
{
    if (!mClient.Options().mWait.mOnTick) {
        return;
    }
    if (mInvocation.mSensor == Sensor::HeartRate) {
        mBar.emplace(STDERR_FILENO, "heart rate", milliseconds{WireFormat::kHeartRatePeriodMs});
    } else if (mInvocation.mSensor == Sensor::WearState) {
        mBar.emplace(STDERR_FILENO, "worn state", milliseconds{WireFormat::kWearStatePeriodMs});
    }
    if (mBar) {
        mBar->Update();
    }
}

bool CommandRunner::Print(const Lines &lines)
{
    for (const std::string &line : lines) {
        if (!mOutput.Write(line)) {
            return false;
        }
    }
    return true;
}

Outcome CommandRunner::Printed(const Lines &lines)
{
    Print(lines);
    return OutputOutcome();
}

/** A reader that has gone wants no more; anything else that stops the output is a failure. */
Outcome CommandRunner::OutputOutcome()
{
    const int code = mOutput.FailureCode();
    if (code == 0 || code == EPIPE) {
        return {};
    }
    Complain("cannot write to standard output: " + Parvane::ErrnoText(code));
    return {ExitCode::LinkFailure};
}

Outcome CommandRunner::Failed(const Error &error)
{
    if (std::holds_alternative<Interrupted>(error)) {
        // Without a signal it is the reader of the output who has gone.
        const int signal = mSignals->Take();
        return {signal != 0 ? ExitCode::LinkFailure : ExitCode::Success, signal};
    }
    Complain(Describe(error));
    return {std::holds_alternative<Timeout>(error) ? ExitCode::NoAnswer : ExitCode::LinkFailure};
}

void CommandRunner::Complain(const std::string &text)
{
    mErrors.Write("parvane-host: " + Parvane::Printable(text));
}

} // namespace ParvaneHost
