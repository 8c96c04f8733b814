#pragma once

#include <memory>

#include "base/Clock.h"
#include "base/LoopSource.h"
#include "context_manager/SensorSource.h"
#include "service_app/Settings.h"

namespace ParvanePlatform {

/** Pedometer and activity from the kernel's industrial-I/O devices. */
class IioSource : public SensorSource
{
public:
    /** `clock` is borrowed for the life of the source. Touches no file. */
    IioSource(const IioSettings &settings, const Clock &clock, std::unique_ptr<Timer> timer);

    void SetListener(SensorListener *listener) override;
    int Start(ContextItem item) override;
    void Stop(ContextItem item) override;
    std::optional<SensorReading> Latest(ContextItem item) const override;

private:
    SensorListener *mListener = nullptr;
};

} // namespace ParvanePlatform
