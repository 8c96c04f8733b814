#pragma once

#include <memory>
#include <vector>

#include "PowerBackend.h"
#include "Settings.h"

namespace ParvanePlatform {

/** Makes the backend that asks another service over the system bus. */
class BusPowerParts
{
public:
    virtual ~BusPowerParts() = default;

    /** A power lock as an inhibitor of logind. */
    virtual std::unique_ptr<PowerBackend> MakeLogindBackend() = 0;
};

/**
 * Makes what the settings let hold the power locks, in the order in which it is asked.
 *
 * @param bus  may be null when the settings do not name logind; auto does without it then
 * @return nothing when locks are to be kept without the system
 */
std::vector<std::unique_ptr<PowerBackend>> MakePowerBackends(const PowerSettings &settings,
                                                             BusPowerParts *bus);

} // namespace ParvanePlatform
