#pragma once

#include <chrono>
#include <map>
#include <optional>

#include "Messages.h"
#include "Questions.h"

namespace ParvaneHost {

/** A sensor that is followed. */
struct Wish
{
    std::chrono::milliseconds mEvery{0};
    /** Nothing: is being asked, pushes, or is left out. */
    std::optional<std::chrono::steady_clock::time_point> mAskAt;
};

/** The sensors that are followed, and when each is to be asked. A value: no clock. */
class Wishes
{
public:
    using SteadyTime = std::chrono::steady_clock::time_point;

    /** @return whether it was not followed before */
    bool Follow(Sensor sensor, std::chrono::milliseconds every);
    void Forget(Sensor sensor) { mAll.erase(sensor); }

    [[nodiscard]] bool Follows(Sensor sensor) const { return mAll.count(sensor) != 0; }

    /** Null: it is not followed. */
    [[nodiscard]] Wish *Find(Sensor sensor);

    /** All are to be asked. */
    void AskAll(SteadyTime at);

    /** Those that are neither asked nor to be asked are to be. */
    void AskIdle(const Questions &asked, SteadyTime at);

    /** None is to be asked. */
    void AskNone();

    /** A sensor that is to be asked by now; the caller does so. Nothing when that is all. */
    std::optional<Sensor> TakeDue(SteadyTime now);

    /** When the next one is to be asked. */
    [[nodiscard]] std::optional<SteadyTime> Deadline() const;

private:
    std::map<Sensor, Wish> mAll;
};

} // namespace ParvaneHost
