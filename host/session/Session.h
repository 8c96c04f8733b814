#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "Backoff.h"
#include "Failure.h"
#include "Messages.h"
#include "Observation.h"
#include "StepLedger.h"

namespace ParvaneHost {

/** A point in time by both clocks of the caller. The steady one may begin anywhere and never goes back. */
struct Moment
{
    std::chrono::steady_clock::time_point mSteady; // for pauses and time-outs
    Instant mWall; // for the times of readings and the days of steps
};

/** A request of one session. 0 is none; a number is not used twice. */
using RequestId = std::uint64_t;

/** How long a measurement may take until it counts as unanswered, with some room. */
std::chrono::milliseconds AnswerTimeout(Sensor sensor);

/** "the measurement of 'hr'": what a failure names. */
std::string MeasurementText(Sensor sensor);

/** What a Session tells. */
namespace Told {

/** The watch is there: once for each link that comes to be of use. */
struct Linked
{};

/** What was Linked is so no more: once. What is followed will be asked for on the next link. */
struct Lost
{
    Failure mWhy;
};

/** An attempt to be linked that led to nothing, with the pause before the next one. */
struct AttemptFailed
{
    Failure mWhy;
    std::chrono::milliseconds mPause{0};
};

/** A reading, asked for or pushed. Each packet is told once. */
struct NewReading
{
    Reading mReading{};         // as on the wire
    Observation mObservation{}; // what it is worth: its age, whether it is one, worn or not
    std::optional<Instant>
        mWatchTime{};                   // by the clock of the watch; nothing where that has no time
    std::optional<StepsOfDay> mSteps{}; // pedometer, where they are counted: of the day, so far
    /** False: the same is asked for again at once, as this total alone does not tell the steps. */
    bool mIsSettled = true;
    RequestId mRequest = 0; // that it answers; 0: none, it was pushed or is followed
};

struct NewList
{
    SensorList mList;
    RequestId mRequest = 0;
};

/** A stop was acknowledged. */
struct Stopped
{
    Sensor mSensor = Sensor::Activity;
    RequestId mRequest = 0;
};

/**
 * A request ends without its answer. With mRequest 0 it is a sensor that is followed: it is left out
 * until it speaks by itself, or the next link.
 */
struct Failed
{
    RequestId mRequest = 0;
    std::optional<Sensor> mSensor; // nothing: the sensor list
    Failure mWhy;
};

/** A packet that is none: what is wrong with it, in a line for a log. Nothing else comes of it. */
struct Nonsense
{
    std::string mText;
};

using Event =
    std::variant<Linked, Lost, AttemptFailed, NewReading, NewList, Stopped, Failed, Nonsense>;

} // namespace Told

struct SessionOptions
{
    /** Flags of the first request, 1 to 3; the following ones take turns. */
    std::uint8_t mFirstFlags = 1;
    /** For the answer to each request; nothing: 5 s, or what the sensor takes: AnswerTimeout(). */
    std::optional<std::chrono::milliseconds> mTimeout;
    /** After this long without an answer the worn state is asked for again. */
    std::chrono::milliseconds mAskAgainAfter{3500};
    std::chrono::milliseconds mFirstPause{100}; // before a lost link is made again; doubled up to
    std::chrono::milliseconds mLongestPause{5000}; // this
    /**
     * A link counts only when the watch has answered on it, for which it is sent a stop of the
     * activity; and after an unanswered request it is asked for its sensors, to see whether it is
     * still there. False: that is left to whoever asks, except where the activity is followed.
     */
    bool mProvesLink = true;
    /**
     * With a heart rate the worn state is asked for, unless it was just told: what a watch measures that
     * is not worn is worth little. It is a reading like any other, and a silent one is passed over.
     */
    bool mAsksWorn = true;
    /** Steps are asked for until they are known. False: once, and the total is told as it is. */
    bool mCountsSteps = true;
};

/**
 * The phone's side of the accessory link, without the link: docs/phone.md.
 *
 * No socket, no clock, no thread, no callback. The caller says what happens and when, and after each
 * call takes what is to be sent (NextPacket), what there is to tell (NextEvent), whether there should
 * be a link (WantsLink), and when to come back at the latest (Deadline). So one thread serves as many
 * sessions as it likes. A loop:
 *
 *     for (;;) {
 *         session.Advance(now);                  // nothing is left to read
 *         if (!session.WantsLink()) close the link, if any;
 *         else if (there is none) connect, and tell Connected() or Lost();
 *         send every NextPacket(); look at every NextEvent();
 *         wait for the link until session.Deadline();
 *         Take() every packet that is there; at the end of the link, Lost();
 *     }
 *
 * Requests name their time-out, which begins with the call; they wait for a link where there is none.
 * A question that is being asked already is not asked twice: its number is returned again, and it has
 * the later of the two time-outs. What is followed stays so through lost links: it is asked for again
 * on each new one. Throws std::bad_alloc and what the ledger's zone throws.
 */
class Session
{
public:
    using SteadyTime = std::chrono::steady_clock::time_point;

    /** Begins without a link and wants one. @param ledger  new or restored: what is known of the steps */
    Session(SessionOptions options, StepLedger ledger);

    // --- what happens -----------------------------------------------------------------------------

    /** There is a link. @param run  see StepLedger::Connected() */
    void Connected(Moment now, std::string_view run = {});

    /**
     * The link is gone, or could not be made. Nothing while WantsLink() is false.
     *
     * @param why  one line for people, without a full stop
     */
    void Lost(std::string why, Moment now);

    /** A packet of the link, whole, whatever its bytes. Without a link it is dropped. */
    void Take(std::span<const std::uint8_t> packet, Moment now);

