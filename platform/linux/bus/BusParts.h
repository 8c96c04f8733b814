#pragma once

#include <memory>

#include "AddressSource.h"
#include "Alerts.h"
#include "PowerBackends.h"
#include "SensorSources.h"
#include "Settings.h"

namespace ParvanePlatform {

/**
 * Makes the parts that talk to other services over the system bus.
 *
 * They lie in a module that is loaded when one of them is asked for, since they bring GIO and its
 * thread; all that they call back comes on the main loop. No part fails to be made because a service
 * or the bus is away: that shows in what the part's operations return, and may change.
 */
class BusParts : public BusSensorParts, public BusPowerParts, public BusAlertParts
{
public:
    /** The address of an adapter, from BlueZ. */
    virtual std::unique_ptr<AddressSource> MakeBluezAdapter(const BluetoothSettings &settings) = 0;
};

/** The module's only symbol: makes its BusParts; null without memory. */
using MakeBusPartsFunction = BusParts *();
constexpr char kMakeBusPartsSymbol[] = "parvane_make_bus_parts";

/** Whether a part is made over the bus: none, one for which "auto" has another, or one that is named. */
enum class BusUse { None, IfThere, Required };

BusUse UseOfBus(const Settings &settings);

/**
 * Loads the module, which lies beside the platform's library.
 *
 * @return null without a use, and, which is logged, for IfThere when the module is not installed
 * @throws StartupError that names the module and what the loader says, or who has it when it is missing
 */
std::unique_ptr<BusParts> LoadBusParts(BusUse use);

} // namespace ParvanePlatform
