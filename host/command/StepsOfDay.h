#pragma once

#include <chrono>
#include <optional>

#include "StepLedger.h"

namespace ParvaneHost {

/** What is known of the steps of one day. */
struct StepsOfDay
{
    std::chrono::local_days mDate{};
    std::optional<DaySteps> mSteps; // nothing: none at all
};

} // namespace ParvaneHost
