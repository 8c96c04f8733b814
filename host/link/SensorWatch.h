#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Backoff.h"
#include "Client.h"
#include "Deadline.h"
#include "Error.h"
#include "Messages.h"
#include "Result.h"

namespace ParvaneHost {

struct SensorWatchOptions
{
    /** For the answer to each question; nothing: what the sensor takes, see AnswerTimeout(). */
    std::optional<std::chrono::milliseconds> mRequestTimeout;
    std::chrono::milliseconds mFirstDelay{100};    // before reconnecting; doubled up to
    std::chrono::milliseconds mLongestDelay{5000}; // this
    /** Told, in a line for people, of a lost link, each failed attempt, and what is amiss otherwise. */
    std::function<void(const std::string &)> mOnNotice;
    /** Told when a lost link is there again: what Next() returned before is from the one before. */
    std::function<void()> mOnLinkedAgain;
};

/**
 * The readings of some sensors for as long as one likes, over a link that comes and goes.
 *
 * Activity is started; steps are measured once, which is what has the watch push them. Heart rate and
 * worn state are never pushed, so they are measured again and again. When the link is lost it is made
 * again, with growing delays and without end, and everything is asked for again. Readings of other
 * sensors are dropped. Borrows the client, which must outlive it and is used by nobody else meanwhile.
 */
class SensorWatch
{
public:
    /** @param sensors  at least one, none twice */
    SensorWatch(Client &client, std::vector<Sensor> sensors, SensorWatchOptions options);

    /**
     * Connects and asks for the sensors. Here, and until the first reading, every failure is final: a
     * wrong path, another host, a silent watch. The readings come from Next().
     *
     * @param bound  when the whole attempt is given up at the latest
     */
    std::optional<Error> Begin(const Deadline &bound = Deadline::Never());

    /**
     * The next reading. Fails with Timeout at the deadline, Interrupted, and ProtocolError; a lost
     * link is made again within the call, and so is one on which the start of the activity gets no
     * answer. A sensor without an answer is left out until the link is made again; when it was the
     * last one, that is the Timeout.
     */
    Result<Reading, Error> Next(const Deadline &deadline);

    /** Has the sensor asked for once more, within Next(). Does nothing for one that was left out. */
    void AskAgain(Sensor sensor);

    /**
     * Stops an activity that was started, or whose start was interrupted, and awaits the
     * acknowledgement, until `bound` at the latest. Does nothing without a link: the watch stops by
     * itself when it goes.
     */
    std::optional<Error> End(const Deadline &bound = Deadline::Never());

private:
    /** A sensor and what is to be done for it. */
    struct Topic
    {
        Sensor mSensor = Sensor::Activity;
        Deadline mAskAt;
        std::optional<Deadline>
            mGiveUp; // for the answer to what was asked; nothing: none is awaited
    };

    [[nodiscard]] bool Watches(Sensor sensor) const;
    [[nodiscard]] Timeout NothingCame(const Deadline &deadline) const;
    std::optional<Error> AskAll(const Deadline &bound);
    std::optional<Error> AskWhatIsDue(const Deadline &bound);
    std::optional<Error> Ask(Topic &topic, const Deadline &bound);
    std::optional<Error> StartActivity(const Deadline &bound);
    std::optional<Error> Listen(const Deadline &deadline);
    std::optional<Error> LeaveOutSilent();
    std::optional<Error> Resume(const Deadline &deadline);
    void Keep(const Reply &reply);
    void Notify(const std::string &text) const;

    Client *mClient;
    std::vector<Sensor> mSensors;
    SensorWatchOptions mOptions;
    Backoff mBackoff;
    std::vector<Topic> mTopics; // of the link as it is
    bool mRunning = false;
    bool mHasHeard = false; // a reading, ever
    bool mIsBack = false;   // a link made again that has brought nothing yet
    std::deque<Reading> mReadings;
};

} // namespace ParvaneHost