    /**
     * Time has passed, and every packet that had arrived was taken. To be called before each wait:
     * many packets in between, or a call that comes long after Deadline(), mean that the process was
     * held up and packets may have been dropped, which is then reckoned with.
     */
    void Advance(Moment now);

    // --- what is wanted ---------------------------------------------------------------------------

    /** One reading: ends with NewReading or Failed. Heart rate takes 15 s, the worn state 3 s. */
    RequestId Measure(Sensor sensor, Moment now,
                      std::optional<std::chrono::milliseconds> timeout = std::nullopt);

    /** The sensors of the watch: ends with NewList or Failed. */
    RequestId List(Moment now, std::optional<std::chrono::milliseconds> timeout = std::nullopt);

    /** Follows the sensor no more, and has the watch stop pushing it: ends with Stopped or Failed. */
    RequestId Stop(Sensor sensor, Moment now,
                   std::optional<std::chrono::milliseconds> timeout = std::nullopt);

    /**
     * Readings of the sensor for as long as the session lasts: NewReading with mRequest 0. Activity is
     * stopped, then started; steps are asked for, which has the watch push them for good; heart rate
     * and worn state are measured again and again.
     *
     * @param every  between two questions for heart rate or worn state; at least what they take
     */
    void Follow(Sensor sensor, Moment now,
                std::chrono::milliseconds every = std::chrono::milliseconds{0});

    [[nodiscard]] bool Follows(Sensor sensor) const { return mWishes.count(sensor) != 0; }

    // --- what comes of it -------------------------------------------------------------------------

    /** Whether there should be a link: make or keep it; close it, and wait, when false. */
    [[nodiscard]] bool WantsLink() const { return mState != State::Resting; }

    /** Whether the last of Linked and Lost was Linked. */
    [[nodiscard]] bool IsLinked() const { return mState == State::Ready; }

    /** What is to be sent, in order; nothing when that is all. Emptied when the link goes. */
    std::optional<Bytes> NextPacket();

    /** What there is to tell, in order; nothing when that is all. */
    std::optional<Told::Event> NextEvent();

    /** When Advance() is to be called at the latest; nothing: not before something happens. */
    [[nodiscard]] std::optional<SteadyTime> Deadline() const;

    /** The latest reading of the sensor; nothing before the first. */
    [[nodiscard]] std::optional<Observation> Latest(Sensor sensor) const
    {
        return mObservations.Latest(sensor);
    }

    /** The true steps, as far as they are known: to look at and to save. */
    [[nodiscard]] const StepLedger &Steps() const { return mLedger; }

private:
    enum class State {
        Resting, // until mConnectAt
        Wanting, // a link
        Trying,  // whether the watch answers on it
        Ready,
    };

    /** What was asked for and not answered. */
    struct Question
    {
        RequestId mId = 0;
        bool mIsOurs = false; // nobody outside knows of it
        Request mRequest;
        std::chrono::milliseconds mTimeout{0};
        SteadyTime mGiveUpAt;
        std::optional<SteadyTime> mSentAt; // nothing: waits for a link
        std::optional<SteadyTime> mAskAgainAt;
        std::optional<SensorList> mList; // as far as it has come
    };
    using Questions = std::list<Question>;

    /** A sensor that is followed. */
    struct Wish
    {
        std::chrono::milliseconds mEvery{0};
        std::optional<SteadyTime> mAskAt; // nothing: is being asked, pushes, or is left out
    };

    void Work(Moment now);
    void LookAtTheTime(Moment now);
    void Missed(SteadyTime now);
    void BecomeReady(Moment now);
    void GoAway(const Failure &why, Moment now);
    void GiveUpWhatIsLate(Moment now);
    void GiveUp(Questions::iterator question, Moment now);
    void AskWhatIsDue(Moment now);
    RequestId Ask(Request request, bool isOurs, Moment now,
                  std::optional<std::chrono::milliseconds> timeout);
    void Send(Question &question, Moment now);
    void Fail(const Question &question, Failure why);

    void TakeReply(const Reading &reading, Moment now);
    void TakeReply(const StopAck &acknowledgement, Moment now);
    void TakeReply(const SensorListHeader &header, Moment now);
    void TakeReply(const SensorEntry &entry, Moment now);
    void TakeReply(const OptionReply &reply, Moment now);
    void EndListWhenWhole(Questions::iterator question);
    [[nodiscard]] Instant SentAt(std::optional<Instant> watchTime, Moment now);
    void Count(Told::NewReading &told, Moment now);
    void Answered(Questions::iterator question, Told::NewReading &told, Moment now);
    [[nodiscard]] bool WantsAnotherTotal() const;

    Questions::iterator Find(Command command, Sensor sensor);
    [[nodiscard]] std::uint8_t NextFlags();

    SessionOptions mOptions;
    StepLedger mLedger;
    Observations mObservations;
    Backoff mBackoff;
    State mState = State::Wanting;
    SteadyTime mConnectAt;
    Questions mQuestions;
    std::map<Sensor, Wish> mWishes;
    std::deque<Bytes> mPackets;
    std::deque<Told::Event> mEvents;
    std::optional<SteadyTime> mPromised; // Deadline() after the last call
    SteadyTime mHeardAt;                 // the last packet
    SteadyTime mMissedAt = SteadyTime::min();
    std::uint8_t mFlags;
    RequestId mLastId = 0;
    std::optional<Instant> mWatchTime; // of the last reading
    std::optional<std::chrono::milliseconds>
        mLag;             // of the fastest reading, behind the watch's clock
    int mTakenInARow = 0; // packets since the last Advance()
    int mUnsure = 0;      // totals in a row that did not tell the steps
};

} // namespace ParvaneHost
