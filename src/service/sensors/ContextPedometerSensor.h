#pragma once

#include <platform/context_manager.h>

#include "ContextSensor.h"
#include "PedometerData.h"

namespace Parvane {

/**
 * Steps: readings become PedometerData, relative to a baseline.
 *
 * The platform counts for ever; the first reading after construction or after a Start becomes the
 * baseline, is delivered as all zero, and is subtracted from every later one. When the platform's
 * count falls below the baseline, an empty record is delivered and the baseline stays.
 */
class ContextPedometerSensor : public ContextSensor
{
public:
    void Start() override;
    void Stop() override;

    /** Asks the platform; the answer comes later, from the main loop. */
    void GetCurrentSensorData() override;

    /**
     * Builds an option that describes the wearer.
     *
     * @param gender  CONTEXT_PEDOMETER_GENDER_MALE or CONTEXT_PEDOMETER_GENDER_FEMALE; anything
     *     else is logged and ends the process
     * @param height  in the platform's unit
     * @param weight  in the platform's unit
     * @return the option, which the caller releases with free
     */
    ContextManagerOptionType *CreateContextManagerOption(int gender, double height, double weight);

private:
    static void OnContextChanged(int error, int item, context_data *data, void *user_data,
                                 int request_id) noexcept;

    void DeliverRelative(const PedometerData &current, int32_t requestId);

    bool mIsFirstData = true;
    PedometerData mBaseline;
};

} // namespace Parvane
