#include "CommandRunner.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <unistd.h>
#include <utility>
#include <variant>

#include "ErrnoText.h"
#include "JsonPrinter.h"
#include "Printable.h"
#include "Terminal.h"
#include "TextPrinter.h"
#include "Wait.h"
#include "WireCodec.h"

namespace ParvaneHost {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kAtOnce{5000}; // how long to wait for what the watch answers at once

std::int64_t NowMs()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::floor<milliseconds>(now).count();
}

std::unique_ptr<Printer> MakePrinter(const Invocation &invocation)
{
    if (invocation.mJson) {
        return std::make_unique<JsonPrinter>();
    }
    return std::make_unique<TextPrinter>(invocation.mTimeStyle);
}

/** Whether the service may be just starting. */
bool IsNotThereYet(const Error &error)
{
    const auto *link = std::get_if<LinkError>(&error);
    return link != nullptr && link->mReason == LinkError::Reason::CannotConnect &&
           (link->mErrno == ENOENT || link->mErrno == ECONNREFUSED);
}

/** Whether nobody answers, as opposed to an answer or a link that is amiss. */
bool IsNoAnswer(const Error &error)
{
    const auto *link = std::get_if<LinkError>(&error);
    return std::holds_alternative<Timeout>(error) ||
           (link != nullptr && (link->mReason == LinkError::Reason::CannotConnect ||
                                link->mReason == LinkError::Reason::AnotherHost));
}

/** The watch says with a heart rate of 0 that it has none; of the others it cannot say so. */
bool IsUsable(const Reading &reading)
{
    return reading.mSensor != Sensor::HeartRate || reading.mValue > 0;
}

} // namespace

CommandRunner::CommandRunner(Invocation invocation, Parvane::Signals &signals)
    : mInvocation(std::move(invocation)),
      mSignals(&signals),
      mPrinter(MakePrinter(mInvocation)),
      mOutput(STDOUT_FILENO),
      mErrors(STDERR_FILENO),
      mClient(MakeClientOptions())
{
    if (Counts()) {
        mSteps.emplace(mInvocation.mStepsPath, [this](const std::string &text) { Complain(text); });
    }
}

CommandRunner::~CommandRunner() = default;

Outcome CommandRunner::Run()
{
    if (mHasCaptureFailed) {
        return {ExitCode::Failure};
    }
    const Outcome outcome = Act();
    const bool isLost = mHasCaptureFailed && outcome.mCode == ExitCode::Success;
    return isLost ? Outcome{ExitCode::Failure, outcome.mSignal} : outcome;
}

Outcome CommandRunner::Act()
{
    switch (mInvocation.mAction) {
    case Invocation::Action::List:
        return List();
    case Invocation::Action::Measure:
        return Measure();
    case Invocation::Action::Watch:
        return Watch();
    case Invocation::Action::Today:
        return Today();
    case Invocation::Action::Stop:
        return Stop();
    case Invocation::Action::Raw:
        return Raw();
    case Invocation::Action::Export: // which is no matter of a watch
        break;
    }
    return {ExitCode::BadUsage};
}

Outcome CommandRunner::List()
{
    if (auto error = Connect()) {
        return Failed(*error);
    }
    auto list = mClient.ListSensors(Within(kAtOnce));
    return list ? Printed(mPrinter->List(list.Value())) : Failed(list.GetError());
}

Outcome CommandRunner::Measure()
{
    std::optional<Error> trouble = Connect();
    bool isUsable = false;
    unsigned done = 0;
    while (!trouble) {
        const Deadline next = Deadline::After(mInvocation.mEvery.value_or(milliseconds{0}));
        auto reading = MeasureOnce();
        if (!reading) {
            trouble = std::move(reading).GetError();
            break;
        }
        isUsable = isUsable || IsUsable(reading.Value());
        ++done;
        if (!PrintReading(reading.Value(), mInvocation.mEvery.has_value()) ||
            done == mInvocation.mCount) {
            break;
        }
        trouble = Rest(next);
    }
    if (trouble && !(done > 0 && std::holds_alternative<Interrupted>(*trouble))) {
        const Outcome outcome = Failed(*trouble);
        if (std::holds_alternative<Timeout>(*trouble)) {
            Complain(TextPrinter::kWhereToLook);
        }
        return outcome;
    }
    // Asked for: that a signal ends a series is no failure.
    [[maybe_unused]] const int signal = mSignals->Take();
    const Outcome outcome = OutputOutcome();
    return outcome.mCode == ExitCode::Success && !isUsable ? Outcome{ExitCode::NoReading} : outcome;
}

