#include "Wishes.h"

#include "Earlier.h"

namespace ParvaneHost {

bool Wishes::Follow(Sensor sensor, std::chrono::milliseconds every)
{
    const auto [wish, isNew] = mAll.try_emplace(sensor);
    wish->second.mEvery = every;
    return isNew;
}

Wish *Wishes::Find(Sensor sensor)
{
    const auto wish = mAll.find(sensor);
    return wish == mAll.end() ? nullptr : &wish->second;
}

void Wishes::AskAll(SteadyTime at)
{
    for (auto &[sensor, wish] : mAll) {
        wish.mAskAt = at;
    }
}

void Wishes::AskIdle(const Questions &asked, SteadyTime at)
{
    for (auto &[sensor, wish] : mAll) {
        if (!wish.mAskAt && !asked.IsAnythingAskedOf(sensor)) {
            wish.mAskAt = at;
        }
    }
}

void Wishes::AskNone()
{
    for (auto &[sensor, wish] : mAll) {
        wish.mAskAt.reset();
    }
}

std::optional<Sensor> Wishes::TakeDue(SteadyTime now)
{
    for (auto &[sensor, wish] : mAll) {
        if (wish.mAskAt && *wish.mAskAt <= now) {
            wish.mAskAt.reset();
            return sensor;
        }
    }
    return std::nullopt;
}

std::optional<Wishes::SteadyTime> Wishes::Deadline() const
{
    std::optional<SteadyTime> deadline;
    for (const auto &[sensor, wish] : mAll) {
        deadline = Earlier(deadline, wish.mAskAt);
    }
    return deadline;
}

} // namespace ParvaneHost
