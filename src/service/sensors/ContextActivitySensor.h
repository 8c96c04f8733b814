#pragma once

#include <platform/context_manager.h>

#include "ContextSensor.h"

namespace Parvane {

/** Still, walking, running: readings become ActivityData. A one-shot query gets an empty reading. */
class ContextActivitySensor : public ContextSensor
{
public:
    void Start() override;
    void Stop() override;

private:
    static void OnContextChanged(int error, int item, context_data *data, void *user_data,
                                 int request_id) noexcept;
};

} // namespace Parvane
