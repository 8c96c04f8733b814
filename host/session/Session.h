#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Backoff.h"
#include "HoldUps.h"
#include "Messages.h"
#include "Questions.h"
#include "Readings.h"
#include "SessionOptions.h"
#include "StepLedger.h"
#include "Told.h"
#include "Wishes.h"

namespace ParvaneHost {

/** A point in time by both clocks of the caller. The steady one may begin anywhere and never goes back. */
struct Moment
{
    std::chrono::steady_clock::time_point mSteady; // for pauses and time-outs
    Instant mWall; // for the times of readings and the days of steps
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

    [[nodiscard]] bool Follows(Sensor sensor) const { return mWishes.Follows(sensor); }

    // --- what comes of it -------------------------------------------------------------------------

    /** Whether there should be a link: make or keep it; close it, and wait, when false. */
    [[nodiscard]] bool WantsLink() const { return mState != State::Resting; }

    /** Whether the last of Linked and Lost was Linked. */
    [[nodiscard]] bool IsLinked() const { return mState == State::Ready; }

    /** What is to be sent, in order; nothing when that is all. Emptied when the link goes. */
    std::optional<Bytes> NextPacket() { return mQuestions.NextPacket(); }

    /** What there is to tell, in order; nothing when that is all. */
    std::optional<Told::Event> NextEvent();

    /** When Advance() is to be called at the latest; nothing: not before something happens. */
    [[nodiscard]] std::optional<SteadyTime> Deadline() const;

    /** The latest reading of the sensor; nothing before the first. */
    [[nodiscard]] std::optional<Observation> Latest(Sensor sensor) const
    {
        return mReadings.Observed().Latest(sensor);
    }

    /** The true steps, as far as they are known: to look at and to save. */
    [[nodiscard]] const StepLedger &Steps() const { return mReadings.Steps(); }

private:
    enum class State {
        Resting, // until mConnectAt
        Wanting, // a link
        Trying,  // whether the watch answers on it
        Ready,
    };

    void Work(Moment now);
    void Missed(SteadyTime now);
    void BecomeReady(Moment now);
    void GoAway(const Failure &why, Moment now);
    void GiveUpWhatIsLate(Moment now);
    void GiveUp(const Question &late, Moment now);
    void AskWhatIsDue(Moment now);
    RequestId Ask(const Request &request, bool isOurs, Moment now,
                  std::optional<std::chrono::milliseconds> timeout = std::nullopt);
    void Send(Question &question, Moment now);
    void Fail(const Question &question, Failure why);

    void TakeReply(const Reading &reading, Moment now);
    void TakeReply(const StopAck &acknowledgement, Moment now);
    void TakeReply(const SensorListHeader &header, Moment now);
    void TakeReply(const SensorEntry &entry, Moment now);
    void TakeReply(const OptionReply &reply, Moment now);
    void EndListWhenWhole(Questions::Iterator question);
    void Answered(Questions::Iterator question, Told::NewReading &told, Moment now);

    SessionOptions mOptions;
    Readings mReadings;
    Backoff mBackoff;
    State mState = State::Wanting;
    SteadyTime mConnectAt;
    Questions mQuestions;
    Wishes mWishes;
    std::deque<Told::Event> mEvents;
    HoldUps mHoldUps;
    SteadyTime mHeardAt; // the last packet
    SteadyTime mMissedAt = SteadyTime::min();
};

} // namespace ParvaneHost
