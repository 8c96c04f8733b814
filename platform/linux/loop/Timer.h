#pragma once

#include <cstdint>
#include <functional>

#include "LoopSource.h"

namespace ParvanePlatform {

/** A one-shot alarm that can be set again and again. An interface, so that tests need no time. */
class Timer
{
public:
    virtual ~Timer() = default;

    /** Calls `handler` once at `dueUs` of the monotonic clock; replaces an earlier setting. */
    virtual void Arm(std::int64_t dueUs, std::function<void()> handler) = 0;

    /** Ends the setting; there is no call and no wake-up any more. */
    virtual void Disarm() = 0;
};

/** A timer of the default main loop. */
class LoopTimer : public Timer
{
public:
    void Arm(std::int64_t dueUs, std::function<void()> handler) override;
    void Disarm() override { mSource.Remove(); }

private:
    Parvane::LoopSource mSource;
};

} // namespace ParvanePlatform
