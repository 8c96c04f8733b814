#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "Failure.h"
#include "Messages.h"
#include "Observation.h"
#include "StepLedger.h"

namespace ParvaneHost {

/** A request of one session. 0 is none; a number is not used twice. */
using RequestId = std::uint64_t;

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

} // namespace ParvaneHost
