#pragma once

#include <memory>
#include <vector>

#include "power/PowerBackend.h"
#include "service_app/Settings.h"

namespace ParvanePlatform {

class BusParts;

/**
 * Makes what the settings let hold the power locks, in the order in which it is asked.
 *
 * @param bus  may be null when the settings do not ask for logind
 * @return nothing when locks are to be kept without the system
 */
std::vector<std::unique_ptr<PowerBackend>> MakePowerBackends(const PowerSettings &settings,
                                                             BusParts *bus);

} // namespace ParvanePlatform
