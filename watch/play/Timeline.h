#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Scenario.h"

namespace ParvaneWatch {

/** What the manual source of the service can be told. */
enum class PlayItem { HeartRate, Steps, Activity, Gesture };

/** One value at one instant. */
struct PlayEvent
{
    std::int64_t mMs = 0; // since the start of the scenario
    PlayItem mItem = PlayItem::HeartRate;
    int mValue = 0; // as in the cells; steps that are added

    bool operator==(const PlayEvent &) const = default;
};

/** The request "set" of docs/control.md, as JSON. */
std::string RequestText(const PlayEvent &event);

/**
 * Unfolds a scenario: ramps, noise and cadences give a value each second.
 *
 * Depends on nothing but its arguments, on any machine.
 *
 * @param seed  of the noise
 * @return in the order of time; those of one instant as heart rate, steps, activity, gesture
 */
std::vector<PlayEvent> MakeTimeline(const Scenario &scenario, std::uint64_t seed);

} // namespace ParvaneWatch
