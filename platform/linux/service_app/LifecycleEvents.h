#pragma once

namespace ParvanePlatform {

/** What parts of the runtime can ask of the service's life. Main-loop thread only. */
class LifecycleEvents
{
public:
    virtual ~LifecycleEvents() = default;

    /** Calls the service's low_memory callback, if it has one and is running. */
    virtual void OnLowMemory() = 0;

    /** Calls the service's low_battery callback, if it has one and is running. */
    virtual void OnLowBattery() = 0;

    /** Ends the service in order. */
    virtual void OnQuit() = 0;
};

} // namespace ParvanePlatform