Outcome CommandRunner::Watch()
{
    constexpr milliseconds kGrace{500}; // for the acknowledgement, when the time is over
    SensorWatchOptions options;
    options.mRequestTimeout = mInvocation.mTimeout;
    options.mOnNotice = [this](const std::string &text) { Complain(text); };
    options.mOnLinkedAgain = [this] {
        if (mSteps) {
            mSteps->Connected(mClient.PeerRun());
        }
    };
    SensorWatch watch(mClient, mInvocation.mSensors, std::move(options));
    const Deadline end = mInvocation.mFor ? Deadline::After(*mInvocation.mFor) : Deadline::Never();

    std::optional<Error> trouble = Connect(end);
    if (!trouble) {
        trouble = watch.Begin(end);
    }
    if (trouble && !std::holds_alternative<Interrupted>(*trouble)) {
        return Failed(*trouble);
    }
    bool hasRead = false;
    if (!trouble) {
        trouble = PrintAll(watch, end, hasRead);
    }
    Outcome outcome = OutputOutcome();
    const bool overByTime =
        hasRead && trouble && std::holds_alternative<Timeout>(*trouble) && end.HasPassed();
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

/** What the watch tells now or, without it, what is known. */
Outcome CommandRunner::Today()
{
    std::optional<Error> trouble = Connect();
    if (!trouble) {
        auto reading = MeasureOnce();
        if (!reading) {
            trouble = std::move(reading).GetError();
        }
    }
    Outcome outcome;
    if (trouble) {
        outcome = Failed(*trouble);
        if (outcome.mSignal != 0) {
            return outcome;
        }
    }
    const StepsOfDay steps = mSteps->Today(NowMs());
    const Outcome printed = Printed(mPrinter->Today(steps));
    if (outcome.mCode != ExitCode::Success || printed.mCode != ExitCode::Success) {
        return outcome.mCode != ExitCode::Success ? outcome : printed;
    }
    return {steps.mSteps ? ExitCode::Success : ExitCode::NoReading};
}

Outcome CommandRunner::Stop()
{
    if (auto error = Connect()) {
        return Failed(*error);
    }
    auto stopped = mClient.Stop(mInvocation.mSensors.front(), Within(kAtOnce));
    return stopped ? Printed(mPrinter->Stopped(stopped.Value())) : Failed(stopped.GetError());
}

Outcome CommandRunner::Raw()
{
    if (auto error = Connect()) {
        return Failed(*error);
    }
    constexpr milliseconds kLongest{2000};
    const milliseconds quiet = mInvocation.mQuietFor.value_or(milliseconds{1000});
    const Deadline limit =
        mInvocation.mTimeout ? Deadline::After(*mInvocation.mTimeout) : Deadline::Never();
    for (const Bytes &packet : mInvocation.mPackets) {
        if (auto error = mClient.SendRaw(packet, Within(kAtOnce).Earlier(limit))) {
            return Failed(*error);
        }
    }
    // A watch that pushes is never quiet, so there is an end unless one is asked for.
    const bool hasEnd = mInvocation.mTimeout || mInvocation.mQuietFor;
    const Deadline end = hasEnd ? limit : Deadline::After(kLongest);
    for (bool isFirst = true;; isFirst = false) {
        auto packet = mClient.ReceiveRaw(Deadline::After(quiet).Earlier(end));
        if (!packet && !std::holds_alternative<Timeout>(packet.GetError())) {
            return Failed(packet.GetError());
        }
        if (!packet) {
            if (isFirst) {
                Complain("no packet came");
            }
            return {};
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
    BeginCapture(options);
    return options;
}

/** Connects; as long as it was told to wait, again and again. */
std::optional<Error> CommandRunner::Connect(const Deadline &bound)
{
    constexpr milliseconds kPause{50};
    const Deadline patience = Deadline::After(mInvocation.mWait).Earlier(bound);
    for (;;) {
        auto error = mClient.Connect(bound);
        if (!error && mSteps) {
            mSteps->Connected(mClient.PeerRun());
        }
        if (!error || !IsNotThereYet(*error) || patience.HasPassed()) {
            return error;
        }
        const Deadline pause = Deadline::After(kPause).Earlier(patience);
        if (Parvane::WaitFor(-1, 0, pause, mClient.Options().mWait) ==
            Parvane::WaitResult::Interrupted) {
            return Interrupted{};
        }
    }
}

Deadline CommandRunner::Within(milliseconds usual) const
{
    return Deadline::After(mInvocation.mTimeout.value_or(usual));
}

Result<Reading, Error> CommandRunner::MeasureOnce()
{
    const Sensor sensor = mInvocation.mSensors.front();
    BeginProgress();
    auto reading = mClient.Measure(sensor, Within(AnswerTimeout(sensor)));
    mBar.reset();
    for (; reading && mSteps; reading = mClient.Measure(sensor, Within(AnswerTimeout(sensor)))) {
        CountUnclaimed();
        Count(reading.Value());
        if (!mSteps->WantsQuestion()) {
            break;
        }
    }
    return reading;
}

/** Whether the steps are to be told as those walked. */
bool CommandRunner::Counts() const
{
    const auto &sensors = mInvocation.mSensors;
    return !mInvocation.mRaw && mInvocation.mAction != Invocation::Action::Stop &&
           std::find(sensors.begin(), sensors.end(), Sensor::Pedometer) != sensors.end();
}

/** Enters a reading of the steps; in the order in which they come, and each of them. */
void CommandRunner::Count(const Reading &reading)
{
    if (mSteps) {
        mSteps->Take(reading, NowMs());
    }
}

/** What has come before the answer that was awaited. */
void CommandRunner::CountUnclaimed()
{
    for (const Reply &earlier : mClient.TakeUnclaimed()) {
        if (const auto *pushed = std::get_if<Reading>(&earlier)) {
            Count(*pushed);
        }
    }
}

/**
 * Prints what comes until something ends it.
 *
 * @return what: Interrupted also for an output that takes no more
 */
Error CommandRunner::PrintAll(SensorWatch &watch, const Deadline &end, bool &hasRead)
{
    constexpr milliseconds kTooLong{1000}; // for the reader of the output to hold everything up
    for (;;) {
        auto reading = watch.Next(end);
        if (!reading) {
            return std::move(reading).GetError();
        }
        hasRead = true;
        Count(reading.Value());
        if (mSteps && reading.Value().mSensor == Sensor::Pedometer && mSteps->WantsQuestion()) {
            watch.AskAgain(Sensor::Pedometer);
            if (!mInvocation.mJson) { // programs are told of every reading
                continue;
            }
        }
        const auto begin = std::chrono::steady_clock::now();
        if (!PrintReading(reading.Value(), true)) {
            return Interrupted{};
        }
        if (mSteps && std::chrono::steady_clock::now() - begin > kTooLong) {
            mClient
                .Disconnect(); // totals may have been dropped meanwhile: a new link has no old ones
        }
    }
}

/** Waits, and drops what is pushed meanwhile: it would be taken for the answer to the next question. */
std::optional<Error> CommandRunner::Rest(const Deadline &end)
{
    CountUnclaimed();
    do {
        auto pushed = mClient.Receive(end);
        const auto *reading = pushed ? std::get_if<Reading>(&pushed.Value()) : nullptr;
        if (reading != nullptr) {
            Count(*reading);
        }
        if (!pushed && !std::holds_alternative<Timeout>(pushed.GetError())) {
            return std::move(pushed).GetError();
        }
    } while (!end.HasPassed());
    return std::nullopt;
}

void CommandRunner::BeginProgress()
{
    const Sensor sensor = mInvocation.mSensors.front();
    if (!mClient.Options().mWait.mOnTick) {
        return;
    }
    if (sensor == Sensor::HeartRate) {
        mBar.emplace(STDERR_FILENO, "heart rate", milliseconds{WireFormat::kHeartRatePeriodMs});
    } else if (sensor == Sensor::WearState) {
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

/** With what there is to say about it, once for each sensor. */
bool CommandRunner::PrintReading(const Reading &reading, bool isOneOfMany)
{
    const std::int64_t now = NowMs();
    if (mSteps && reading.mSensor == Sensor::Pedometer) {
        return Print(mPrinter->Steps(reading, mSteps->Latest(now), now, isOneOfMany));
    }
    if (!Print(isOneOfMany ? mPrinter->Watched(reading, now) : mPrinter->Measured(reading, now))) {
        return false;
    }
    const Lines remark = mPrinter->Remark(reading);
    if (!remark.empty() && mRemarkedOn.insert(reading.mSensor).second) {
        for (const std::string &line : remark) {
            Complain(line);
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
    return {ExitCode::Failure};
}

Outcome CommandRunner::Failed(const Error &error)
{
    if (std::holds_alternative<Interrupted>(error)) {
        // Without a signal it is the reader of the output who has gone.
        const int signal = mSignals->Take();
        return {signal != 0 ? ExitCode::Failure : ExitCode::Success, signal};
    }
    Complain(Describe(error));
    return {IsNoAnswer(error) ? ExitCode::NoAnswer : ExitCode::Failure};
}

void CommandRunner::BeginCapture(ClientOptions &options)
{
    if (!mInvocation.mCapturePath) {
        return;
    }
    LookAtCapture(mCapture.Open(*mInvocation.mCapturePath, mInvocation.mForce));
    options.mOnConnected = [this] { mCapture.LinkBegins(mClient.PeerRun()); };
    options.mOnPacket = [this](Parvane::Sender sender, std::span<const std::uint8_t> packet) {
        LookAtCapture(mCapture.Add(sender, packet));
    };
}

/** A capture that fails under way ends nothing, and is a failure in the end. */
void CommandRunner::LookAtCapture(int error)
{
    if (error != 0) {
        mHasCaptureFailed = true;
        Complain("cannot write the capture to '" + *mInvocation.mCapturePath + "': " +
                 Parvane::ErrnoText(error) + (error == EEXIST ? " (--force overwrites it)" : ""));
    }
}

void CommandRunner::Complain(const std::string &text)
{
    mErrors.Write("parvane-host: " + Parvane::Printable(text));
}

} // namespace ParvaneHost
