#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "Backoff.h"
#include "Client.h"
#include "Deadline.h"
#include "Error.h"
#include "Messages.h"
#include "Result.h"

namespace ParvaneHost {

struct SensorWatchOptions
{
    std::chrono::milliseconds mRequestTimeout{5000}; // for each connection's start
    std::chrono::milliseconds mFirstDelay{100};      // before reconnecting; doubled up to
    std::chrono::milliseconds mLongestDelay{5000};   // this
    /** Told, in a line for people, when the link is lost, each failed attempt, and when it is back. */
    std::function<void(const std::string &)> mOnNotice;
};

/**
 * The readings of one sensor for as long as one likes, over a link that comes and goes.
 *
 * Activity is started; steps are measured once, which is what has the watch push them. When the link
 * is lost it is made again, with growing delays and without end, and the sensor is started again.
 * Readings of other sensors are dropped. Borrows the client, which must outlive it and is used by
 * nobody else meanwhile.
 */
class SensorWatch
{
public:
    /** @param sensor  Sensor::Activity or Sensor::Pedometer; Begin() refuses any other */
    SensorWatch(Client &client, Sensor sensor, SensorWatchOptions options);

    /**
     * Connects and starts the sensor. Here every failure is final: a wrong path, another host, a
     * silent watch. The first readings come from Next().
     *
     * @param bound  when the whole attempt is given up at the latest
     */
    std::optional<Error> Begin(const Deadline &bound = Deadline::Never());

    /**
     * The next reading. Fails with Timeout at the deadline, Interrupted, and ProtocolError; a lost
     * link is made again within the call, and so is one on which the start gets no answer.
     */
    Result<Reading, Error> Next(const Deadline &deadline);

    /**
     * Stops an activity that was started, or whose start was interrupted, and awaits the
     * acknowledgement, until `bound` at the latest. Does nothing without a link: the watch stops by
     * itself when it goes.
     */
    std::optional<Error> End(const Deadline &bound = Deadline::Never());

private:
    std::optional<Error> StartSensor(const Deadline &bound);
    std::optional<Error> Resume(const Deadline &deadline);
    void Keep(const Reply &reply);
    void Notify(const std::string &text) const;

    Client *mClient;
    Sensor mSensor;
    SensorWatchOptions mOptions;
    Backoff mBackoff;
    bool mRunning = false;
    std::deque<Reading> mReadings;
};

} // namespace ParvaneHost
