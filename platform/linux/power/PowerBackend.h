#pragma once

#include <memory>

namespace ParvanePlatform {

/** Keeps the device from sleeping for as long as it lives. */
class PowerHold
{
public:
    virtual ~PowerHold() = default;
};

/** Something in the system that can keep the device from sleeping. Main-loop thread only. */
class PowerBackend
{
public:
    virtual ~PowerBackend() = default;

    /** What it is, for log and status: "logind", "wake_lock". */
    virtual const char *Name() const = 0;

    /**
     * Takes a hold that is in force when the call returns.
     *
     * @param timeoutMs  when its owner will end it, above 0; a hold that the system would
     *                   keep after the death of this process ends by itself a little later
     * @return the hold; null when it cannot be had now, which is logged once per change of state
     */
    virtual std::unique_ptr<PowerHold> Hold(int timeoutMs) = 0;
};

} // namespace ParvanePlatform
