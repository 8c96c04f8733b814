#include "CommandRunner.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <unistd.h>
#include <utility>
#include <variant>

#include "ErrnoText.h"
#include "GatewayRoad.h"
#include "JsonPrinter.h"
#include "Printable.h"
#include "Terminal.h"
#include "TextPrinter.h"
#include "Wait.h"
#include "WireCodec.h"

namespace ParvaneHost {

namespace {

using std::chrono::milliseconds;

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

std::unique_ptr<Road> MakeRoad(const Invocation &invocation)
{
    if (invocation.mWeb) {
        return std::make_unique<GatewayRoad>(*invocation.mWeb);
    }
    return std::make_unique<SocketRoad>(invocation.mSocketPath);
}

/** Whether the service, or what is on the way to it, may be just starting. */
bool IsNotThereYet(const Error &error)
{
    const auto *link = std::get_if<LinkError>(&error);
    return link != nullptr && link->mReason == LinkError::Reason::CannotConnect &&
           (link->mErrno == ENOENT || link->mErrno == ECONNREFUSED ||
            (!link->mText.empty() && !link->mIsFinal));
}

/** Whether nobody answers, as opposed to an answer or a link that is amiss. */
bool IsNoAnswer(const Error &error)
{
    const auto *link = std::get_if<LinkError>(&error);
    return IsTimeout(error) ||
           (link != nullptr && (link->mReason == LinkError::Reason::CannotConnect ||
                                link->mReason == LinkError::Reason::AnotherHost));
}

/** The request that the event ends; 0: none. */
template <typename T>
RequestId RequestOf(const T &told)
{
    if constexpr (requires { told.mRequest; }) {
        return told.mRequest;
    }
    return 0;
}

} // namespace

CommandRunner::CommandRunner(Invocation invocation, Parvane::Signals &signals)
    : mInvocation(std::move(invocation)),
      mSignals(&signals),
      mPrinter(MakePrinter(mInvocation)),
      mOutput(STDOUT_FILENO),
      mErrors(STDERR_FILENO),
      mSteps(Counts() ? mInvocation.mStepsPath : std::string(),
             [this](const std::string &text) { Complain(text); }),
      mWatch(MakeRoad(mInvocation), MakeSessionOptions(), mSteps.Load())
{
    mWait.mInterruptFd = mSignals->Fd();
    mWait.mOutputFd = STDOUT_FILENO;
    if (mInvocation.mAction == Invocation::Action::Measure && !mInvocation.mJson &&
        Parvane::CanEraseLine(STDERR_FILENO, std::getenv("TERM"))) {
        mWait.mOnTick = [this] {
            if (mBar) {
                mBar->Update();
            }
        };
    }
    mWatch.SetOnLink([this](Link &link) { BeginLink(link); });
    BeginCapture();
}

CommandRunner::~CommandRunner() = default;

Outcome CommandRunner::Run()
{
    if (mHasCaptureFailed) {
        return {ExitCode::Failure};
    }
    const Outcome outcome = Act();
    mSteps.SaveRest(mWatch.Get().Steps());
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
    auto list = Await<Told::NewList>(mWatch.Get().List(Now()));
    return list ? Printed(mPrinter->List(list.Value().mList)) : Failed(list.GetError());
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
        isUsable = isUsable || reading.Value().mObservation.IsMeasurement();
        ++done;
        if (!PrintReading(reading.Value(), mInvocation.mEvery.has_value()) ||
            done == mInvocation.mCount) {
            break;
        }
        trouble = Rest(next);
    }
    if (trouble && !(done > 0 && std::holds_alternative<Interrupted>(*trouble))) {
        const Outcome outcome = Failed(*trouble);
        if (IsTimeout(*trouble)) {
            Complain("is its link up, and " + std::string(TextPrinter::kWhereToLook));
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
    for (const Sensor sensor : mInvocation.mSensors) {
        mWatch.Get().Follow(sensor, Now());
    }
    const Deadline end = mInvocation.mFor ? Deadline::After(*mInvocation.mFor) : Deadline::Never();
    auto connected = Connect(end);
    if (connected && !std::holds_alternative<Interrupted>(*connected)) {
        return Failed(*connected);
    }
    Following following;
    const Error trouble = connected ? *std::move(connected) : PrintAll(following, end);
    Outcome outcome = OutputOutcome();
    const bool overByTime = following.mHasRead && IsTimeout(trouble) && end.HasPassed();
    if (std::holds_alternative<Interrupted>(trouble)) {
        if (mSignals->Take() == 0) {
            return outcome; // the reader of the output has gone, and waits for nothing
        }
        // Asked for: the end of a watch is no failure.
    } else if (!overByTime) {
        outcome = Failed(trouble);
    }
    if (auto error = EndActivity(overByTime)) {
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
    const StepsOfDay steps = mWatch.Get().Steps().DayOf(Now().mWall);
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
    auto stopped = Await<Told::Stopped>(mWatch.Get().Stop(mInvocation.mSensors.front(), Now()));
    return stopped ? Printed(mPrinter->Stopped(stopped.Value().mSensor))
                   : Failed(stopped.GetError());
}

Outcome CommandRunner::Raw()
{
    auto link = MakeLink(Deadline::Never());
    if (!link) {
        return Failed(link.GetError());
    }
    BeginLink(link.Value());
    constexpr milliseconds kToSend{5000};
    constexpr milliseconds kLongest{2000};
    const milliseconds quiet = mInvocation.mQuietFor.value_or(milliseconds{1000});
    const Deadline limit =
        mInvocation.mTimeout ? Deadline::After(*mInvocation.mTimeout) : Deadline::Never();
    for (const Bytes &packet : mInvocation.mPackets) {
        const Deadline within = Deadline::After(mInvocation.mTimeout.value_or(kToSend));
        if (auto error = link.Value().Send(packet, within.Earlier(limit), mWait)) {
            return Failed(*error);
        }
    }
    // A watch that pushes is never quiet, so there is an end unless one is asked for.
    const bool hasEnd = mInvocation.mTimeout || mInvocation.mQuietFor;
    const Deadline end = hasEnd ? limit : Deadline::After(kLongest);
    for (bool isFirst = true;; isFirst = false) {
        auto packet = link.Value().Receive(Deadline::After(quiet).Earlier(end), mWait);
        if (!packet && !IsTimeout(packet.GetError())) {
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

SessionOptions CommandRunner::MakeSessionOptions() const
{
    SessionOptions options;
    // Runs one after another differ in their flags, too, so that late answers are told apart.
    options.mFirstFlags = static_cast<std::uint8_t>(1 + ::getpid() % WireFormat::kFlagsMask);
    options.mTimeout = mInvocation.mTimeout;
    options.mProvesLink = false; // what is asked for proves it, too
    options.mCountsSteps = Counts();
    return options;
}

/** Connects; as long as it was told to wait, again and again. */
Result<Link, Error> CommandRunner::MakeLink(const Deadline &bound)
{
    constexpr milliseconds kConnectTimeout{5000};
    const milliseconds pauseBetween{mInvocation.mWeb ? 500 : 50};
    const Deadline patience = Deadline::After(mInvocation.mWait).Earlier(bound);
    for (;;) {
        const auto within = Deadline::After(mInvocation.mTimeout.value_or(kConnectTimeout));
        auto link = mWatch.GetRoad().Connect(within.Earlier(bound), mWait);
        if (link || !IsNotThereYet(link.GetError()) || patience.HasPassed()) {
            return link;
        }
        const Deadline pause = Deadline::After(pauseBetween).Earlier(patience);
        if (Parvane::WaitFor(-1, 0, pause, mWait) == Parvane::WaitResult::Interrupted) {
            return Error{Interrupted{}};
        }
    }
}

std::optional<Error> CommandRunner::Connect(const Deadline &bound)
{
    auto link = MakeLink(bound);
    if (!link) {
        return std::move(link).GetError();
    }
    mWatch.Use(std::move(link).Value());
    return std::nullopt;
}

/** The next event, once it is clear that nothing is amiss: of a lost link, and of a packet that is none. */
Result<Told::Event, Error> CommandRunner::Next(const Deadline &deadline)
{
    auto event = mWatch.Next(deadline, mWait);
    if (!event) {
        return event;
    }
    if (const auto *told = std::get_if<Told::NewReading>(&event.Value())) {
        if (told->mSteps) {
            mSteps.Save(mWatch.Get().Steps());
        }
    } else if (const auto *nonsense = std::get_if<Told::Nonsense>(&event.Value())) {
        return Error{Failure{Failure::Reason::Malformed, nonsense->mText}};
    }
    return event;
}

/** Why there is no link: what the transport says of it, unless it is the session that has given it up. */
Error CommandRunner::WhyLost(const Failure &why) const
{
    if (why.mReason == Failure::Reason::LinkLost) {
        return *mWatch.WhyLost();
    }
    return why;
}

/** The event that ends the request. */
template <typename T>
Result<T, Error> CommandRunner::Await(RequestId request)
{
    for (;;) {
        auto event = Next(Deadline::Never());
        if (!event) {
            return std::move(event).GetError();
        }
        if (const auto *lost = std::get_if<Told::Lost>(&event.Value())) {
            return WhyLost(lost->mWhy);
        }
        if (const auto *failed = std::get_if<Told::AttemptFailed>(&event.Value())) {
            return WhyLost(failed->mWhy);
        }
        if (std::visit([](const auto &told) { return RequestOf(told); }, event.Value()) ==
            request) {
            if (const auto *ended = std::get_if<Told::Failed>(&event.Value())) {
                return Error{ended->mWhy};
            }
            return std::get<T>(std::move(event).Value());
        }
    }
}

Result<Told::NewReading, Error> CommandRunner::MeasureOnce()
{
    BeginProgress();
    auto reading =
        Await<Told::NewReading>(mWatch.Get().Measure(mInvocation.mSensors.front(), Now()));
    mBar.reset();
    return reading;
}

/** Whether the steps are to be told as those walked. */
bool CommandRunner::Counts() const
{
    const auto &sensors = mInvocation.mSensors;
    return !mInvocation.mRaw && mInvocation.mAction != Invocation::Action::Stop &&
           std::find(sensors.begin(), sensors.end(), Sensor::Pedometer) != sensors.end();
}

/**
 * Prints what comes until something ends it.
 *
 * @return what: Interrupted also for an output that takes no more
 */
Error CommandRunner::PrintAll(Following &following, const Deadline &end)
{
    for (;;) {
        auto event = Next(end);
        if (!event) {
            const bool isOver = IsTimeout(event.GetError()) && !following.mHasRead;
            return isOver ? NoAnswer(MeasurementText(mInvocation.mSensors.front()), end.Length())
                          : std::move(event).GetError();
        }
        const auto *told = std::get_if<Told::NewReading>(&event.Value());
        if (told == nullptr) {
            if (auto error = Notice(event.Value(), following)) {
                return *std::move(error);
            }
        } else if (mWatch.Get().Follows(told->mReading.mSensor) && !PrintOne(*told, following)) {
            return Interrupted{};
        }
        if (end.HasPassed() && following.mHasRead) {
            return NoAnswer("the next reading", end.Length());
        }
    }
}

/** @return false for an output that takes no more */
bool CommandRunner::PrintOne(const Told::NewReading &told, Following &following)
{
    following.mHasRead = true;
    following.mSilent.erase(told.mReading.mSensor);
    if (std::exchange(following.mIsBack, false)) {
        Complain("connected again");
    }
    // Programs are told of every reading, and people of the steps when they are known.
    if (mInvocation.mJson) {
        return PrintReading(told, true);
    }
    return !told.mIsSettled || !IsNews(told, following) || PrintReading(told, true);
}

/** Whether it says more than the reading before: an answer, and the push that follows it, are one state. */
bool CommandRunner::IsNews(const Told::NewReading &told, Following &following)
{
    const Sensor sensor = told.mReading.mSensor;
    if (sensor != Sensor::Activity && sensor != Sensor::Pedometer) {
        return true; // each is a measurement of its own
    }
    const Lines text = TextPrinter(TimeStyle::Short).Measured(told, told.mObservation.mAt, false);
    return std::exchange(following.mSaid[sensor], text.front()) != text.front();
}

/** Tells people of what is no reading. What happens before the first reading is final: it is returned. */
std::optional<Error> CommandRunner::Notice(const Told::Event &event, Following &following)
{
    const auto *lost = std::get_if<Told::Lost>(&event);
    const auto *attempt = std::get_if<Told::AttemptFailed>(&event);
    if (lost != nullptr || attempt != nullptr) {
        const Error why = WhyLost(lost != nullptr ? lost->mWhy : attempt->mWhy);
        const auto *link = std::get_if<LinkError>(&why);
        if (!following.mHasRead || (link != nullptr && link->mIsFinal)) {
            return why;
        }
        following.mIsBack = true;
        following.mSilent.clear();
        following.mSaid.clear();
        Complain(Describe(why) + (lost != nullptr ? "; connecting again" : "; trying again"));
    } else if (const auto *failed = std::get_if<Told::Failed>(&event)) {
        following.mSilent.insert(*failed->mSensor);
        if (following.mSilent.size() == mInvocation.mSensors.size()) {
            return failed->mWhy;
        }
        Complain(failed->mWhy.mText + "; it is left out");
    }
    return std::nullopt;
}

/** Stops an activity that was started, or whose start was interrupted; without a link it ends by itself. */
std::optional<Error> CommandRunner::EndActivity(bool isOver)
{
    constexpr milliseconds kGrace{500}; // when the time is over
    if (!mWatch.Get().Follows(Sensor::Activity) || !mWatch.HasLink()) {
        return std::nullopt;
    }
    const milliseconds within = mInvocation.mTimeout.value_or(AnswerTimeout(Sensor::Activity));
    auto stopped = Await<Told::Stopped>(
        mWatch.Get().Stop(Sensor::Activity, Now(), isOver ? std::min(within, kGrace) : within));
    return stopped ? std::nullopt : std::optional(std::move(stopped).GetError());
}

/** Waits, and drops what is pushed meanwhile: it would be taken for the answer to the next question. */
std::optional<Error> CommandRunner::Rest(const Deadline &end)
{
    do {
        auto event = Next(end);
        if (!event) {
            return IsTimeout(event.GetError()) ? std::nullopt
                                               : std::optional(std::move(event).GetError());
        }
        if (const auto *lost = std::get_if<Told::Lost>(&event.Value())) {
            return WhyLost(lost->mWhy);
        }
    } while (!end.HasPassed());
    return std::nullopt;
}

void CommandRunner::BeginProgress()
{
    const Sensor sensor = mInvocation.mSensors.front();
    if (!mWait.mOnTick) {
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
bool CommandRunner::PrintReading(const Told::NewReading &told, bool isOneOfMany)
{
    const Reading &reading = told.mReading;
    if (!Print(mPrinter->Measured(told, Now().mWall, isOneOfMany))) {
        return false;
    }
    if (told.mSteps) {
        return true;
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
    if (IsTimeout(error) && (mInvocation.mAction == Invocation::Action::List ||
                             mInvocation.mAction == Invocation::Action::Stop)) {
        Complain("is its link up? 'parvane-watch status' on the watch tells");
    }
    return {IsNoAnswer(error) ? ExitCode::NoAnswer : ExitCode::Failure};
}

void CommandRunner::BeginCapture()
{
    if (mInvocation.mCapturePath) {
        LookAtCapture(mCapture.Open(*mInvocation.mCapturePath, mInvocation.mForce));
    }
}

void CommandRunner::BeginLink(Link &link)
{
    if (mInvocation.mCapturePath) {
        mCapture.LinkBegins(link.PeerRun());
        link.SetOnPacket([this](Parvane::Sender sender, std::span<const std::uint8_t> packet) {
            LookAtCapture(mCapture.Add(sender, packet));
        });
    }
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
