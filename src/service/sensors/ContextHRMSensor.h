#pragma once

#include <platform/context_manager.h>

#include "ContextSensor.h"

namespace Parvane {

/** Heart rate: readings become HRMData. A one-shot query is answered with an empty reading. */
class ContextHRMSensor : public ContextSensor
{
public:
    void Start() override;
    void Stop() override;

private:
    static void OnContextChanged(int error, int item, context_data *data, void *user_data,
                                 int request_id) noexcept;
};

} // namespace Parvane
