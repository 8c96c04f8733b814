#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "Messages.h"
#include "StepLedger.h"

namespace ParvaneHost {

/** "4 s ago", "2 h ago": in the largest unit of which there is one at least, without what is left. */
std::string AgeText(std::chrono::milliseconds age);

/** Whether the watch was worn, as far as it was told around the reading. */
enum class Worn { Unknown, Yes, No };

/** A reading with what makes it worth something: never a bare number that may be an hour old. */
struct Observation
{
    bool operator==(const Observation &) const = default;

    /** Whether it is one: a heart rate of 0 says that there is none. */
    [[nodiscard]] bool IsMeasurement() const;

    /** Since the watch has sent it; 0 for a clock that has gone back. */
    [[nodiscard]] std::chrono::milliseconds Age(Instant now) const;

    /**
     * One line: "72 bpm, 4 s ago, worn", "walking, 1 min ago, before the link was lost",
     * "no reading: the watch is not worn".
     */
    [[nodiscard]] std::string Text(Instant now) const;

    Sensor mSensor = Sensor::HeartRate;
    float mValue = 0.0F; // as in Reading; of the steps it is the total on the wire
    Instant mAt;         // when it was sent, by the phone's clock
    Worn mWorn = Worn::Unknown;
    bool mIsUnbroken = true; // the link has been there since, without a gap
};

/** The latest reading of each sensor. A value: no clock, no thread, no I/O. */
class Observations
{
public:
    /** How long what is told of the worn state holds for the readings after it. */
    static constexpr std::chrono::seconds kWornHolds{60};

    /** Enters a reading that was sent at `at`. */
    Observation Take(const Reading &reading, Instant at);

    /** The link was lost, or readings were missed: what is there is from before that. */
    void Break();

    /** Nothing before the first reading of the sensor. */
    [[nodiscard]] std::optional<Observation> Latest(Sensor sensor) const;

    /** What is known of the worn state at an instant. */
    [[nodiscard]] Worn WornAt(Instant at) const;

private:
    std::map<Sensor, Observation> mLatest;
};

} // namespace ParvaneHost
