#include "Session.h"

#include <algorithm>
#include <utility>

#include "WireCodec.h"

namespace ParvaneHost {

namespace {

using std::chrono::milliseconds;

/** So many packets without a wait in between may be what is left of more: the link holds some hundreds. */
constexpr int kManyInARow = 64;

constexpr milliseconds kHeldUp{1000}; // so late, the process was stopped, or had no time to read

/** So long is the worn state to hold on when the heart rate is asked for, which takes 15 s. */
constexpr milliseconds kWornLeft{30000};

/** Totals that do not tell: two tell, and a midnight may lie between them. */
constexpr int kEnoughTotals = 4;

bool IsKnown(Sensor sensor)
{
    return SensorName(sensor) != SensorName(Sensor{0});
}

bool IsPushed(Sensor sensor)
{
    return sensor == Sensor::Activity || sensor == Sensor::Pedometer;
}

std::string What(const Request &request)
{
    const std::string sensor = "'" + std::string(SensorName(request.mSensor)) + "'";
    switch (request.mCommand) {
    case Command::SensorList:
        return "the sensor list";
    case Command::Start:
        return "the start of " + sensor;
    case Command::Stop:
        return "the stop of " + sensor;
    case Command::MeasureOnce:
    case Command::Option:
        break;
    }
    return MeasurementText(request.mSensor);
}

milliseconds UsualTimeout(const Request &request)
{
    return AnswerTimeout(request.mCommand == Command::MeasureOnce ? request.mSensor
                                                                  : Sensor::Activity);
}

std::optional<Session::SteadyTime> Earlier(std::optional<Session::SteadyTime> one,
                                           std::optional<Session::SteadyTime> other)
{
    return one && other ? std::min(one, other) : one ? one : other;
}

} // namespace

milliseconds AnswerTimeout(Sensor sensor)
{
    constexpr milliseconds kHeartRate{20000}; // the watch takes 15 s
    constexpr milliseconds kWearState{8000};  // 3 s, or twice that when asked twice
    constexpr milliseconds kOther{5000};
    if (sensor == Sensor::HeartRate) {
        return kHeartRate;
    }
    return sensor == Sensor::WearState ? kWearState : kOther;
}

std::string MeasurementText(Sensor sensor)
{
    return "the measurement of '" + std::string(SensorName(sensor)) + "'";
}

Session::Session(SessionOptions options, StepLedger ledger)
    : mOptions(options),
      mLedger(std::move(ledger)),
      mBackoff(options.mFirstPause, options.mLongestPause),
      mFlags(options.mFirstFlags)
{}

// --- what happens -------------------------------------------------------------------------------

void Session::Connected(Moment now, std::string_view run)
{
    if (IsLinked() || mState == State::Trying) {
        Lost("another link took its place", now);
    }
    mState = State::Trying;
    mLedger.Connected(run);
    mUnsure = 0;
    mLag.reset();
    if (mOptions.mProvesLink || Follows(Sensor::Activity)) {
        // Also what a start needs: the watch may still count the activity as started.
        const RequestId stop = Ask(Request::Stop(Sensor::Activity, 0), true, now, std::nullopt);
        for (Question &question : mQuestions) {
            if (question.mId == stop) {
                Send(question, now);
            }
        }
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
    LookAtTheTime(now);
    if (++mTakenInARow >= kManyInARow) {
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
    LookAtTheTime(now);
    if (std::exchange(mTakenInARow, 0) >= kManyInARow) {
        Missed(now.mSteady); // between the last one of them and the next
    }
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
    mWishes.erase(sensor);
    mQuestions.remove_if([sensor](const Question &question) {
        return question.mIsOurs && question.mRequest.mSensor == sensor &&
               question.mRequest.mCommand != Command::Stop;
    });
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
    const auto [wish, isNew] = mWishes.try_emplace(sensor);
    wish->second.mEvery = every;
    if (isNew && IsLinked()) {
        wish->second.mAskAt = now.mSteady;
    }
    Work(now);
}

// --- what comes of it ---------------------------------------------------------------------------

std::optional<Bytes> Session::NextPacket()
{
    if (mPackets.empty()) {
        return std::nullopt;
    }
    Bytes packet = std::move(mPackets.front());
    mPackets.pop_front();
    return packet;
}

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
    std::optional<SteadyTime> deadline;
    if (mState == State::Resting) {
        deadline = mConnectAt;
    }
    for (const Question &question : mQuestions) {
        deadline = Earlier(Earlier(deadline, question.mGiveUpAt), question.mAskAgainAt);
    }
    if (IsLinked()) {
        for (const auto &[sensor, wish] : mWishes) {
            deadline = Earlier(deadline, wish.mAskAt);
        }
    }
    return deadline;
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
    mPromised = Deadline();
}

void Session::LookAtTheTime(Moment now)
{
    if (mPromised && now.mSteady - *mPromised > kHeldUp) {
        Missed(now.mSteady);
    }
    mPromised.reset();
}

/** Packets may have been dropped: pushes, and answers as well. */
void Session::Missed(SteadyTime now)
{
    mLedger.Missed();
    mObservations.Break();
    mMissedAt = now;
    mUnsure = 0;
    for (auto &[sensor, wish] : mWishes) {
        const bool isAsked =
            std::any_of(mQuestions.begin(), mQuestions.end(), [of = sensor](const Question &asked) {
                return asked.mRequest.mSensor == of;
            });
        if (!isAsked && !wish.mAskAt) {
            wish.mAskAt = now;
        }
    }
}

void Session::BecomeReady(Moment now)
{
    mState = State::Ready;
    mEvents.emplace_back(Told::Linked{});
    for (Question &question : mQuestions) {
        if (!question.mSentAt) {
            Send(question, now);
        }
    }
    for (auto &[sensor, wish] : mWishes) {
        wish.mAskAt = now.mSteady;
    }
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
    mPackets.clear();
    mObservations.Break();
    mTakenInARow = 0;
    if (wasLinked) {
        mEvents.emplace_back(Told::Lost{why});
    } else {
        mEvents.emplace_back(Told::AttemptFailed{why, pause});
    }
    for (auto question = mQuestions.begin(); question != mQuestions.end();) {
        if (!question->mSentAt) {
            ++question;
            continue;
        }
        Fail(*question, {Failure::Reason::LinkLost,
                         "the link was lost before the answer to " + What(question->mRequest)});
        question = mQuestions.erase(question);
    }
    for (auto &[sensor, wish] : mWishes) {
        wish.mAskAt.reset();
    }
}

// --- questions ----------------------------------------------------------------------------------

void Session::GiveUpWhatIsLate(Moment now)
{
    for (auto question = mQuestions.begin(); question != mQuestions.end();) {
        const auto next = std::next(question);
        if (question->mGiveUpAt <= now.mSteady) {
            const bool wasResting = mState == State::Resting;
            GiveUp(question, now);
            if (!wasResting && mState == State::Resting) {
                question = mQuestions.begin(); // what was sent has ended with the link
                continue;
            }
        } else if (question->mAskAgainAt && *question->mAskAgainAt <= now.mSteady) {
            Send(*question, now);
        }
        question = next;
    }
}

void Session::GiveUp(Questions::iterator question, Moment now)
{
    const Question late = std::move(*question);
    mQuestions.erase(question);
    const Failure why = late.mSentAt
                            ? NoAnswer(What(late.mRequest), late.mTimeout)
                            : Failure{Failure::Reason::NotLinked,
                                      "no link to the watch within " + SecondsText(late.mTimeout)};
    const bool isMeasurement = late.mRequest.mCommand == Command::MeasureOnce;
    const bool isProof = mState == State::Trying && late.mSentAt;
    if (isProof || (late.mIsOurs && !isMeasurement)) {
        Fail(late, why);
        GoAway(why, now); // that is answered at once, or never
        return;
    }
    const auto wish = mWishes.find(late.mRequest.mSensor);
    const bool isFollowed = isMeasurement && wish != mWishes.end();
    if (isFollowed && late.mIsOurs && late.mSentAt && *late.mSentAt <= mMissedAt) {
        wish->second.mAskAt = now.mSteady; // the answer may be among what was dropped
        return;
    }
    Fail(late, why);
    if (isFollowed && late.mIsOurs) {
        mEvents.emplace_back(Told::Failed{0, late.mRequest.mSensor, why});
    }
    if (mOptions.mProvesLink && IsLinked() && late.mSentAt && mHeardAt <= *late.mSentAt) {
        Ask(Request::SensorList(0), true, now, std::nullopt);
    }
}

void Session::AskWhatIsDue(Moment now)
{
    for (auto &[sensor, wish] : mWishes) {
        if (!wish.mAskAt || *wish.mAskAt > now.mSteady) {
            continue;
        }
        wish.mAskAt.reset();
        const Request request =
            sensor == Sensor::Activity ? Request::Stop(sensor, 0) : Request::MeasureOnce(sensor, 0);
        Ask(request, true, now, std::nullopt);
    }
}

/** @param isOurs  nobody outside is told of it, unless it is asked for there as well */
RequestId Session::Ask(Request request, bool isOurs, Moment now,
                       std::optional<milliseconds> timeout)
{
    const milliseconds within = timeout.value_or(mOptions.mTimeout.value_or(UsualTimeout(request)));
    const SteadyTime giveUpAt = now.mSteady + within;
    const auto asked = Find(request.mCommand, request.mSensor);
    if (asked != mQuestions.end()) {
        asked->mIsOurs = asked->mIsOurs && isOurs;
        if (giveUpAt > asked->mGiveUpAt) {
            asked->mGiveUpAt = giveUpAt;
            asked->mTimeout = within;
        }
        return asked->mId;
    }
    Question question{++mLastId, isOurs, request, within, giveUpAt, {}, {}, {}};
    if (request.mCommand != Command::SensorList && !IsKnown(request.mSensor)) {
        Fail(question, {Failure::Reason::Unsupported, "the watch has no such sensor"});
        return question.mId;
    }
    Question &asking = mQuestions.emplace_back(std::move(question));
    if (IsLinked()) {
        Send(asking, now); // may ask for more
    }
    return asking.mId;
}

/** Sends it, or sends it once more: with the same flags, as either of the two may be answered. */
void Session::Send(Question &question, Moment now)
{
    if (!question.mSentAt) {
        question.mSentAt = now.mSteady;
        question.mRequest.mFlags = NextFlags();
    }
    if (question.mRequest.mSensor == Sensor::WearState &&
        question.mRequest.mCommand == Command::MeasureOnce) {
        question.mAskAgainAt = now.mSteady + mOptions.mAskAgainAfter;
    }
    mPackets.push_back(Encode(question.mRequest));
    const bool isHeartRate = question.mRequest.mSensor == Sensor::HeartRate &&
                             question.mRequest.mCommand == Command::MeasureOnce;
    if (mOptions.mAsksWorn && isHeartRate &&
        mObservations.WornAt(now.mWall + kWornLeft) == Worn::Unknown) {
        Ask(Request::MeasureOnce(Sensor::WearState, 0), true, now, std::nullopt);
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

Session::Questions::iterator Session::Find(Command command, Sensor sensor)
{
    return std::find_if(mQuestions.begin(), mQuestions.end(), [=](const Question &question) {
        return question.mRequest.mCommand == command && question.mRequest.mSensor == sensor;
    });
}

std::uint8_t Session::NextFlags()
{
    // 0 is left out: the watch sends it where there was no request, as after its own restart.
    constexpr std::uint8_t kLast = WireFormat::kFlagsMask;
    const std::uint8_t flags = mFlags == 0 || mFlags > kLast ? std::uint8_t{1} : mFlags;
    mFlags = static_cast<std::uint8_t>(flags == kLast ? 1 : flags + 1);
    return flags;
}

// --- replies ------------------------------------------------------------------------------------

void Session::TakeReply(const Reading &reading, Moment now)
{
    Told::NewReading told{reading, {}, {}, {}, true, 0};
    if (reading.mTimeFieldMs != 0) {
        const std::int64_t wall = now.mWall.time_since_epoch().count();
        told.mWatchTime = Instant(milliseconds(FullTimeMs(reading.mTimeFieldMs, wall)));
    }
    told.mObservation = mObservations.Take(reading, SentAt(told.mWatchTime, now));
    told.mObservation.mIsUnbroken = mTakenInARow < kManyInARow;
    if (reading.mSensor == Sensor::Pedometer && mOptions.mCountsSteps) {
        Count(told, now);
    }
    const auto question = Find(reading.mCommand, reading.mSensor);
    // The worn state is told by whichever request reached the watch before its sensor spoke, so its
    // flags may be those of the request before this one.
    const bool isAnswer =
        question != mQuestions.end() && question->mSentAt &&
        (question->mRequest.mFlags == reading.mFlags || reading.mSensor == Sensor::WearState);
    const auto wish = mWishes.find(reading.mSensor);
    if (isAnswer) {
        Answered(question, told, now);
    } else if (wish != mWishes.end() && question == mQuestions.end() && !wish->second.mAskAt &&
               (!told.mIsSettled || !IsPushed(reading.mSensor))) {
        wish->second.mAskAt = now.mSteady; // it was left out, or more is to be known
    }
    const bool isAsked = Find(Command::MeasureOnce, Sensor::Pedometer) != mQuestions.end();
    told.mIsSettled = told.mIsSettled || (wish == mWishes.end() && !isAsked);
    mEvents.emplace_back(told);
}

/**
 * When the watch has sent it, by the phone's clock: before it arrived where it took longer than others,
 * as it lay in the link of a process that was held up.
 */
Instant Session::SentAt(std::optional<Instant> watchTime, Moment now)
{
    constexpr milliseconds kInaccuracy{2000}; // whole seconds, and those of activities a second off
    if (!watchTime) {
        return now.mWall;
    }
    const milliseconds lag = now.mWall - *watchTime;
    const bool hasGoneBack =
        mWatchTime && *watchTime < *mWatchTime - kInaccuracy; // the watch's clock
    mLag = mLag && !hasGoneBack ? std::min(*mLag, lag) : lag;
    mWatchTime = watchTime;
    return lag - *mLag > kInaccuracy ? now.mWall - (lag - *mLag) : now.mWall;
}

/** Enters a total, and says what is known of the steps by now. */
void Session::Count(Told::NewReading &told, Moment now)
{
    StepTotal total{told.mReading.mValue, std::nullopt, now.mWall};
    if (told.mWatchTime) {
        total.mWatchTime = std::chrono::floor<std::chrono::seconds>(*told.mWatchTime);
    }
    mLedger.Take(total);
    mUnsure = mLedger.WantsQuestion() ? mUnsure + 1 : 0;
    told.mSteps = mLedger.DayOf(now.mWall);
    if (told.mSteps->mSteps && mLedger.WantsQuestion()) {
        told.mSteps->mSteps->mIsExact = false;
    }
    told.mIsSettled = !WantsAnotherTotal();
}

bool Session::WantsAnotherTotal() const
{
    return mLedger.WantsQuestion() && mUnsure < kEnoughTotals;
}

void Session::Answered(Questions::iterator question, Told::NewReading &told, Moment now)
{
    if (!told.mIsSettled) {
        question->mGiveUpAt = now.mSteady + question->mTimeout;
        question->mSentAt.reset();
        Send(*question, now);
        return;
    }
    const auto wish = mWishes.find(told.mReading.mSensor);
    if (wish != mWishes.end() && !IsPushed(told.mReading.mSensor)) {
        const bool isWorn = told.mReading.mSensor == Sensor::WearState;
        // Of two questions for the worn state within 3 s the watch may answer one.
        const milliseconds every =
            std::max(wish->second.mEvery, isWorn ? mOptions.mAskAgainAfter : milliseconds{0});
        wish->second.mAskAt = std::max(*question->mSentAt + every, now.mSteady);
    }
    told.mRequest = question->mIsOurs ? 0 : question->mId;
    mQuestions.erase(question);
}

void Session::TakeReply(const StopAck &acknowledgement, Moment now)
{
    const auto question = Find(Command::Stop, acknowledgement.mSensor);
    if (question == mQuestions.end() || !question->mSentAt ||
        question->mRequest.mFlags != acknowledgement.mFlags) {
        return; // late
    }
    if (!question->mIsOurs) {
        mEvents.emplace_back(Told::Stopped{acknowledgement.mSensor, question->mId});
    }
    mQuestions.erase(question);
    if (mState == State::Trying) {
        BecomeReady(now);
    }
    const auto wish = mWishes.find(Sensor::Activity);
    if (acknowledgement.mSensor == Sensor::Activity && wish != mWishes.end()) {
        wish->second.mAskAt.reset();
        Ask(Request::Start(Sensor::Activity, 0, 0), true, now, std::nullopt);
    }
}

void Session::TakeReply(const SensorListHeader &header, Moment /*now*/)
{
    const auto question = Find(Command::SensorList, Sensor{0});
    if (question != mQuestions.end() && question->mSentAt &&
        question->mRequest.mFlags == header.mFlags) {
        question->mList = SensorList{header, {}};
        EndListWhenWhole(question);
    }
}

void Session::TakeReply(const SensorEntry &entry, Moment /*now*/)
{
    const auto question = Find(Command::SensorList, Sensor{0});
    if (question == mQuestions.end() || !question->mList ||
        question->mRequest.mFlags != entry.mFlags) {
        return;
    }
    auto &entries = question->mList->mEntries;
    entries.push_back(entry);
    if (entry.mPosition != entries.size()) {
        Fail(*question, {Failure::Reason::Malformed,
                         "sensor entry " + std::to_string(entry.mPosition) + " where entry " +
                             std::to_string(entries.size()) + " was due"});
        mQuestions.erase(question);
        return;
    }
    EndListWhenWhole(question);
}

void Session::TakeReply(const OptionReply & /*reply*/, Moment /*now*/)
{
    // Nothing asks for it.
}

void Session::EndListWhenWhole(Questions::iterator question)
{
    if (question->mList->mEntries.size() < question->mList->mHeader.mCount) {
        return;
    }
    if (!question->mIsOurs) {
        mEvents.emplace_back(Told::NewList{*std::move(question->mList), question->mId});
    }
    mQuestions.erase(question);
}

} // namespace ParvaneHost
