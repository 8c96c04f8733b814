#pragma once

#include <memory>

#include "base/Clock.h"
#include "context_manager/SensorSource.h"
#include "service_app/Settings.h"

namespace ParvanePlatform {

/**
 * Makes the source that the settings ask for: the replay of a recording, or one without sensors.
 *
 * @param clock  borrowed for the life of the source
 * @throws StartupError when the recording cannot be played
 */
std::unique_ptr<SensorSource> MakeSensorSource(const Settings &settings, const Clock &clock);

} // namespace ParvanePlatform
