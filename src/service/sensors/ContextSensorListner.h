#pragma once

#include <memory>

#include "SensorData.h"

namespace Parvane {

/** Receives the readings of a context sensor. Called on the main-loop thread. */
class ContextSensorListner
{
public:
    virtual ~ContextSensorListner() = default;

    /** A reading that came through the running subscription. */
    virtual void OnSensorDataUpdated(std::shared_ptr<SensorData> data) = 0;

    /** The answer to a one-shot query. */
    virtual void OnSensorDataChanged(std::shared_ptr<SensorData> data);
};

} // namespace Parvane
