#include "Session.h"

#include <algorithm>
#include <utility>

#include "Earlier.h"
#include "WireCodec.h"

namespace ParvaneHost {

namespace {

using std::chrono::milliseconds;

/** So long is the worn state to hold on when the heart rate is asked for, which takes 15 s. */
constexpr milliseconds kWornLeft{30000};

bool IsKnown(Sensor sensor)
{
    return SensorName(sensor) != SensorName(Sensor{0});
}

bool IsPushed(Sensor sensor)
{
    return sensor == Sensor::Activity || sensor == Sensor::Pedometer;
}

} // namespace

Session::Session(SessionOptions options, StepLedger ledger)
    : mOptions(options),
      mReadings(options.mCountsSteps, std::move(ledger)),
      mBackoff(options.mFirstPause, options.mLongestPause),
      mQuestions(options.mFirstFlags)
{}

// --- what happens -------------------------------------------------------------------------------

void Session::Connected(Moment now, std::string_view run)
{
    if (IsLinked() || mState == State::Trying) {
        Lost("another link took its place", now);
    }
    mState = State::Trying;
    mReadings.Connected(run);
    if (mOptions.mProvesLink || Follows(Sensor::Activity)) {
        // Also what a start needs: the watch may still count the activity as started.
        Ask(Request::Stop(Sensor::Activity, 0), true, now);
        Send(*mQuestions.Find(Command::Stop, Sensor::Activity), now);
    } else {
        BecomeReady(now);
    }
    Work(now);
}

void Session::Lost(std::string why, Moment now)
{
    GoAway({Failure::Reason::LinkLost, std::move(why)}, now);
    Work(now);
}

void Session::Take(std::span<const std::uint8_t> packet, Moment now)
{
    if (mState != State::Trying && mState != State::Ready) {
        return;
    }
    mHoldUps.Take();
    if (mHoldUps.IsLate(now.mSteady) || mHoldUps.AreMany()) {
        Missed(now.mSteady);
    }
    const auto reply = Decode(packet);
    if (!reply) {
        Missed(now.mSteady); // it may have been a total
        mEvents.emplace_back(Told::Nonsense{reply.GetError().Text()});
    } else {
        mHeardAt = now.mSteady;
        mBackoff.Reset();
        std::visit([this, now](const auto &known) { TakeReply(known, now); }, reply.Value());
    }
    Work(now);
}

void Session::Advance(Moment now)
{
    // Of many packets, what was dropped came between the last one of them and the next.
    if (mHoldUps.IsLate(now.mSteady) || mHoldUps.AreMany()) {
        Missed(now.mSteady);
    }
    mHoldUps.Wait();
    Work(now);
}

// --- what is wanted -----------------------------------------------------------------------------

RequestId Session::Measure(Sensor sensor, Moment now, std::optional<milliseconds> timeout)
{
    const RequestId request = Ask(Request::MeasureOnce(sensor, 0), false, now, timeout);
    Work(now);
    return request;
}

RequestId Session::List(Moment now, std::optional<milliseconds> timeout)
{
    const RequestId request = Ask(Request::SensorList(0), false, now, timeout);
    Work(now);
    return request;
}

RequestId Session::Stop(Sensor sensor, Moment now, std::optional<milliseconds> timeout)
{
    mWishes.Forget(sensor);
    mQuestions.ForgetOurs(sensor);
    const RequestId request = Ask(Request::Stop(sensor, 0), false, now, timeout);
    Work(now);
    return request;
}

void Session::Follow(Sensor sensor, Moment now, milliseconds every)
{
    if (!IsKnown(sensor)) {
        mEvents.emplace_back(Told::Failed{
            0, sensor, {Failure::Reason::Unsupported, "the watch has no such sensor"}});
        return;
    }
    if (mWishes.Follow(sensor, every) && IsLinked()) {
        mWishes.Find(sensor)->mAskAt = now.mSteady;
    }
    Work(now);
}

// --- what comes of it ---------------------------------------------------------------------------

std::optional<Told::Event> Session::NextEvent()
{
    if (mEvents.empty()) {
        return std::nullopt;
    }
    Told::Event event = std::move(mEvents.front());
    mEvents.pop_front();
    return event;
}

std::optional<Session::SteadyTime> Session::Deadline() const
{
    std::optional<SteadyTime> deadline = mQuestions.Deadline();
    if (mState == State::Resting) {
        deadline = Earlier(deadline, mConnectAt);
    }
    return IsLinked() ? Earlier(deadline, mWishes.Deadline()) : deadline;
}

// --- the link -----------------------------------------------------------------------------------

/** Does what is due, whatever has happened. */
void Session::Work(Moment now)
{
    if (mState == State::Resting && mConnectAt <= now.mSteady) {
        mState = State::Wanting;
    }
    GiveUpWhatIsLate(now);
    if (IsLinked()) {
        AskWhatIsDue(now);
    }
    mHoldUps.Expect(Deadline());
}

/** Packets may have been dropped: pushes, and answers as well. */
void Session::Missed(SteadyTime now)
{
    mReadings.Missed();
    mMissedAt = now;
    mWishes.AskIdle(mQuestions, now);
}

void Session::BecomeReady(Moment now)
{
    mState = State::Ready;
    mEvents.emplace_back(Told::Linked{});
    for (auto question = mQuestions.Begin(); question != mQuestions.End(); ++question) {
        if (!question->mSentAt) {
            Send(*question, now);
        }
    }
    mWishes.AskAll(now.mSteady);
}

/** The link is of no more use, or could not be made. */
void Session::GoAway(const Failure &why, Moment now)
{
    if (mState == State::Resting) {
        return;
    }
    const bool wasLinked = IsLinked();
    const milliseconds pause = mBackoff.Next();
    mState = State::Resting;
    mConnectAt = now.mSteady + pause;
    mReadings.Lost();
    mHoldUps.Wait();
    if (wasLinked) {
        mEvents.emplace_back(Told::Lost{why});
    } else {
        mEvents.emplace_back(Told::AttemptFailed{why, pause});
    }
    for (const Question &unanswered : mQuestions.TakeSent()) {
        Fail(unanswered, {Failure::Reason::LinkLost,
                          "the link was lost before the answer to " + unanswered.Text()});
    }
    mWishes.AskNone();
}

// --- questions ----------------------------------------------------------------------------------

void Session::GiveUpWhatIsLate(Moment now)
{
    for (auto question = mQuestions.Begin(); question != mQuestions.End();) {
        const auto next = std::next(question);
        if (question->mGiveUpAt <= now.mSteady) {
            const bool wasResting = mState == State::Resting;
            GiveUp(mQuestions.Take(question), now);
            if (!wasResting && mState == State::Resting) {
                question = mQuestions.Begin(); // what was sent has ended with the link
                continue;
            }
        } else if (question->mAskAgainAt && *question->mAskAgainAt <= now.mSteady) {
            Send(*question, now);
        }
        question = next;
    }
}

void Session::GiveUp(const Question &late, Moment now)
{
    const Failure why = late.mSentAt
                            ? NoAnswer(late.Text(), late.mTimeout)
                            : Failure{Failure::Reason::NotLinked,
                                      "no link to the watch within " + SecondsText(late.mTimeout)};
    const bool isMeasurement = late.mRequest.mCommand == Command::MeasureOnce;
    const bool isProof = mState == State::Trying && late.mSentAt;
    if (isProof || (late.mIsOurs && !isMeasurement)) {
        Fail(late, why);
        GoAway(why, now); // that is answered at once, or never
        return;
    }
    Wish *const wish = late.mIsOurs ? mWishes.Find(late.mRequest.mSensor) : nullptr;
    if (wish != nullptr && late.mSentAt && *late.mSentAt <= mMissedAt) {
        wish->mAskAt = now.mSteady; // the answer may be among what was dropped
        return;
    }
    Fail(late, why);
    if (wish != nullptr) {
        mEvents.emplace_back(Told::Failed{0, late.mRequest.mSensor, why});
    }
    if (mOptions.mProvesLink && IsLinked() && late.mSentAt && mHeardAt <= *late.mSentAt) {
        Ask(Request::SensorList(0), true, now);
    }
}

void Session::AskWhatIsDue(Moment now)
{
    while (const auto sensor = mWishes.TakeDue(now.mSteady)) {
        const Request request = sensor == Sensor::Activity ? Request::Stop(*sensor, 0)
                                                           : Request::MeasureOnce(*sensor, 0);
        Ask(request, true, now);
    }
}

/** @param isOurs  nobody outside is told of it, unless it is asked for there as well */
RequestId Session::Ask(const Request &request, bool isOurs, Moment now,
                       std::optional<milliseconds> timeout)
{
    const auto [question, isNew] =
        mQuestions.Ask(request, isOurs, now.mSteady,
                       timeout.value_or(mOptions.mTimeout.value_or(AnswerTimeout(request))));
    if (request.mCommand != Command::SensorList && !IsKnown(request.mSensor)) {
        Fail(*question, {Failure::Reason::Unsupported, "the watch has no such sensor"});
        return mQuestions.Take(question).mId;
    }
    if (isNew && IsLinked()) {
        Send(*question, now); // may ask for more
    }
    return question->mId;
}

/** Sends it, or sends it once more. */
void Session::Send(Question &question, Moment now)
{
    mQuestions.Send(question, now.mSteady);
    if (question.IsFor(Command::MeasureOnce, Sensor::WearState)) {
        question.mAskAgainAt = now.mSteady + mOptions.mAskAgainAfter;
    }
    if (mOptions.mAsksWorn && question.IsFor(Command::MeasureOnce, Sensor::HeartRate) &&
        mReadings.Observed().WornAt(now.mWall + kWornLeft) == Worn::Unknown) {
        Ask(Request::MeasureOnce(Sensor::WearState, 0), true, now);
    }
}

/** Tells who has asked. */
void Session::Fail(const Question &question, Failure why)
{
    if (question.mIsOurs) {
        return;
    }
    const bool isList = question.mRequest.mCommand == Command::SensorList;
    mEvents.emplace_back(
        Told::Failed{question.mId, isList ? std::nullopt : std::optional(question.mRequest.mSensor),
                     std::move(why)});
}

// --- replies ------------------------------------------------------------------------------------

void Session::TakeReply(const Reading &reading, Moment now)
{
    Told::NewReading told = mReadings.Take(reading, now.mWall);
    told.mObservation.mIsUnbroken = !mHoldUps.AreMany();
    const auto question = mQuestions.Find(reading.mCommand, reading.mSensor);
    // The worn state is told by whichever request reached the watch before its sensor spoke, so its
    // flags may be those of the request before this one.
    const bool isAnswer =
        question != mQuestions.End() && question->mSentAt &&
        (question->WasSentWith(reading.mFlags) || reading.mSensor == Sensor::WearState);
    Wish *const wish = mWishes.Find(reading.mSensor);
    if (isAnswer) {
        Answered(question, told, now);
    } else if (wish != nullptr && question == mQuestions.End() && !wish->mAskAt &&
               (!told.mIsSettled || !IsPushed(reading.mSensor))) {
        wish->mAskAt = now.mSteady; // it was left out, or more is to be known
    }
    const bool isAsked =
        mQuestions.Find(Command::MeasureOnce, Sensor::Pedometer) != mQuestions.End();
    told.mIsSettled = told.mIsSettled || (wish == nullptr && !isAsked);
    mEvents.emplace_back(told);
}

void Session::Answered(Questions::Iterator question, Told::NewReading &told, Moment now)
{
    if (!told.mIsSettled) {
        question->mGiveUpAt = now.mSteady + question->mTimeout;
        question->mSentAt.reset();
        Send(*question, now);
        return;
    }
    Wish *const wish = mWishes.Find(told.mReading.mSensor);
    if (wish != nullptr && !IsPushed(told.mReading.mSensor)) {
        const bool isWorn = told.mReading.mSensor == Sensor::WearState;
        // Of two questions for the worn state within 3 s the watch may answer one.
        const milliseconds every =
            std::max(wish->mEvery, isWorn ? mOptions.mAskAgainAfter : milliseconds{0});
        wish->mAskAt = std::max(*question->mSentAt + every, now.mSteady);
    }
    told.mRequest = question->mIsOurs ? 0 : question->mId;
    mQuestions.Take(question);
}

void Session::TakeReply(const StopAck &acknowledgement, Moment now)
{
    const auto question = mQuestions.Find(Command::Stop, acknowledgement.mSensor);
    if (question == mQuestions.End() || !question->WasSentWith(acknowledgement.mFlags)) {
        return; // late
    }
    if (!question->mIsOurs) {
        mEvents.emplace_back(Told::Stopped{acknowledgement.mSensor, question->mId});
    }
    mQuestions.Take(question);
    if (mState == State::Trying) {
        BecomeReady(now);
    }
    Wish *const wish = mWishes.Find(acknowledgement.mSensor);
    if (acknowledgement.mSensor == Sensor::Activity && wish != nullptr) {
        wish->mAskAt.reset();
        Ask(Request::Start(Sensor::Activity, 0, 0), true, now);
    }
}

void Session::TakeReply(const SensorListHeader &header, Moment /*now*/)
{
    const auto question = mQuestions.Find(Command::SensorList, Sensor{0});
    if (question != mQuestions.End() && question->WasSentWith(header.mFlags)) {
        question->mList = SensorList{header, {}};
        EndListWhenWhole(question);
    }
}

void Session::TakeReply(const SensorEntry &entry, Moment /*now*/)
{
    const auto question = mQuestions.Find(Command::SensorList, Sensor{0});
    if (question == mQuestions.End() || !question->mList || !question->WasSentWith(entry.mFlags)) {
        return;
    }
    if (auto why = question->AddToList(entry)) {
        Fail(*question, *std::move(why));
        mQuestions.Take(question);
        return;
    }
    EndListWhenWhole(question);
}

void Session::TakeReply(const OptionReply & /*reply*/, Moment /*now*/)
{
    // Nothing asks for it.
}

void Session::EndListWhenWhole(Questions::Iterator question)
{
    if (!question->HasWholeList()) {
        return;
    }
    Question answered = mQuestions.Take(question);
    if (!answered.mIsOurs) {
        mEvents.emplace_back(Told::NewList{*std::move(answered.mList), answered.mId});
    }
}

} // namespace ParvaneHost
